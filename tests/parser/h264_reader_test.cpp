// The minimal readers: start codes, units, bits, Exp-Golomb and parseSPS on
// hand-made streams; the fast start-code search against a plain byte-by-byte
// transcription of the state machine on random and mutated streams.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <random>
#include <regex>
#include <syslog.h>
#include <vector>

#include <lumiflux/h264_reader.h>
#include <lumiflux/log.h>

#include "h264_stream.h"
#include "reference_scanner.h"
#include "syslog_capture.h"

using namespace lumiflux_test;
using Bytes = std::vector<unsigned char>;

namespace {

// Both scanners over the same chunks; every result and every state must agree.
void expectSameScan(const Bytes& stream, const std::vector<std::size_t>& cuts)
{
    H264Reader fast;
    ReferenceScanner reference;
    std::size_t begin = 0;
    std::vector<std::size_t> bounds = cuts;
    bounds.push_back(stream.size());
    for (std::size_t end : bounds) {
        fast.setData(stream.data() + begin, end - begin);
        reference.setData(stream.data() + begin, end - begin);
        for (;;) {
            const unsigned long expected = reference.next();
            const unsigned long got = fast.findNextNaluOffset();
            ASSERT_EQ(got, expected) << "chunk at " << begin;
            ASSERT_EQ(fast.readOffset(), reference.readOffset);
            if (expected != end - begin) {
                ASSERT_EQ(fast.startCodeSize(), reference.startCodeSize);
            }
            if (reference.readOffset == static_cast<long long>(end - begin))
                break;
        }
        begin = end;
    }
    // The counter left at the end shows in what a following chunk finds.
    const Bytes probe{0, 1, 0, 0, 1};
    fast.setData(probe.data(), probe.size());
    reference.setData(probe.data(), probe.size());
    EXPECT_EQ(fast.findNextNaluOffset(), reference.next());
    EXPECT_EQ(fast.startCodeSize(), reference.startCodeSize);
}

std::vector<std::pair<unsigned long, unsigned long>> allUnits(H264Reader& reader, bool allowLeading = false)
{
    std::vector<std::pair<unsigned long, unsigned long>> units;
    for (auto unit = reader.readNalUnit(allowLeading); unit.second > 0; unit = reader.readNalUnit())
        units.push_back(unit);
    return units;
}

} // namespace

TEST(H264Reader, FreshReaderAndErrorNames)
{
    H264Reader reader;
    EXPECT_EQ(reader.readOffset(), -1);
    EXPECT_EQ(reader.currentNaluOffset(), 0u);
    EXPECT_EQ(reader.error(), H264Reader::NoError);
    EXPECT_EQ(reader.errorName(H264Reader::NoError), "NoError");
    EXPECT_EQ(reader.errorName(H264Reader::FormatError), "FormatError");
    EXPECT_EQ(reader.errorName(H264Reader::EmptyError), "EmptyError");
    reader.throwError(H264Reader::FormatError);
    EXPECT_EQ(reader.error(), H264Reader::FormatError);
}

TEST(H264Reader, StartCodeSizesAndUnitBoundaries)
{
    // 4-byte start code, 3-byte start code, then a 4-byte one at the end.
    const Bytes data{0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0xce, 0, 0, 0, 1, 0x65, 0x88};
    H264Reader reader;
    reader.setData(data.data(), data.size());
    auto unit = reader.readNalUnit(false);
    EXPECT_EQ(unit, std::make_pair(0ul, 6ul));
    EXPECT_EQ(reader.startCodeSize(), 3); // of the next start code, found last
    EXPECT_EQ(reader.currentNaluOffset(), 6u);
    EXPECT_EQ(reader.readOffset(), 9);
    unit = reader.readNalUnit();
    EXPECT_EQ(unit, std::make_pair(6ul, 5ul));
    EXPECT_EQ(reader.startCodeSize(), 4);
    unit = reader.readNalUnit();
    EXPECT_EQ(unit, std::make_pair(11ul, 6ul)); // the last unit runs to the end
    EXPECT_EQ(reader.readOffset(), static_cast<std::int64_t>(data.size()));
    EXPECT_EQ(reader.readNalUnit(), std::make_pair(static_cast<unsigned long>(data.size()), 0ul));
    EXPECT_EQ(reader.error(), H264Reader::NoError);

    const Bytes four{0, 0, 0, 1, 0x67};
    H264Reader first;
    first.setData(four.data(), four.size());
    EXPECT_EQ(first.readNalUnit(), std::make_pair(0ul, 5ul));
    EXPECT_EQ(first.startCodeSize(), 4);
    const Bytes three{0, 0, 1, 0x67};
    first.setData(three.data(), three.size());
    EXPECT_EQ(first.readOffset(), -1);
    EXPECT_EQ(first.readNalUnit(), std::make_pair(0ul, 4ul));
    EXPECT_EQ(first.startCodeSize(), 3);
}

