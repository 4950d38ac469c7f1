// The fast start-code search against the byte-by-byte state machine, on the
// input cut into chunks (the first byte says where), so the zero counter is
// carried across chunk boundaries too. Any difference aborts.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <lumiflux/h264_reader.h>

#include "quiet_log.h"

namespace {

struct Reference {
    const unsigned char* data = nullptr;
    unsigned long size = 0;
    long long readOffset = -1;
    int zeros = 0;
    int startCodeSize = 0;

    unsigned long next()
    {
        unsigned long i = readOffset < 0 ? 0 : static_cast<unsigned long>(readOffset);
        for (; i < size; ++i) {
            if (data[i] == 0) {
                zeros = zeros == 3 ? 0 : zeros + 1;
            } else if (data[i] == 1 && (zeros & 2) != 0) {
                const int counted = zeros;
                zeros = 0;
                startCodeSize = counted + 1;
                readOffset = static_cast<long long>(i) + 1;
                return i - static_cast<unsigned long>(counted);
            } else {
                zeros = 0;
            }
        }
        readOffset = static_cast<long long>(size);
        return size;
    }
};

void check(bool same)
{
    if (!same)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::size_t chunkSize = 1 + input[0] * 7u;
    ++input;
    --size;
    H264Reader fast;
    Reference reference;
    for (std::size_t begin = 0; begin < size; begin += chunkSize) {
        const std::size_t length = size - begin < chunkSize ? size - begin : chunkSize;
        // An exact-size copy: a read past the chunk trips AddressSanitizer.
        std::vector<unsigned char> chunk(input + begin, input + begin + length);
        fast.setData(chunk.data(), chunk.size());
        reference.data = chunk.data();
        reference.size = chunk.size();
        reference.readOffset = -1;
        for (;;) {
            const unsigned long expected = reference.next();
            check(fast.findNextNaluOffset() == expected);
            check(fast.readOffset() == reference.readOffset);
            if (expected != length)
                check(fast.startCodeSize() == reference.startCodeSize);
            if (reference.readOffset == static_cast<long long>(length))
                break;
        }
    }
    return 0;
}
