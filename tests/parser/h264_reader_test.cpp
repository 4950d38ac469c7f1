// The readers and the parser on streams written field by field from the parser's records.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <fstream>
#include <regex>
#include <sstream>
#include <syslog.h>

#include <lumiflux/h264_reader.h>
#include <lumiflux/log.h>
#include <lumiflux/video_stream_parser.h>

#include "parser/h264_syntax.h"
#include "syslog_capture.h"
#include "test_paths.h"

using namespace lumiflux_test;
using Bytes = std::vector<std::uint8_t>;
using namespace Tevara::Lumiflux;
using Unit = std::pair<unsigned long, unsigned long>;

namespace {

struct BitWriter {
    BitWriter& u(unsigned n, std::uint64_t value)
    {
        for (unsigned i = n; i-- > 0; ++count) {
            if (count % 8 == 0)
                out.push_back(0);
            out.back() |= static_cast<std::uint8_t>(((value >> i) & 1) << (7 - count % 8));
        }
        return *this;
    }
    BitWriter& flag(bool value) { return u(1, value); }
    BitWriter& ue(std::uint64_t value)
    {
        unsigned length = 0;
        while (((value + 1) >> length) > 1)
            ++length;
        return u(length, 0).u(length + 1, value + 1);
    }
    BitWriter& se(std::int64_t v) { return ue(static_cast<std::uint64_t>(v > 0 ? 2 * v - 1 : -2 * v)); }
    Bytes trailing() { return u(1, 1).u((8 - count % 8) % 8, 0).out; } ///< the stop bit and byte alignment
    Bytes out;
    std::uint64_t count = 0;
};

void appendNal(Bytes& stream, const Bytes& rbsp, int startCode = 4)
{
    stream.insert(stream.end(), static_cast<std::size_t>(startCode - 1), 0);
    stream.push_back(1);
    for (std::uint8_t byte : rbsp) {
        if (byte <= 3 && stream.end()[-1] == 0 && stream.end()[-2] == 0)
            stream.push_back(3);
        stream.push_back(byte);
    }
}

Bytes annexB(std::initializer_list<Bytes> units, Bytes stream = {})
{
    for (const Bytes& unit : units)
        appendNal(stream, unit);
    return stream;
}

struct SpsFields : Tevara::Lumiflux::Internal::SequenceParameterSet {
    explicit SpsFields(int profile = 66, unsigned mbsWide = 11, unsigned mapUnitsHigh = 9) // 176x144
    {
        profileIdc = profile, levelIdc = 30, log2MaxPocLsb = 6, maxNumRefFrames = 1;
        widthInMbs = mbsWide, heightInMapUnits = mapUnitsHigh;
    }
    std::array<unsigned, 4> cropUnits{}; ///< in frame_crop_*_offset units
    std::vector<bool> presentLists;      ///< scaling lists: `firstDelta`, then 0s (odd lists stop at once)
    int firstDelta = 5;
    std::vector<std::int64_t> pocCycle; ///< offset_for_ref_frame values, for pocType 1
};

Bytes spsRbsp(const SpsFields& f)
{
    BitWriter w;
    w.u(8, 0x67).u(8, f.profileIdc).u(8, f.constraintFlags).u(8, f.levelIdc).ue(f.id);
    const int chromaProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    if (std::count(std::begin(chromaProfiles), std::end(chromaProfiles), f.profileIdc) != 0) {
        w.ue(f.chromaFormatIdc);
        if (f.chromaFormatIdc == 3)
            w.flag(f.separateColourPlane);
        w.ue(f.bitDepthLuma - 8).ue(f.bitDepthChroma - 8).flag(false).flag(!f.presentLists.empty());
        for (std::size_t i = 0; i < f.presentLists.size(); ++i)
            for (int j = (w.flag(f.presentLists[i]), 0); f.presentLists[i] && j < (i % 2 ? 2 : i < 6 ? 16 : 64); ++j)
                w.se(j == 0 ? f.firstDelta : i % 2 ? -8 - f.firstDelta : 0);
    }
    w.ue(f.log2MaxFrameNum - 4).ue(f.pocType);
    if (f.pocType == 0)
        w.ue(f.log2MaxPocLsb - 4);
    if (f.pocType == 1)
        w.flag(f.deltaPicOrderAlwaysZero).se(-1).se(2).ue(f.pocCycle.size());
    for (auto offset : f.pocCycle)
        w.se(offset);
    w.ue(f.maxNumRefFrames).flag(false).ue(f.widthInMbs - 1ull).ue(f.heightInMapUnits - 1ull).flag(f.frameMbsOnly);
    if (!f.frameMbsOnly)
        w.flag(f.mbAdaptiveFrameField);
    const bool crop = f.cropUnits != std::array<unsigned, 4>{};
    w.flag(true).flag(crop); // direct_8x8_inference_flag, frame_cropping_flag
    for (std::size_t i = 0; crop && i < 4; ++i)
        w.ue(f.cropUnits[i]);
    const bool sar = f.sarWidth != 0, timing = f.numUnitsInTick != 0 || f.timeScale != 0;
    if (w.flag(sar || timing), sar || timing) { // a VUI
        if (w.flag(sar), sar)
            w.u(8, 255).u(16, f.sarWidth).u(16, f.sarHeight);
        if (w.u(3, 0).flag(timing), timing) // no overscan, signal type or chroma location
            w.u(32, f.numUnitsInTick).u(32, f.timeScale).flag(f.fixedFrameRate);
        w.u(4, 0); // no HRD, pic_struct or restrictions
    }
    return w.trailing();
}

// PPS 0 of SPS 0: CAVLC, one slice group.
Bytes ppsRbsp()
{
    return BitWriter().u(8, 0x68).ue(0).ue(0).u(2, 0).ue(0).ue(0).ue(0).u(3, 0).se(0).se(0).se(0).u(3, 4).trailing();
}

/** An I slice of PPS 0 (log2 sizes as SpsFields has them): its header, then bytes that need escaping. */
Bytes sliceRbsp(int nalType, unsigned frameNum = 0, unsigned pocLsb = 0, unsigned firstMb = 0, int nalRefIdc = 3,
                unsigned idrPicId = 0)
{
    BitWriter w;
    w.u(3, nalRefIdc).u(5, nalType).ue(firstMb).ue(7).ue(0).u(4, frameNum);
    if (nalType == 5)
        w.ue(idrPicId);
    return w.u(6, pocLsb).u(40, 0xa5c3000001).trailing();
}

/** An SEI: a 300-byte user-data message claiming `declaredSize` bytes, then a recovery point if asked. */
Bytes seiRbsp(bool recoveryPoint, unsigned declaredSize = 300)
{
    BitWriter w;
    for (w.u(8, 0x06).u(8, 5); declaredSize >= 255; declaredSize -= 255)
        w.u(8, 255);
    for (int i = -1; i < 300; ++i)
        w.u(8, i < 0 ? declaredSize : i == 100 ? 6 : 0x20);
    if (recoveryPoint)
        w.u(8, 6).u(8, 1).ue(0).flag(true).u(6, 0); // recovery_frame_cnt 0, exact_match_flag
    return w.trailing();
}

// What parseSPS makes of an SPS (its first `keep` bytes), read as its bits stand, not unescaped.
std::string minimalSps(const SpsFields& sps, long keep = 1000)
{
    Bytes unit{0, 0, 0, 1}, rbsp = spsRbsp(sps);
    unit.insert(unit.end(), rbsp.begin(), rbsp.begin() + std::min<long>(keep, static_cast<long>(rbsp.size())));
    H264NaluReader reader(unit.data(), unit.size());
    int width = 0, height = 0, level = 0, profile = 0;
    const bool ok = reader.parseSPS(width, height, level, profile);
    return ok ? std::to_string(profile) + " " + std::to_string(width) + "x" + std::to_string(height) : "failed";
}

TEST(H264Readers, UnitsErrorsSpsSizesAndDeliberateLimits)
{
    const unsigned long failed = static_cast<unsigned long>(-1);
    const Bytes units{0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0xce, 0, 0, 0, 1, 0x65, 0x88};
    const Bytes leading{0x12, 0x34, 0, 0, 1, 0x09, 0xf0};
    const std::tuple<const Bytes*, bool, std::vector<Unit>, const char*> cases[] = {
        {&units, false, {{0, 6}, {6, 5}, {11, 6}, {17, 0}}, "NoError"}, // each to the next start code, then (size, 0)
        {&leading, false, {{failed, 0}}, "FormatError"},
        {&leading, true, {{2, 5}, {7, 0}}, "NoError"},
        {nullptr, true, {{failed, 0}}, "EmptyError"}};
    for (const auto& [data, allowLeadingBytes, expected, error] : cases) {
        H264Reader reader;
        reader.setData(data != nullptr ? data->data() : nullptr, data != nullptr ? data->size() : 10);
        for (std::size_t i = 0; i < expected.size(); ++i)
            EXPECT_EQ(reader.readNalUnit(i == 0 && allowLeadingBytes), expected[i]) << error << i;
        reader.setData(units.data(), units.size()); // resets the position, not the error
        EXPECT_EQ(reader.readOffset() + static_cast<std::int64_t>(reader.currentNaluOffset()), -1);
        EXPECT_EQ(reader.errorName(reader.error()), error);
    }
    SpsFields hd(100, 120, 68), field(77, 45, 18), cycle(66, 22, 18), planes(244, 80, 45), lists(100);
    hd.cropUnits = {0, 0, 0, 4}; // not applied
    field.frameMbsOnly = false;
    cycle.pocType = 1, cycle.pocCycle = {1, -2, 3, 300};
    planes.chromaFormatIdc = 3, planes.separateColourPlane = true, planes.bitDepthLuma = planes.bitDepthChroma = 10;
    lists.presentLists.assign(8, false); // the flags alone are read right
    EXPECT_EQ(minimalSps(hd) + ", " + minimalSps(field) + ", " + minimalSps(cycle) + ", " + minimalSps(planes) + ", " +
                  minimalSps(lists),
              "100 1920x1088, 77 720x576, 66 352x288, 244 1280x720, 100 176x144");
    lists.presentLists[0] = true; // deliberately not read: present scaling lists, the chroma fields of profile 128
    EXPECT_NE(minimalSps(lists) + minimalSps(SpsFields(128)), "100 176x144128 176x144");
    for (long keep = 1; keep < 7; ++keep)
        EXPECT_EQ(minimalSps(SpsFields(), keep), "failed") << "truncated to " << keep;
    EXPECT_EQ(minimalSps(SpsFields(66, 0xffffffffu)), "failed"); // the width overflows an int
    Bytes unit{0, 0, 1, 0x65, 0xff, 0x80}; // bits past the end read as zeros; the position neither wraps nor leaves
    H264NaluReader reader(unit.data(), unit.size());
    EXPECT_EQ(reader.readUnsigned(0) + reader.readUnsigned(12) + reader.readGolomb(), 0xff8u);
    for (int i = 0; i < 3; ++i)
        reader.readUnsigned(INT_MAX);
    EXPECT_EQ(reader.readUnsigned(8) + reader.getBit(1000) + reader.readGolomb(), 0u);
    EXPECT_TRUE(reader.overrun());
    LogInit(); // a unit without a start code is logged and left empty
    clearSyslog();
    Bytes bad{0x67, 0x42, 0x00, 0x1e, 0x00};
    H264NaluReader badUnit(bad.data(), bad.size()), tiny(bad.data(), 2); // tiny: not read beyond its size
    int w = 0, h = 0, l = 0, p = 0;
    EXPECT_FALSE(badUnit.parseSPS(w, h, l, p));
    EXPECT_EQ(badUnit.size() + badUnit.naluType() + badUnit.readUnsigned(8) + tiny.size(), 0u);
    const auto records = syslogRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(std::to_string(records[0].priority) + std::regex_replace(records[0].text, std::regex(":[0-9]+ "), ": "),
              std::to_string(LOG_ERR) + "main H264NaluReader: -- Invalid NAL Unit\n");
}

std::unique_ptr<VideoStreamParser> parse(const Bytes& stream, VideoStreamParserSettings settings = {})
{
    auto parser = std::make_unique<VideoStreamParser>(settings);
    parser->parse(stream.data(), stream.size());
    return parser;
}

std::string describe(const SpsFields& sps)
{
    const auto parser = parse(annexB({spsRbsp(sps), ppsRbsp(), sliceRbsp(5)}));
    const VideoStreamMetadata& m = parser->metadata();
    std::ostringstream s;
    s << m.codecName() << " " << m.profile() << "@" << m.level() << " " << m.codedWidth() << "x" << m.codedHeight()
      << " -" << m.cropLeft() << "," << m.cropRight() << "," << m.cropTop() << "," << m.cropBottom() << "= "
      << m.displayWidth() << "x" << m.displayHeight() << " sar " << m.sarWidth() << ":" << m.sarHeight() << " "
      << m.frameRateNumerator() << "/" << m.frameRateDenominator() << "=" << m.frameRate() << " chroma "
      << m.chromaFormat() << " " << m.bitDepthLuma() << "/" << m.bitDepthChroma()
      << (m.frameMbsOnly() ? "" : " fields");
    return parser->errorMessage().empty() ? s.str() : parser->errorMessage();
}

TEST(VideoStreamParserSps, FieldsAndTheirLimits)
{
    // Scaling lists, and a num_units_in_tick of 1 whose 31 zero bits need emulation prevention.
    SpsFields hd(100, 120, 68), planes(244, 40, 15), mono(122, 40, 15);
    hd.presentLists = {true, false, true, false, false, false, true, true};
    hd.cropUnits = {0, 0, 0, 4};
    hd.sarWidth = 64, hd.sarHeight = 45, hd.numUnitsInTick = 1, hd.timeScale = 48;
    EXPECT_EQ(describe(hd), "h264 100@30 1920x1088 -0,0,0,8= 1920x1080 sar 64:45 24/1=24 chroma 1 8/8");
    // Crop units count whole samples without chroma subsampling, and pairs of lines for field coding.
    planes.chromaFormatIdc = 3, planes.separateColourPlane = true, planes.cropUnits = {1, 2, 1, 3};
    mono.chromaFormatIdc = 0, mono.frameMbsOnly = false, mono.cropUnits = {1, 2, 1, 3};
    EXPECT_EQ(describe(planes), "h264 244@30 640x240 -1,2,1,3= 637x236 sar 0:0 0/0=0 chroma 3 8/8");
    EXPECT_EQ(describe(mono), "h264 122@30 640x480 -1,2,2,6= 637x472 sar 0:0 0/0=0 chroma 0 8/8 fields");
    const std::pair<const char*, void (*)(SpsFields&)> cases[] = {
        {"seq_parameter_set_id", [](SpsFields& s) { s.id = 32; }},
        {"chroma_format_idc", [](SpsFields& s) { s.profileIdc = 100, s.chromaFormatIdc = 4; }},
        {"bit_depth_luma_minus8", [](SpsFields& s) { s.profileIdc = 110, s.bitDepthLuma = 15; }},
        {"bit_depth_chroma_minus8", [](SpsFields& s) { s.profileIdc = 110, s.bitDepthChroma = 48; }},
        {"delta_scale", [](SpsFields& s) { s.profileIdc = 100, s.presentLists.assign(1, true), s.firstDelta = 128; }},
        {"log2_max_frame_num_minus4", [](SpsFields& s) { s.log2MaxFrameNum = 17; }},
        {"pic_order_cnt_type", [](SpsFields& s) { s.pocType = 3; }},
        {"log2_max_pic_order_cnt_lsb_minus4", [](SpsFields& s) { s.log2MaxPocLsb = 17; }},
        {"num_ref_frames_in_pic_order_cnt_cycle", [](SpsFields& s) { s.pocType = 1, s.pocCycle.assign(256, 1); }},
        {"max_num_ref_frames", [](SpsFields& s) { s.maxNumRefFrames = 17; }},
        {"pic_width_in_mbs_minus1", [](SpsFields& s) { s.widthInMbs = 0xffffffffu; }},
        {"pic_height_in_map_units_minus1", [](SpsFields& s) { s.heightInMapUnits = 2049; }},
        {"pic_height_in_map_units_minus1", [](SpsFields& s) { s.heightInMapUnits = 1025, s.frameMbsOnly = false; }},
        {"frame cropping", [](SpsFields& s) { s.cropUnits[0] = s.cropUnits[1] = 100; }},
        {"timing info has num_units_in_tick 0", [](SpsFields& s) { s.numUnitsInTick = 0, s.timeScale = 50; }}};
    for (const auto& [field, change] : cases) {
        SpsFields sps;
        change(sps);
        EXPECT_EQ(describe(sps).rfind("SPS " + std::string(field), 0), 0u) << describe(sps);
    }
    SpsFields edge(110, 11, 2048); // every limit reached, accepted
    edge.bitDepthLuma = 14, edge.log2MaxFrameNum = 16, edge.log2MaxPocLsb = 16, edge.maxNumRefFrames = 16;
    EXPECT_EQ(describe(edge), "h264 110@30 176x32768 -0,0,0,0= 176x32768 sar 0:0 0/0=0 chroma 1 14/8");
    // The first problem is the one named, though the SPS ends right after it.
    const Bytes outOfRangeThenCut = BitWriter().u(32, 0x67420000 | 30).ue(32).trailing();
    EXPECT_EQ(parse(annexB({outOfRangeThenCut}))->errorMessage().rfind("SPS seq_parameter_set_id is 32", 0), 0u);
    const Bytes full = spsRbsp(SpsFields());
    for (long keep = 1; keep < 6; ++keep)
        EXPECT_NE(parse(annexB({Bytes(full.begin(), full.begin() + keep)}))->errorMessage().find("truncated"),
                  std::string::npos);
}

TEST(VideoStreamParserUnits, AccessUnitsKeyFramesByteRangesFailuresAndInputs)
{
    Bytes stream;
    std::vector<std::uint64_t> starts, offsets;
    const auto add = [&](const Bytes& rbsp, bool startsUnit = false) {
        starts.insert(starts.end(), startsUnit, stream.size());
        appendNal(stream, rbsp, 3);
    };
    // 0: delimiter, SPS, PPS, SEI and an IDR in two slices; 1: a P picture in two slices, no delimiter.
    add({0x09, 0xf0}, true), add(spsRbsp(SpsFields())), add(ppsRbsp()), add(seiRbsp(false)), add(sliceRbsp(5));
    add(sliceRbsp(5, 0, 0, 50)), add(sliceRbsp(1, 1, 4, 0), true), add(sliceRbsp(1, 1, 4, 60));
    add(sliceRbsp(1, 2, 2, 0, 0), true);                     // 2: only the POC and nal_ref_idc tell it from the next
    add(seiRbsp(true), true), add(sliceRbsp(1, 2, 8));       // 3: a recovery point before a non-IDR picture
    add(seiRbsp(true, 600), true), add(sliceRbsp(1, 3, 10)); // 4: inside a message claiming more than the SEI holds
    add(sliceRbsp(5, 0, 0, 0, 3, 1), true), add(sliceRbsp(5, 0, 0, 0, 3, 2), true); // 5, 6: apart by idr_pic_id alone
    add({0x0b}); // end of stream stays with the last picture
    const auto p = parse(stream);
    const auto& units = p->accessUnits();
    std::string shape = p->errorMessage();
    for (std::size_t i = 0; i < units.size(); ++i) {
        offsets.push_back(units[i].offset);
        EXPECT_EQ(units[i].offset + units[i].size, i + 1 < units.size() ? units[i + 1].offset : stream.size()) << i;
        for (auto type : units[i].nalTypes)
            shape += std::to_string(type) + ",";
        shape += std::string(units[i].idr ? " idr" : "") + (units[i].recoveryPoint ? " recovery" : "") +
                 (units[i].keyFrame ? " key" : "") + "; ";
    }
    EXPECT_EQ(offsets, starts);
    EXPECT_EQ(shape, "9,7,8,6,5,5, idr key; 1,1,; 1,; 6,1, recovery key; 6,1,; 5, idr key; 5,11, idr key; ");
    EXPECT_EQ(p->metadata().accessUnitCount() * 10 + p->metadata().keyFrameCount(), 74u);
    const auto counted = parse(stream, {false, false, false}); // units not kept, recovery points not key frames
    EXPECT_TRUE(counted->errorMessage().empty() && counted->accessUnits().empty());
    EXPECT_EQ(counted->metadata().accessUnitCount() * 10 + counted->metadata().keyFrameCount(), 73u);
    const Bytes body = annexB({spsRbsp(SpsFields()), ppsRbsp(), sliceRbsp(5)});
    Bytes leading{0xff, 0xee}, forbidden = body;
    leading.insert(leading.end(), body.begin(), body.end());
    forbidden.insert(forbidden.end(), {0, 0, 1, 0x81, 0x22});
    EXPECT_EQ(parse({})->errorMessage(), "no data to parse");
    EXPECT_EQ(parse(leading)->errorMessage(), "the stream does not begin with a start code");
    EXPECT_EQ(parse(leading, {true})->accessUnits().at(0).offset, 2u); // leading bytes allowed
    EXPECT_EQ(parse(annexB({sliceRbsp(1)}))->errorMessage(), "the stream holds no sequence parameter set");
    EXPECT_EQ(parse(forbidden)->errorMessage(), "NAL unit at offset 33 has its forbidden_zero_bit set");
    VideoStreamParser parser;
    const std::string file = freshDirectory("stream-parser") + "/body.264";
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(body.data()), static_cast<std::streamsize>(body.size()));
    EXPECT_TRUE(parser.parseFile(file)) << parser.errorMessage();
    std::vector<std::uint64_t> counts(32);
    counts[5] = counts[7] = counts[8] = 1;
    EXPECT_EQ(parser.nalUnitCounts(), counts);
    EXPECT_FALSE(parser.parseFile(file + "x") || parser.metadata().isValid());
    EXPECT_EQ(parser.errorMessage().rfind("cannot read " + file + "x: ", 0), 0u) << parser.errorMessage();
    // Used again, a parser forgets the last stream's parameter sets: a slice ahead of the new ones takes no size.
    const Bytes next = annexB({ppsRbsp(), sliceRbsp(5), spsRbsp(SpsFields(66, 22, 18)), ppsRbsp(), sliceRbsp(5)});
    ASSERT_TRUE(parser.parse(body.data(), body.size()) && parser.parse(next.data(), next.size()));
    VideoStreamMetadata kept; // a value: a copy outlives the parse, a moved-from one is empty
    kept = parser.metadata();
    parser.parse(nullptr, 0);
    VideoStreamMetadata moved = std::move(kept);
    EXPECT_EQ(moved.codedWidth() * 1000 + moved.codedHeight(), 352288);
    EXPECT_EQ(kept.isValid() + kept.codedWidth(), 0); // NOLINT(bugprone-use-after-move): documented state
}

} // namespace
