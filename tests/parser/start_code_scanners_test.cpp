// The fast start-code search against a plain byte-by-byte transcription of
// the state machine, on random streams of every density and on mutated
// streams of real units: every scanner this CPU runs (vector widths and the
// portable one), with counters carried into a scan, and H264Reader over
// chunks that cut start codes in half.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include <lumiflux/h264_reader.h>

#include "h264_stream.h"
#include "parser/start_code_scan.h"

using namespace lumiflux_test;
using Tevara::Lumiflux::Internal::availableStartCodeScanners;
using Tevara::Lumiflux::Internal::scanForStartCode;
using Tevara::Lumiflux::Internal::StartCodeScanner;

namespace {

// The state machine one byte at a time: the oracle.
struct ReferenceScanner {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    long long readOffset = -1;
    int zeros = 0;
    int startCodeSize = 0;

    void setData(const std::uint8_t* d, std::size_t s) { data = d, size = s, readOffset = -1; }
    /** Offset of the next start code's first zero (wrapping when it began in an earlier chunk), or size. */
    unsigned long next()
    {
        for (std::size_t i = readOffset < 0 ? 0 : static_cast<std::size_t>(readOffset); i < size; ++i) {
            if (data[i] == 0) {
                zeros = zeros == 3 ? 0 : zeros + 1;
            } else if (data[i] == 1 && (zeros & 2) != 0) {
                startCodeSize = zeros + 1;
                readOffset = static_cast<long long>(i) + 1;
                zeros = 0;
                return i - static_cast<unsigned long>(startCodeSize - 1);
            } else {
                zeros = 0;
            }
        }
        readOffset = static_cast<long long>(size);
        return size;
    }
};

// Every scanner from `begin` with `carriedIn` zeros counted before it, and
// H264Reader over the chunks `cuts` makes: every result and state agree with the oracle.
void expectSameScans(const Bytes& stream, std::size_t begin, int carriedIn, std::vector<std::size_t> cuts)
{
    ReferenceScanner reference;
    reference.setData(stream.data(), stream.size());
    reference.readOffset = static_cast<long long>(begin);
    reference.zeros = carriedIn;
    std::vector<std::size_t> expectedOnes;
    std::vector<int> expectedZeros;
    while (reference.next() != stream.size() || reference.readOffset != static_cast<long long>(stream.size())) {
        expectedOnes.push_back(static_cast<std::size_t>(reference.readOffset) - 1);
        expectedZeros.push_back(reference.startCodeSize - 1);
    }
    for (StartCodeScanner scanner : availableStartCodeScanners()) {
        SCOPED_TRACE("scanner " + std::to_string(static_cast<int>(scanner)));
        int counter = carriedIn;
        std::vector<std::size_t> ones;
        std::vector<int> zeros;
        for (std::size_t position = begin;;) {
            const auto found = scanForStartCode(stream.data(), position, stream.size(), counter, scanner);
            if (found.onePosition >= stream.size())
                break;
            ones.push_back(found.onePosition);
            zeros.push_back(found.zeros);
            ASSERT_EQ(counter, 0);
            position = found.onePosition + 1;
        }
        ASSERT_EQ(ones, expectedOnes);
        ASSERT_EQ(zeros, expectedZeros);
        ASSERT_EQ(counter, reference.zeros);
    }

    H264Reader fast;
    ReferenceScanner chunked;
    cuts.push_back(stream.size());
    for (std::size_t from = 0, i = 0; i < cuts.size(); from = cuts[i++]) {
        SCOPED_TRACE("chunk at " + std::to_string(from));
        fast.setData(stream.data() + from, cuts[i] - from);
        chunked.setData(stream.data() + from, cuts[i] - from);
        do {
            ASSERT_EQ(fast.findNextNaluOffset(), chunked.next());
            ASSERT_EQ(fast.readOffset(), chunked.readOffset);
            ASSERT_EQ(fast.startCodeSize(), chunked.startCodeSize);
        } while (chunked.readOffset != static_cast<long long>(cuts[i] - from));
    }
}

} // namespace

TEST(H264StartCodeScanners, RandomStreamsMatchTheStateMachine)
{
    ASSERT_EQ(availableStartCodeScanners().back(), StartCodeScanner::Portable);
    std::mt19937 random(20261121);
    for (int round = 0; round < 4000; ++round) {
        // Sizes around the 64-byte blocks; in most rounds bytes are mostly 0
        // and 1, so zero runs of every length meet block edges.
        const std::size_t size = round < 300 ? static_cast<std::size_t>(round) : random() % 2048;
        const unsigned spread = 2 + random() % 7;
        Bytes stream(size);
        for (auto& b : stream) {
            const unsigned r = random() % spread;
            b = static_cast<std::uint8_t>(spread == 8 || r >= 2 ? random() % 256 : r);
        }
        std::vector<std::size_t> cuts;
        for (int c = 0; size > 0 && round % 3 == 0 && c < 4; ++c)
            cuts.push_back(random() % size);
        std::sort(cuts.begin(), cuts.end());
        SCOPED_TRACE("round " + std::to_string(round));
        expectSameScans(stream, size > 0 ? random() % (size + 1) : 0, static_cast<int>(random() % 4), cuts);
        if (HasFatalFailure())
            return;
    }
}

TEST(H264StartCodeScanners, MutatedStreamsMatchTheStateMachineAndTileIntoUnits)
{
    // Real units with random payloads, then flipped bytes, inserted zero runs
    // of every length and chunk cuts right after zeros.
    std::mt19937 random(7);
    Bytes base;
    appendNal(base, spsRbsp(SpsFields()));
    appendNal(base, ppsRbsp(), 3);
    for (unsigned i = 0; i < 40; ++i) {
        Bytes rbsp = sliceRbsp(i == 0 ? 5 : 1, i % 16, (2 * i) % 64);
        for (int j = 0; j < 200; ++j)
            rbsp.insert(rbsp.end() - 1, static_cast<std::uint8_t>(random()));
        appendNal(base, rbsp, i % 2 == 0 ? 4 : 3);
    }
    for (int round = 0; round < 600; ++round) {
        Bytes stream = base;
        for (int m = 0, mutations = 1 + static_cast<int>(random() % 8); m < mutations; ++m) {
            const std::size_t at = random() % stream.size();
            const unsigned kind = random() % 3;
            if (kind == 0)
                stream[at] = static_cast<std::uint8_t>(random() % 3);
            else if (kind == 1)
                stream.insert(stream.begin() + static_cast<long>(at), 1 + random() % 9, 0);
            else
                stream[at] ^= static_cast<std::uint8_t>(1u << (random() % 8));
        }
        std::vector<std::size_t> cuts;
        for (std::size_t i = 1; i < stream.size() && cuts.size() < 6; ++i)
            if (stream[i - 1] == 0 && random() % 50 == 0)
                cuts.push_back(i);
        SCOPED_TRACE("round " + std::to_string(round));
        expectSameScans(stream, 0, 0, cuts);
        if (HasFatalFailure())
            return;

        H264Reader reader; // the units tile the data from the first start code to the end
        reader.setData(stream.data(), stream.size());
        std::vector<std::pair<unsigned long, unsigned long>> units;
        for (auto unit = reader.readNalUnit(true); unit.second > 0; unit = reader.readNalUnit())
            units.push_back(unit);
        ASSERT_FALSE(units.empty());
        for (std::size_t i = 1; i < units.size(); ++i)
            ASSERT_EQ(units[i].first, units[i - 1].first + units[i - 1].second);
        ASSERT_EQ(units.back().first + units.back().second, stream.size());
    }
}
