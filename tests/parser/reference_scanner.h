#pragma once

// The start-code search exactly as the state machine describes it, one byte
// at a time: the oracle the fast search must agree with on every input.

namespace lumiflux_test {

struct ReferenceScanner {
    const unsigned char* data = nullptr;
    unsigned long size = 0;
    long long readOffset = -1;
    int zeros = 0;
    int startCodeSize = 0;

    void setData(const unsigned char* d, unsigned long s)
    {
        data = d;
        size = s;
        readOffset = -1;
    }
    /** Offset of the next start code's first zero, or size. */
    unsigned long next()
    {
        unsigned long i = readOffset < 0 ? 0 : static_cast<unsigned long>(readOffset);
        for (; i < size; ++i) {
            const unsigned char b = data[i];
            if (b == 0) {
                zeros = zeros == 3 ? 0 : zeros + 1;
            } else if (b == 1 && (zeros & 2) != 0) {
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

} // namespace lumiflux_test
