// The minimal readers on hand-made bytes: start codes and the zero counter,
// unit boundaries and errors, bits and Exp-Golomb codes bounded by the unit,
// and parseSPS with its deliberate limits.

#include <gtest/gtest.h>

#include <climits>
#include <regex>
#include <string>
#include <syslog.h>

#include <lumiflux/h264_reader.h>
#include <lumiflux/log.h>

#include "h264_stream.h"
#include "syslog_capture.h"

using namespace lumiflux_test;
using Unit = std::pair<unsigned long, unsigned long>;
constexpr unsigned long failed = static_cast<unsigned long>(-1);

TEST(H264Reader, StartCodeSearchAndTheZeroCounter)
{
    struct Case {
        Bytes data;
        unsigned long offset; ///< of the start code's first zero; the size when none
        int startCodeSize;
        std::int64_t readOffset;
    };
    const Case cases[] = {
        {{0, 0, 0, 1, 0x67}, 0, 4, 4},
        {{0, 0, 1, 0x67}, 0, 3, 3},
        {{0, 0, 0, 0, 0, 1, 0x67}, 7, 0, 7},          // the fourth zero wraps the counter, the fifth makes it 1
        {{0x55, 0, 0, 0, 0, 0, 0, 1, 0x67}, 5, 3, 8}, // six zeros leave 2: a 3-byte code
        {{0, 0, 0, 0, 0, 0, 0, 1}, 4, 4, 8},          // seven leave 3: a 4-byte code
        {{0x10, 0, 1, 0, 1}, 5, 0, 5},                // one zero is no start code
    };
    for (const auto& c : cases) {
        H264Reader reader;
        reader.setData(c.data.data(), c.data.size());
        EXPECT_EQ(reader.findNextNaluOffset(), c.offset) << testing::PrintToString(c.data);
        EXPECT_EQ(reader.readOffset(), c.readOffset);
        EXPECT_EQ(reader.startCodeSize(), c.startCodeSize);
    }

    // Zeros at the end of one chunk count towards a start code in the next,
    // which then begins two bytes before the chunk (an offset that wraps).
    const Bytes head{0x42, 0, 0}, tail{1, 0x67, 0x64};
    H264Reader chunked;
    chunked.setData(head.data(), head.size());
    EXPECT_EQ(chunked.findNextNaluOffset(), head.size());
    chunked.setData(tail.data(), tail.size());
    EXPECT_EQ(chunked.findNextNaluOffset(), static_cast<unsigned long>(-2));
    EXPECT_EQ(chunked.startCodeSize(), 3);
    EXPECT_EQ(chunked.readOffset(), 1);
}

TEST(H264Reader, UnitsAndErrors)
{
    struct Case {
        Bytes data;
        bool allowLeadingBytes;
        std::vector<Unit> units; ///< then (size, 0), or the failure alone
        H264Reader::Error error;
    };
    const Case cases[] = {
        // 4-byte, 3-byte, 4-byte start codes: each length runs to the next start code.
        {{0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0xce, 0, 0, 0, 1, 0x65, 0x88},
         false,
         {{0, 6}, {6, 5}, {11, 6}, {17, 0}},
         H264Reader::NoError},
        {{0x12, 0x34, 0, 0, 1, 0x09, 0xf0}, false, {{failed, 0}}, H264Reader::FormatError},
        {{0x12, 0x34, 0, 0, 1, 0x09, 0xf0}, true, {{2, 5}, {7, 0}}, H264Reader::NoError},
        {{}, true, {{failed, 0}}, H264Reader::EmptyError},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.data));
        H264Reader reader;
        EXPECT_EQ(reader.readOffset(), -1);
        reader.setData(c.data.data(), c.data.size());
        for (std::size_t i = 0; i < c.units.size(); ++i) {
            EXPECT_EQ(reader.readNalUnit(i == 0 && c.allowLeadingBytes), c.units[i]) << i;
            if (c.units[i].first != failed) {
                EXPECT_EQ(reader.currentNaluOffset(), c.units[i].first + c.units[i].second);
            }
        }
        EXPECT_EQ(reader.error(), c.error);
        reader.setData(c.data.data(), c.data.size()); // resets the position, not the error
        EXPECT_EQ(reader.readOffset(), -1);
        EXPECT_EQ(reader.currentNaluOffset(), 0u);
        EXPECT_EQ(reader.error(), c.error);
    }

    H264Reader reader;
    EXPECT_EQ(reader.errorName(H264Reader::NoError), "NoError");
    EXPECT_EQ(reader.errorName(H264Reader::FormatError), "FormatError");
    EXPECT_EQ(reader.errorName(H264Reader::EmptyError), "EmptyError");
    EXPECT_EQ(reader.errorName(static_cast<H264Reader::Error>(3)), "");
    reader.throwError(H264Reader::FormatError);
    EXPECT_EQ(reader.error(), H264Reader::FormatError);
}

namespace {

// A start code and `rbsp` in a buffer of exactly their size: a read outside it trips AddressSanitizer.
Bytes exactUnit(const Bytes& rbsp, Bytes startCode = {0, 0, 0, 1})
{
    startCode.insert(startCode.end(), rbsp.begin(), rbsp.end());
    return Bytes(startCode.begin(), startCode.end());
}

} // namespace

