// Each scanner this CPU runs, and H264Reader over cut chunks, against the byte-wise state machine on random data.
#include <gtest/gtest.h>

#include <random>

#include <lumiflux/h264_reader.h>

#include "parser/start_code_scan.h"

using Bytes = std::vector<std::uint8_t>;
using namespace Tevara::Lumiflux::Internal;

namespace {

// A 0x01 after two or three counted zeros is a start code; a fourth zero wraps the counter to 0.
struct Reference {
    const std::uint8_t* data;
    std::size_t size, position;
    int zeros;
    /** Where the scan stops (past the start code's 0x01, or at the end) and the code's length (0 for none). */
    std::pair<std::size_t, int> next()
    {
        while (position < size) {
            const std::uint8_t byte = data[position++];
            if (byte == 1 && (zeros & 2) != 0)
                return {position, std::exchange(zeros, 0) + 1};
            zeros = byte == 0 ? (zeros + 1) & 3 : 0;
        }
        return {size, 0};
    }
};

void expectSameScans(const Bytes& stream, std::size_t begin, int carried, std::vector<std::size_t> cuts)
{
    for (StartCodeScanner scanner : availableStartCodeScanners()) {
        Reference reference{stream.data(), stream.size(), begin, carried};
        int counter = carried;
        for (std::size_t position = begin;;) {
            const auto [end, length] = reference.next();
            const auto found = scanForStartCode(stream.data(), position, stream.size(), counter, scanner);
            ASSERT_EQ(found.onePosition, end - (length != 0)) << "scanner " << int(scanner) << " from " << position;
            ASSERT_EQ(counter, reference.zeros);
            if (length == 0)
                break;
            ASSERT_EQ(found.zeros, length - 1);
            position = end;
        }
    }
    Reference reference{stream.data(), 0, 0, 0};
    H264Reader reader; // carries its zero counter from one chunk into the next
    cuts.push_back(stream.size());
    for (std::size_t from = 0, i = 0; i < cuts.size(); from = cuts[i++]) {
        reader.setData(stream.data() + from, cuts[i] - from);
        reference.size = cuts[i];
        for (int length = -1; length != 0;) {
            const auto [end, codeLength] = reference.next();
            ASSERT_EQ(reader.findNextNaluOffset(), end - static_cast<std::size_t>(codeLength) - from) << "at " << from;
            ASSERT_EQ(reader.readOffset(), static_cast<std::int64_t>(end - from));
            ASSERT_TRUE(codeLength == 0 || reader.startCodeSize() == codeLength);
            length = codeLength;
        }
    }
}

TEST(H264StartCodeScanners, EveryScannerMatchesTheStateMachine)
{
    std::vector<StartCodeScanner> expected{StartCodeScanner::Portable}; // what this CPU runs, fastest first
#if defined(__x86_64__)
    expected.insert(expected.begin(), StartCodeScanner::Sse2);
    if (__builtin_cpu_supports("avx2"))
        expected.insert(expected.begin(), StartCodeScanner::Avx2);
#endif
    EXPECT_EQ(availableStartCodeScanners(), expected);
    std::mt19937 random(20261121);
    for (int round = 0; round < 4000; ++round) {
        // Sizes around the 64-byte blocks; in most rounds bytes are mostly 0 and 1, so zero runs meet block edges.
        const unsigned spread = 2 + random() % 7;
        Bytes stream(round < 300 ? static_cast<std::size_t>(round) : random() % 2048);
        for (auto& b : stream)
            b = static_cast<std::uint8_t>(spread == 8 || random() % spread >= 2 ? random() % 256 : random() % 2);
        std::vector<std::size_t> cuts; // chunks that end in zeros
        for (std::size_t i = 1; i < stream.size() && cuts.size() < 6; ++i)
            if (stream[i - 1] == 0 && random() % 50 == 0)
                cuts.push_back(i);
        SCOPED_TRACE("round " + std::to_string(round));
        expectSameScans(stream, random() % (stream.size() + 1), static_cast<int>(random() % 4), cuts);
        if (HasFatalFailure())
            return;
    }
}

} // namespace