TEST(H264Reader, ZeroCounterWrapsAfterTheFourthZero)
{
    H264Reader reader;
    // Five zeros: the fourth wraps the counter to 0, the fifth makes it 1.
    const Bytes five{0, 0, 0, 0, 0, 1, 0x67};
    reader.setData(five.data(), five.size());
    EXPECT_EQ(reader.findNextNaluOffset(), five.size());
    // Six zeros leave the counter at 2: a 3-byte start code two bytes back.
    const Bytes six{0x55, 0, 0, 0, 0, 0, 0, 1, 0x67};
    H264Reader other;
    other.setData(six.data(), six.size());
    EXPECT_EQ(other.findNextNaluOffset(), 5u);
    EXPECT_EQ(other.startCodeSize(), 3);
    EXPECT_EQ(other.readOffset(), 8);
    // Seven zeros: counter 3, a 4-byte start code.
    const Bytes seven{0, 0, 0, 0, 0, 0, 0, 1};
    H264Reader third;
    third.setData(seven.data(), seven.size());
    EXPECT_EQ(third.findNextNaluOffset(), 4u);
    EXPECT_EQ(third.startCodeSize(), 4);
    // One zero before 01 is no start code either.
    const Bytes one{0x10, 0, 1, 0, 1};
    H264Reader fourth;
    fourth.setData(one.data(), one.size());
    EXPECT_EQ(fourth.findNextNaluOffset(), one.size());
}

TEST(H264Reader, LeadingBytesEmptyDataAndChunkBoundaries)
{
    const Bytes data{0x12, 0x34, 0, 0, 1, 0x09, 0xf0};
    H264Reader strict;
    strict.setData(data.data(), data.size());
    EXPECT_EQ(strict.readNalUnit(false).first, static_cast<unsigned long>(-1));
    EXPECT_EQ(strict.error(), H264Reader::FormatError);
    strict.setData(data.data(), data.size()); // the error is not reset
    EXPECT_EQ(strict.error(), H264Reader::FormatError);

    H264Reader lenient;
    lenient.setData(data.data(), data.size());
    EXPECT_EQ(lenient.readNalUnit(true), std::make_pair(2ul, 5ul));
    EXPECT_EQ(lenient.error(), H264Reader::NoError);

    H264Reader empty;
    empty.setData(data.data(), 0);
    EXPECT_EQ(empty.readNalUnit(true).first, static_cast<unsigned long>(-1));
    EXPECT_EQ(empty.error(), H264Reader::EmptyError);

    // Zeros at the end of one chunk count towards a start code in the next:
    // the start code begins two bytes before the second chunk.
    const Bytes head{0x42, 0, 0};
    const Bytes tail{1, 0x67, 0x64};
    H264Reader chunked;
    chunked.setData(head.data(), head.size());
    EXPECT_EQ(chunked.findNextNaluOffset(), head.size());
    chunked.setData(tail.data(), tail.size());
    EXPECT_EQ(chunked.findNextNaluOffset(), static_cast<unsigned long>(-2));
    EXPECT_EQ(chunked.startCodeSize(), 3);
    EXPECT_EQ(chunked.readOffset(), 1);
}