TEST(H264NaluReader, BitsAndExpGolombStopAtTheEndOfTheUnit)
{
    BitWriter w;
    w.u(8, 0x65); // 0110 0101
    for (std::uint64_t v = 0; v < 300; ++v)
        w.ue(v);
    w.ue(0xfffffffeull).u(13, 0x1abc).trailing(); // the largest 32-bit value
    Bytes unit = exactUnit(w.bytes(), {0, 0, 1});
    H264NaluReader reader(unit.data(), unit.size());
    EXPECT_EQ(reader.size(), unit.size() - 3);
    EXPECT_EQ(reader.naluType(), 5u);
    EXPECT_EQ(reader.bitPosition(), 8u);
    for (unsigned n = 0; n < 8; ++n)
        EXPECT_EQ(reader.getBit(n), (0x65u >> (7 - n)) & 1) << n;
    for (unsigned v = 0; v < 300; ++v)
        ASSERT_EQ(reader.readGolomb(), v);
    EXPECT_EQ(reader.readGolomb(), 0xfffffffeu);
    EXPECT_EQ(reader.readUnsigned(0), 0u);
    EXPECT_EQ(reader.readUnsigned(-3), 0u);
    EXPECT_EQ(reader.readUnsigned(13), 0x1abcu);
    EXPECT_FALSE(reader.overrun());

    Bytes shortUnit = exactUnit({0x67, 0xff, 0x80});
    H264NaluReader end(shortUnit.data(), shortUnit.size());
    EXPECT_EQ(end.readUnsigned(8), 0xffu);
    EXPECT_FALSE(end.overrun());
    EXPECT_EQ(end.readUnsigned(12), 0x800u); // 1000 0000, then zeros past the end
    EXPECT_TRUE(end.overrun());
    EXPECT_EQ(end.readUnsigned(32), 0u);
    EXPECT_EQ(end.getBit(1000), 0u);
    EXPECT_EQ(end.readGolomb(), 0u);

    Bytes zeros = exactUnit({0x67, 0, 0}, {0, 0, 1}); // an Exp-Golomb code whose zeros run off the end
    H264NaluReader golomb(zeros.data(), zeros.size());
    EXPECT_EQ(golomb.readGolomb(), 0u);
    EXPECT_TRUE(golomb.overrun());

    H264NaluReader huge(shortUnit.data(), shortUnit.size()); // neither wraps the position nor reads outside
    for (int i = 0; i < 3; ++i)
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
    H264NaluReader tiny(bad.data(), 2); // too short to hold a start code: not read beyond its size
    EXPECT_EQ(tiny.size(), 0u);

    const auto records = syslogRecordsContaining("Invalid NAL Unit");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].priority, LOG_ERR);
    EXPECT_TRUE(std::regex_match(records[0].text, std::regex("main H264NaluReader:[0-9]+ -- Invalid NAL Unit\n")))
        << records[0].text;
}

namespace {

// What parseSPS makes of an SPS, read as its bits stand (the unit is not escaped).
std::string minimalSps(const Bytes& rbsp)
{
    Bytes unit = exactUnit(rbsp);
    H264NaluReader reader(unit.data(), unit.size());
    int width = 0, height = 0, level = 0, profile = 0;
    if (!reader.parseSPS(width, height, level, profile))
        return "failed";
    return std::to_string(profile) + "@" + std::to_string(level) + " " + std::to_string(width) + "x" +
           std::to_string(height);
}

} // namespace

TEST(H264NaluReader, ParseSpsSizesAndDeliberateLimits)
{
    SpsFields hd(100, 120, 68);
    hd.levelIdc = 40;
    hd.cropUnits = {0, 0, 0, 4}; // not applied
    EXPECT_EQ(minimalSps(spsRbsp(hd)), "100@40 1920x1088");
    SpsFields field(77, 45, 18);
    field.frameMbsOnly = false;
    EXPECT_EQ(minimalSps(spsRbsp(field)), "77@30 720x576");
    SpsFields cycle(66, 22, 18);
    cycle.pocType = 1;
    cycle.pocCycle = {1, -2, 3, 300};
    EXPECT_EQ(minimalSps(spsRbsp(cycle)), "66@30 352x288");
    SpsFields planes(244, 80, 45);
    planes.chromaFormatIdc = 3;
    planes.separateColourPlane = true;
    planes.bitDepthLuma = planes.bitDepthChroma = 10;
    EXPECT_EQ(minimalSps(spsRbsp(planes)), "244@30 1280x720");
    SpsFields lists(100);
    lists.presentLists.assign(8, false); // the flags alone are read right
    EXPECT_EQ(minimalSps(spsRbsp(lists)), "100@30 176x144");

    // Deliberately not read: present scaling lists (taken for the following
    // fields) and the chroma fields of profile 128.
    lists.presentLists = {true, false, false, false, false, false, true, false};
    EXPECT_NE(minimalSps(spsRbsp(lists)), "100@30 176x144");
    EXPECT_NE(minimalSps(spsRbsp(SpsFields(128))), "128@30 176x144");

    const Bytes full = spsRbsp(SpsFields());
    for (long keep = 1; keep < 7; ++keep)
        EXPECT_EQ(minimalSps(Bytes(full.begin(), full.begin() + keep)), "failed") << "truncated to " << keep;
    EXPECT_EQ(minimalSps(spsRbsp(SpsFields(66, 0xffffffffu))), "failed"); // the width overflows an int
}