TEST(H264ReaderDifferential, FastSearchMatchesTheStateMachineOnRandomStreams)
{
    std::mt19937 random(20261121);
    for (int round = 0; round < 3000; ++round) {
        // Mostly zeros and ones in some rounds (dense runs and start codes),
        // uniform bytes in others; lengths around the 64-byte blocks.
        const std::size_t size = round < 400 ? static_cast<std::size_t>(round % 200) : random() % 4096;
        const unsigned density = random() % 4;
        Bytes stream(size);
        for (auto& b : stream) {
            const unsigned r = random();
            if (density == 0)
                b = static_cast<unsigned char>(r);
            else
                b = static_cast<unsigned char>((r % (2 + density * 3)) < 2 + density ? r % 2 : r >> 8);
        }
        std::vector<std::size_t> cuts;
        if (size > 0 && round % 3 == 0) {
            for (int c = 0; c < 4; ++c)
                cuts.push_back(random() % size);
            std::sort(cuts.begin(), cuts.end());
        }
        expectSameScan(stream, cuts);
        if (HasFatalFailure())
            return;
    }
}

TEST(H264ReaderDifferential, FastSearchMatchesTheStateMachineOnMutatedStreams)
{
    // A stream of realistic units, then mutated: flipped bytes, inserted zero
    // runs of every length, start codes cut in half by chunk boundaries.
    std::mt19937 random(7);
    Bytes base;
    SpsFields sps;
    appendNal(base, spsRbsp(sps));
    appendNal(base, ppsRbsp(), 3);
    for (unsigned i = 0; i < 40; ++i) {
        SliceFields slice;
        slice.idr = i == 0;
        slice.frameNum = i % 16;
        slice.pocLsb = (2 * i) % 64;
        auto rbsp = sliceRbsp(slice);
        for (int j = 0; j < 200; ++j)
            rbsp.insert(rbsp.end() - 1, static_cast<unsigned char>(random()));
        appendNal(base, rbsp, i % 2 == 0 ? 4 : 3);
    }
    for (int round = 0; round < 600; ++round) {
        Bytes stream = base;
        const int mutations = 1 + static_cast<int>(random() % 8);
        for (int m = 0; m < mutations; ++m) {
            const std::size_t at = random() % stream.size();
            switch (random() % 3) {
            case 0:
                stream[at] = static_cast<unsigned char>(random() % 3);
                break;
            case 1:
                stream.insert(stream.begin() + static_cast<long>(at), 1 + random() % 9, 0);
                break;
            default:
                stream[at] ^= static_cast<unsigned char>(1u << (random() % 8));
                break;
            }
        }
        std::vector<std::size_t> cuts;
        // Cut right after zeros now and then, so a start code spans chunks.
        for (std::size_t i = 1; i < stream.size() && cuts.size() < 6; ++i)
            if (stream[i - 1] == 0 && random() % 50 == 0)
                cuts.push_back(i);
        expectSameScan(stream, cuts);
        if (HasFatalFailure())
            return;
        // The units tile the data from the first start code to the end.
        H264Reader reader;
        reader.setData(stream.data(), stream.size());
        const auto units = allUnits(reader, true);
        ASSERT_FALSE(units.empty());
        for (std::size_t i = 1; i < units.size(); ++i)
            ASSERT_EQ(units[i].first, units[i - 1].first + units[i - 1].second);
        ASSERT_EQ(units.back().first + units.back().second, stream.size());
    }
}

TEST(H264NaluReader, HeaderBitsAndExpGolomb)
{
    BitWriter w;
    w.u(8, 0x65);
    for (std::uint64_t v = 0; v < 300; ++v)
        w.ue(v);
    w.ue(0xfffffffeull); // the largest 32-bit value
    w.u(13, 0x1abc).trailing();
    Bytes unit{0, 0, 1};
    unit.insert(unit.end(), w.bytes().begin(), w.bytes().end());

    H264NaluReader reader(unit.data(), unit.size());
    EXPECT_EQ(reader.size(), unit.size() - 3);
    EXPECT_EQ(reader.naluType(), 5u);
    EXPECT_EQ(reader.bitPosition(), 8u);
    // 0x65 = 0110 0101
    const unsigned expected[8] = {0, 1, 1, 0, 0, 1, 0, 1};
    for (unsigned n = 0; n < 8; ++n)
        EXPECT_EQ(reader.getBit(n), expected[n]) << n;
    for (unsigned v = 0; v < 300; ++v)
        ASSERT_EQ(reader.readGolomb(), v);
    EXPECT_EQ(reader.readGolomb(), 0xfffffffeu);
    EXPECT_EQ(reader.readUnsigned(0), 0u);
    EXPECT_EQ(reader.readUnsigned(-3), 0u);
    EXPECT_EQ(reader.readUnsigned(13), 0x1abcu);
    EXPECT_FALSE(reader.overrun());
}

TEST(H264NaluReader, ReadsStopAtTheEndOfTheUnit)
{
    // An exact-size heap copy: a read outside it trips AddressSanitizer.
    const Bytes bytes{0, 0, 0, 1, 0x67, 0xff, 0x80};
    auto unit = std::make_unique<unsigned char[]>(bytes.size());
    std::memcpy(unit.get(), bytes.data(), bytes.size());
    H264NaluReader reader(unit.get(), bytes.size());
    EXPECT_EQ(reader.size(), 3u);
    EXPECT_EQ(reader.readUnsigned(8), 0xffu);
    EXPECT_FALSE(reader.overrun());
    // Eight bits remain (1000 0000); the next 12 read 1000 0000 0000.
    EXPECT_EQ(reader.readUnsigned(12), 0x800u);
    EXPECT_TRUE(reader.overrun());
    EXPECT_EQ(reader.readUnsigned(32), 0u);
    EXPECT_EQ(reader.getBit(1000), 0u);
    EXPECT_EQ(reader.readGolomb(), 0u);

    // An Exp-Golomb code whose zeros run off the end.
    const Bytes zeros{0, 0, 1, 0x67, 0, 0};
    H264NaluReader golomb(const_cast<unsigned char*>(zeros.data()), zeros.size());
    EXPECT_EQ(golomb.readGolomb(), 0u);
    EXPECT_TRUE(golomb.overrun());
    // A huge read neither wraps the position nor reads outside.
    H264NaluReader huge(unit.get(), bytes.size());
    huge.readUnsigned(INT_MAX);
    huge.readUnsigned(INT_MAX);
    huge.readUnsigned(INT_MAX);
    EXPECT_TRUE(huge.overrun());
    EXPECT_EQ(huge.readUnsigned(8), 0u);
}

TEST(H264NaluReader, UnitWithoutStartCodeIsLoggedAndLeftEmpty)
{
    Tevara::Lumiflux::LogInit();
    clearSyslog();
    Bytes bad{0x67, 0x42, 0x00, 0x1e, 0x00};
    H264NaluReader reader(bad.data(), bad.size());
    EXPECT_EQ(reader.size(), 0u);
    EXPECT_EQ(reader.naluType(), 0u);
    EXPECT_EQ(reader.readUnsigned(8), 0u);
    EXPECT_TRUE(reader.overrun());
    int w = 0, h = 0, l = 0, p = 0;
    EXPECT_FALSE(reader.parseSPS(w, h, l, p));
    // Too short to hold a start code: not read beyond its size.
    H264NaluReader tiny(bad.data(), 2);
    EXPECT_EQ(tiny.size(), 0u);

    const auto records = syslogRecordsContaining("Invalid NAL Unit");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].priority, LOG_ERR);
    EXPECT_TRUE(std::regex_match(records[0].text, std::regex("main H264NaluReader:[0-9]+ -- Invalid NAL Unit\n")))
        << records[0].text;
}

namespace {

struct SpsResult {
    bool ok;
    int width, height, level, profile;
};

// The minimal reader takes the bits as they stand: the unit is written unescaped.
SpsResult parseWithMinimalReader(const std::vector<std::uint8_t>& rbsp)
{
    Bytes stream{0, 0, 0, 1};
    stream.insert(stream.end(), rbsp.begin(), rbsp.end());
    auto exact = std::make_unique<unsigned char[]>(stream.size());
    std::memcpy(exact.get(), stream.data(), stream.size());
    H264NaluReader reader(exact.get(), stream.size());
    SpsResult r{};
    r.ok = reader.parseSPS(r.width, r.height, r.level, r.profile);
    return r;
}

} // namespace

TEST(H264NaluReaderSps, SizesProfilesAndLevels)
{
    SpsFields hd;
    hd.profile = 100;
    hd.level = 40;
    hd.widthMbsMinus1 = 119;
    hd.heightMapUnitsMinus1 = 67;
    hd.crop = true;
    hd.cropBottom = 4; // ignored by the minimal reader
    auto r = parseWithMinimalReader(spsRbsp(hd));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.width, 1920);
    EXPECT_EQ(r.height, 1088);
    EXPECT_EQ(r.profile, 100);
    EXPECT_EQ(r.level, 40);

    SpsFields field; // interlaced: height counts map units of two lines
    field.profile = 77;
    field.level = 30;
    field.widthMbsMinus1 = 44;
    field.heightMapUnitsMinus1 = 17;
    field.frameMbsOnly = false;
    r = parseWithMinimalReader(spsRbsp(field));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.width, 720);
    EXPECT_EQ(r.height, 576);

    SpsFields cycle; // POC type 1 with a cycle of values read past
    cycle.pocType = 1;
    cycle.pocCycle = {1, -2, 3, 300};
    cycle.widthMbsMinus1 = 21;
    cycle.heightMapUnitsMinus1 = 17;
    r = parseWithMinimalReader(spsRbsp(cycle));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.width, 352);
    EXPECT_EQ(r.height, 288);

    SpsFields planes; // 4:4:4 with separate colour planes, 10 bits
    planes.profile = 244;
    planes.chromaFormat = 3;
    planes.separatePlanes = true;
    planes.bitDepthLumaMinus8 = 2;
    planes.bitDepthChromaMinus8 = 2;
    planes.widthMbsMinus1 = 79;
    planes.heightMapUnitsMinus1 = 44;
    r = parseWithMinimalReader(spsRbsp(planes));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.width, 1280);
    EXPECT_EQ(r.height, 720);
    EXPECT_EQ(r.profile, 244);
}

TEST(H264NaluReaderSps, DeliberateLimits)
{
    // Scaling lists present: only the flags are read, the lists are taken for
    // the following fields, so the size comes out wrong (or the read fails).
    SpsFields lists;
    lists.profile = 100;
    lists.widthMbsMinus1 = 119;
    lists.heightMapUnitsMinus1 = 67;
    lists.presentLists = {true, false, false, false, false, false, true, false};
    auto r = parseWithMinimalReader(spsRbsp(lists));
    EXPECT_FALSE(r.ok && r.width == 1920 && r.height == 1088);
    lists.presentLists = std::vector<bool>(8, false); // flags only: read right
    r = parseWithMinimalReader(spsRbsp(lists));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.width, 1920);

    // Profile 128 carries chroma fields, but it is not in the minimal set.
    SpsFields mvc;
    mvc.profile = 128;
    mvc.widthMbsMinus1 = 39;
    mvc.heightMapUnitsMinus1 = 29;
    r = parseWithMinimalReader(spsRbsp(mvc));
    EXPECT_FALSE(r.ok && r.width == 640 && r.height == 480);
    mvc.profile = 100;
    r = parseWithMinimalReader(spsRbsp(mvc));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.width, 640);
    EXPECT_EQ(r.height, 480);
}

TEST(H264NaluReaderSps, TruncatedAndOversizedSpsFail)
{
    SpsFields hd;
    hd.widthMbsMinus1 = 119;
    hd.heightMapUnitsMinus1 = 67;
    const auto full = spsRbsp(hd);
    for (std::size_t keep = 1; keep < 7; ++keep) {
        const std::vector<std::uint8_t> cut(full.begin(), full.begin() + static_cast<long>(keep));
        EXPECT_FALSE(parseWithMinimalReader(cut).ok) << keep;
    }
    SpsFields wide;
    wide.widthMbsMinus1 = 0xfffffffeull; // width overflows an int
    EXPECT_FALSE(parseWithMinimalReader(spsRbsp(wide)).ok);
}
