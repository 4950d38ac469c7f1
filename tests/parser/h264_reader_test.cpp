// The readers and the stream parser on hand-made streams, and `lumiflux
// probe` on one: units and errors, bits bounded by the unit, what the minimal
// reader deliberately leaves out and the parser does right, rejected fields,
// and how NAL units group into access units and key frames.
#include <gtest/gtest.h>

#include <climits>
#include <fstream>
#include <sstream>
#include <syslog.h>

#include <nlohmann/json.hpp>

#include <lumiflux/h264_reader.h>
#include <lumiflux/log.h>
#include <lumiflux/video_stream_parser.h>

#include "h264_stream.h"
#include "syslog_capture.h"
#include "test_paths.h"

using namespace lumiflux_test;
using namespace Tevara::Lumiflux;
using Unit = std::pair<unsigned long, unsigned long>;

namespace {

TEST(H264Reader, UnitsAndErrors)
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
        EXPECT_EQ(reader.readOffset(), -1);
        EXPECT_EQ(reader.currentNaluOffset(), 0u);
        EXPECT_EQ(reader.errorName(reader.error()), error);
    }
    EXPECT_EQ(H264Reader().errorName(static_cast<H264Reader::Error>(3)), "");
}

TEST(H264NaluReader, BitsAndExpGolombStopAtTheEndOfTheUnit)
{
    BitWriter w;
    for (unsigned v = 0; v < 300; ++v)
        w.ue(v);
    Bytes unit{0, 0, 1, 0x65};                                     // 0110 0101, in a buffer of exactly the unit's size
    for (auto byte : w.ue(0xfffffffeull).u(13, 0x1abc).trailing()) // the largest 32-bit value
        unit.push_back(byte);
    H264NaluReader reader(unit.data(), unit.size());
    EXPECT_EQ(reader.size(), unit.size() - 3);
    EXPECT_EQ(reader.naluType() * 100 + reader.bitPosition(), 508u);
    for (unsigned n = 0; n < 8; ++n)
        EXPECT_EQ(reader.getBit(n), (0x65u >> (7 - n)) & 1) << n;
    for (unsigned v = 0; v < 300; ++v)
        ASSERT_EQ(reader.readGolomb(), v);
    EXPECT_EQ(reader.readGolomb(), 0xfffffffeu);
    EXPECT_EQ(reader.readUnsigned(0) + reader.readUnsigned(-3), 0u);
    EXPECT_EQ(reader.readUnsigned(13), 0x1abcu);
    EXPECT_FALSE(reader.overrun());

    Bytes shortUnit{0, 0, 0, 1, 0x67, 0xff, 0x80}, zeros{0, 0, 1, 0x67, 0, 0};
    H264NaluReader end(shortUnit.data(), shortUnit.size()), huge = end, golomb(zeros.data(), zeros.size());
    EXPECT_EQ(end.readUnsigned(8), 0xffu);
    EXPECT_FALSE(end.overrun());
    EXPECT_EQ(end.readUnsigned(12), 0x800u); // 1000 0000, then zeros past the end
    EXPECT_TRUE(end.overrun());
    EXPECT_EQ(end.readUnsigned(32) + end.getBit(1000) + end.readGolomb(), 0u);
    for (int i = 0; i < 3; ++i) // neither wraps the position nor reads outside
        huge.readUnsigned(INT_MAX);
    EXPECT_EQ(huge.readUnsigned(8), 0u);
    EXPECT_EQ(golomb.readGolomb(), 0u); // its zeros run off the end
    EXPECT_TRUE(huge.overrun() && golomb.overrun());
}

TEST(H264NaluReader, UnitWithoutStartCodeIsLoggedAndLeftEmpty)
{
    LogInit();
    clearSyslog();
    Bytes bad{0x67, 0x42, 0x00, 0x1e, 0x00};
    H264NaluReader reader(bad.data(), bad.size()), tiny(bad.data(), 2); // tiny: not read beyond its size
    int w = 0, h = 0, l = 0, p = 0;
    EXPECT_FALSE(reader.parseSPS(w, h, l, p));
    EXPECT_EQ(reader.size() + reader.naluType() + reader.readUnsigned(8) + tiny.size(), 0u);
    const auto records = syslogRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(std::to_string(records[0].priority) + records[0].text.substr(0, 20) +
                  records[0].text.substr(records[0].text.find(" -- ")),
              std::to_string(LOG_ERR) + "main H264NaluReader: -- Invalid NAL Unit\n");
}

// What parseSPS makes of an SPS, read as its bits stand (not unescaped).
std::string minimalSps(const SpsFields& sps, long keep = -1)
{
    Bytes unit{0, 0, 0, 1}, rbsp = spsRbsp(sps);
    unit.insert(unit.end(), rbsp.begin(), keep < 0 ? rbsp.end() : rbsp.begin() + keep);
    H264NaluReader reader(unit.data(), unit.size());
    int width = 0, height = 0, level = 0, profile = 0;
    if (!reader.parseSPS(width, height, level, profile))
        return "failed";
    return std::to_string(profile) + "@" + std::to_string(level) + " " + std::to_string(width) + "x" +
           std::to_string(height);
}

TEST(H264NaluReader, ParseSpsSizesAndDeliberateLimits)
{
    SpsFields hd(100, 120, 68), field(77, 45, 18), cycle(66, 22, 18), planes(244, 80, 45), lists(100);
    hd.cropUnits = {0, 0, 0, 4}; // not applied
    field.frameMbsOnly = false;
    cycle.pocType = 1, cycle.pocCycle = {1, -2, 3, 300};
    planes.chromaFormatIdc = 3, planes.separateColourPlane = true, planes.bitDepthLuma = planes.bitDepthChroma = 10;
    lists.presentLists.assign(8, false); // the flags alone are read right
    EXPECT_EQ(minimalSps(hd) + ", " + minimalSps(field) + ", " + minimalSps(cycle) + ", " + minimalSps(planes) + ", " +
                  minimalSps(lists),
              "100@30 1920x1088, 77@30 720x576, 66@30 352x288, 244@30 1280x720, 100@30 176x144");
    // Deliberately not read: present scaling lists and the chroma fields of profile 128.
    lists.presentLists[0] = true;
    EXPECT_NE(minimalSps(lists), "100@30 176x144");
    EXPECT_NE(minimalSps(SpsFields(128)), "128@30 176x144");
    for (long keep = 1; keep < 7; ++keep)
        EXPECT_EQ(minimalSps(SpsFields(), keep), "failed") << "truncated to " << keep;
    EXPECT_EQ(minimalSps(SpsFields(66, 0xffffffffu)), "failed"); // the width overflows an int
}

struct Parsed {
    bool ok;
    std::string error;
    VideoStreamMetadata meta;
    std::vector<VideoAccessUnit> units;
};

Parsed parse(const Bytes& stream, VideoStreamParserSettings settings = {})
{
    VideoStreamParser parser(settings);
    const bool ok = parser.parse(stream.data(), stream.size());
    return {ok, parser.errorMessage(), parser.metadata(), parser.accessUnits()};
}

// Every field of a stream's description on one line, after the error if any.
std::string describe(const SpsFields& sps)
{
    const Parsed p = parse(oneIdrPicture(sps));
    const VideoStreamMetadata& m = p.meta;
    std::ostringstream s;
    s << p.error << m.codecName() << " " << m.profile() << "@" << m.level() << " " << m.codedWidth() << "x"
      << m.codedHeight() << " -" << m.cropLeft() << "," << m.cropRight() << "," << m.cropTop() << "," << m.cropBottom()
      << "= " << m.displayWidth() << "x" << m.displayHeight() << " sar " << m.sarWidth() << ":" << m.sarHeight() << " "
      << m.frameRateNumerator() << "/" << m.frameRateDenominator() << "=" << m.frameRate() << " chroma "
      << m.chromaFormat() << " " << m.bitDepthLuma() << "/" << m.bitDepthChroma() << " bit "
      << (m.frameMbsOnly() ? "frames" : "fields");
    return s.str();
}

// Crop units 1, 2, 1 and 3 of a 640x240 picture (480 for field pairs).
SpsFields cropped(unsigned chroma, bool separatePlanes, bool frames)
{
    SpsFields sps(chroma == 3 ? 244 : 122, 40, 15);
    sps.chromaFormatIdc = chroma, sps.separateColourPlane = separatePlanes, sps.frameMbsOnly = frames;
    sps.bitDepthLuma = 10, sps.bitDepthChroma = 9, sps.cropUnits = {1, 2, 1, 3};
    return sps;
}

TEST(VideoStreamParserSps, EmulationPreventionScalingListsCroppingAndVui)
{
    // Scaling lists, and a num_units_in_tick of 1 whose 31 zero bits need emulation prevention.
    SpsFields hd(100, 120, 68);
    hd.presentLists = {true, false, true, false, false, false, true, true};
    hd.cropUnits = {0, 0, 0, 4};
    hd.sarWidth = 64, hd.sarHeight = 45, hd.numUnitsInTick = 1, hd.timeScale = 48;
    const std::pair<SpsFields, const char*> cases[] = {
        {hd, "h264 100@30 1920x1088 -0,0,0,8= 1920x1080 sar 64:45 24/1=24 chroma 1 8/8 bit frames"},
        {cropped(1, false, true), "h264 122@30 640x240 -2,4,2,6= 634x232 sar 0:0 0/0=0 chroma 1 10/9 bit frames"},
        {cropped(1, false, false), "h264 122@30 640x480 -2,4,4,12= 634x464 sar 0:0 0/0=0 chroma 1 10/9 bit fields"},
        {cropped(2, false, true), "h264 122@30 640x240 -2,4,1,3= 634x236 sar 0:0 0/0=0 chroma 2 10/9 bit frames"},
        {cropped(2, false, false), "h264 122@30 640x480 -2,4,2,6= 634x472 sar 0:0 0/0=0 chroma 2 10/9 bit fields"},
        {cropped(3, false, false), "h264 244@30 640x480 -1,2,2,6= 637x472 sar 0:0 0/0=0 chroma 3 10/9 bit fields"},
        {cropped(3, true, true), "h264 244@30 640x240 -1,2,1,3= 637x236 sar 0:0 0/0=0 chroma 3 10/9 bit frames"},
        {cropped(0, false, true), "h264 122@30 640x240 -1,2,1,3= 637x236 sar 0:0 0/0=0 chroma 0 10/9 bit frames"},
        {cropped(0, false, false), "h264 122@30 640x480 -1,2,2,6= 637x472 sar 0:0 0/0=0 chroma 0 10/9 bit fields"}};
    for (const auto& [sps, expected] : cases)
        EXPECT_EQ(describe(sps), expected);
    EXPECT_GT(annexB({spsRbsp(hd)}).size(), spsRbsp(hd).size() + 4) << "the SPS should need emulation prevention";
}

TEST(VideoStreamParserSps, OutOfRangeAndTruncatedFieldsAreRejectedWithTheirName)
{
    const std::pair<const char*, void (*)(SpsFields&)> cases[] = {
        {"seq_parameter_set_id", [](SpsFields& s) { s.id = 32; }},
        {"chroma_format_idc", [](SpsFields& s) { s.profileIdc = 100, s.chromaFormatIdc = 4; }},
        {"bit_depth_luma_minus8", [](SpsFields& s) { s.profileIdc = 110, s.bitDepthLuma = 15; }},
        {"bit_depth_chroma_minus8", [](SpsFields& s) { s.profileIdc = 110, s.bitDepthChroma = 48; }},
        {"delta_scale",
         [](SpsFields& s) {
             s.profileIdc = 100, s.presentLists = {false, true}, s.firstDelta = 128;
         }},
        {"log2_max_frame_num_minus4", [](SpsFields& s) { s.log2MaxFrameNum = 17; }},
        {"pic_order_cnt_type", [](SpsFields& s) { s.pocType = 3; }},
        {"log2_max_pic_order_cnt_lsb_minus4", [](SpsFields& s) { s.log2MaxPocLsb = 17; }},
        {"num_ref_frames_in_pic_order_cnt_cycle", [](SpsFields& s) { s.pocType = 1, s.pocCycle.assign(256, 1); }},
        {"max_num_ref_frames", [](SpsFields& s) { s.maxNumRefFrames = 17; }},
        {"pic_width_in_mbs_minus1", [](SpsFields& s) { s.widthInMbs = 0xffffffffu; }},
        {"pic_height_in_map_units_minus1", [](SpsFields& s) { s.heightInMapUnits = 2049; }},
        {"pic_height_in_map_units_minus1", [](SpsFields& s) { s.heightInMapUnits = 1025, s.frameMbsOnly = false; }},
        {"frame cropping",
         [](SpsFields& s) {
             s.cropUnits = {100, 100, 0, 0};
         }},
        {"num_units_in_tick", [](SpsFields& s) { s.numUnitsInTick = 0, s.timeScale = 50; }}};
    for (const auto& [field, change] : cases) {
        SpsFields sps;
        change(sps);
        EXPECT_NE(describe(sps).find(field), std::string::npos) << field;
    }
    SpsFields edge(110, 11, 2048); // every limit reached, accepted
    edge.bitDepthLuma = 14, edge.log2MaxFrameNum = 16, edge.log2MaxPocLsb = 16, edge.maxNumRefFrames = 16;
    EXPECT_EQ(describe(edge), "h264 110@30 176x32768 -0,0,0,0= 176x32768 sar 0:0 0/0=0 chroma 1 14/8 bit frames");
    // The first problem is the one named, though the SPS ends right after it.
    const Bytes outOfRangeThenCut = BitWriter().u(32, 0x67420000 | 30).ue(32).trailing();
    EXPECT_EQ(parse(annexB({outOfRangeThenCut})).error.rfind("SPS seq_parameter_set_id is 32", 0), 0u);
    for (long keep = 1; keep < 6; ++keep) {
        const Bytes full = spsRbsp(SpsFields());
        EXPECT_NE(parse(annexB({Bytes(full.begin(), full.begin() + keep)})).error.find("truncated"), std::string::npos);
    }
}

TEST(VideoStreamParserUnits, AccessUnitsKeyFramesAndByteRanges)
{
    Bytes stream;
    std::vector<std::uint64_t> starts, offsets;
    const auto add = [&](const Bytes& rbsp, bool startsUnit = false) {
        if (startsUnit)
            starts.push_back(stream.size());
        appendNal(stream, rbsp, 3);
    };
    add({0x09, 0xf0}, true); // 0: delimiter, SPS, PPS, SEI and an IDR in two slices
    add(spsRbsp(SpsFields()));
    add(ppsRbsp());
    add(seiRbsp(false));
    add(sliceRbsp(5, 0, 0, 0));
    add(sliceRbsp(5, 0, 0, 50));
    add(sliceRbsp(1, 1, 4, 0), true); // 1: a P picture in two slices, no delimiter
    add(sliceRbsp(1, 1, 4, 60));
    add(sliceRbsp(1, 2, 2, 0, 0), true); // 2: only the POC and nal_ref_idc tell it from the next
    add(seiRbsp(true), true);            // 3: a recovery point before a non-IDR picture
    add(sliceRbsp(1, 2, 8));
    add(seiRbsp(true, 600), true); // 4: a recovery point inside a message claiming more than the SEI holds
    add(sliceRbsp(1, 3, 10));
    add(sliceRbsp(5, 0, 0, 0, 3, 1), true); // 5 and 6: IDRs told apart by idr_pic_id alone
    add(sliceRbsp(5, 0, 0, 0, 3, 2), true);
    add({0x0b}); // end of stream stays with the last picture
    const auto p = parse(stream);
    std::string shape;
    for (std::size_t i = 0; i < p.units.size(); ++i) {
        const auto& unit = p.units[i];
        offsets.push_back(unit.offset);
        EXPECT_EQ(unit.offset + unit.size, i + 1 < p.units.size() ? p.units[i + 1].offset : stream.size()) << i;
        for (auto type : unit.nalTypes)
            shape += std::to_string(type) + ",";
        shape += std::string(unit.idr ? " idr" : "") + (unit.recoveryPoint ? " recovery" : "") +
                 (unit.keyFrame ? " key" : "") + "; ";
    }
    EXPECT_EQ(offsets, starts);
    EXPECT_EQ(p.error + shape, "9,7,8,6,5,5, idr key; 1,1,; 1,; 6,1, recovery key; 6,1,; 5, idr key; 5,11, idr key; ");
    EXPECT_EQ(p.meta.accessUnitCount() * 10 + p.meta.keyFrameCount(), 74u);
    VideoStreamParserSettings settings; // recovery points not counted, units not kept
    settings.recoveryPointIsKeyFrame = settings.keepAccessUnits = false;
    const auto counted = parse(stream, settings);
    EXPECT_TRUE(counted.ok && counted.units.empty());
    EXPECT_EQ(counted.meta.accessUnitCount() * 10 + counted.meta.keyFrameCount(), 73u);
}

TEST(VideoStreamParserUnits, FailuresAndInputs)
{
    VideoStreamParser parser;
    const Bytes noStartCode{0x12, 0x34, 0x56}, body = oneIdrPicture();
    EXPECT_FALSE(parser.parse(nullptr, 10));
    EXPECT_EQ(parser.errorMessage(), "no data to parse");
    EXPECT_FALSE(parser.parse(noStartCode.data(), noStartCode.size()));
    EXPECT_EQ(parser.errorMessage(), "the stream does not begin with a start code");
    Bytes leading{0xff, 0xee}, forbidden = body;
    leading.insert(leading.end(), body.begin(), body.end());
    forbidden.insert(forbidden.end(), {0, 0, 1, 0x81, 0x22});
    EXPECT_FALSE(parse(leading).ok); // an error unless allowed
    const auto lenient = parse(leading, {true});
    ASSERT_EQ(lenient.units.size(), 1u) << lenient.error;
    EXPECT_EQ(lenient.units[0].offset, 2u);
    EXPECT_EQ(parse(annexB({sliceRbsp(1)})).error, "the stream holds no sequence parameter set");
    EXPECT_EQ(parse(forbidden).error, "NAL unit at offset 33 has its forbidden_zero_bit set");

    const std::string dir = freshDirectory("stream-parser");
    std::ofstream(dir + "/picture.264", std::ios::binary)
        .write(reinterpret_cast<const char*>(body.data()), static_cast<std::streamsize>(body.size()));
    EXPECT_TRUE(parser.parseFile(dir + "/picture.264")) << parser.errorMessage();
    EXPECT_EQ(parser.metadata().displayWidth(), 176);
    std::vector<std::uint64_t> counts(32);
    counts[5] = counts[7] = counts[8] = 1;
    EXPECT_EQ(parser.nalUnitCounts(), counts);
    EXPECT_FALSE(parser.parseFile(dir + "/missing.264"));
    EXPECT_EQ(parser.errorMessage().rfind("cannot read " + dir + "/missing.264: ", 0), 0u) << parser.errorMessage();
    EXPECT_FALSE(parser.metadata().isValid());

    // A parser used again forgets the parameter sets of the stream before: the
    // slice ahead of this stream's own sets cannot take the size of the last.
    ASSERT_TRUE(parser.parse(body.data(), body.size()));
    const Bytes next = annexB({ppsRbsp(), sliceRbsp(5), spsRbsp(SpsFields(66, 22, 18)), ppsRbsp(), sliceRbsp(5)});
    ASSERT_TRUE(parser.parse(next.data(), next.size())) << parser.errorMessage();
    EXPECT_EQ(parser.metadata().codedWidth(), 352);
    // Metadata is a value: copies outlive the parse, a moved-from one is empty.
    VideoStreamMetadata kept;
    kept = parser.metadata();
    parser.parse(nullptr, 0);
    VideoStreamMetadata moved = std::move(kept);
    EXPECT_EQ(moved.codedHeight(), 288);
    EXPECT_FALSE(kept.isValid()); // NOLINT(bugprone-use-after-move): documented state
    EXPECT_EQ(kept.codedWidth(), 0);
}

#ifdef LUMIFLUX_TOOL
// `lumiflux probe --units`, run as a user runs it: what the parser finds in the same file.
TEST(ProbeTool, ListsWhatTheParserFinds)
{
    SpsFields sps; // 4:3 pixels at 25 frames per second, 2 columns cropped
    sps.sarWidth = 4, sps.sarHeight = 3, sps.numUnitsInTick = 1, sps.timeScale = 50, sps.cropUnits = {0, 1, 0, 0};
    Bytes stream = annexB({spsRbsp(sps), ppsRbsp(), sliceRbsp(5), sliceRbsp(1, 1, 2), seiRbsp(true)});
    appendNal(stream, sliceRbsp(1, 2, 4), 3);
    const std::string dir = freshDirectory("probe-tool"), file = dir + "/clip.264";
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(stream.data()), static_cast<std::streamsize>(stream.size()));
    const auto units = parse(stream).units;
    ASSERT_EQ(units.size(), 3u);
    const std::string probe = "LUMIFLUX_NO_SYSLOG=1 " LUMIFLUX_TOOL " probe ";
    std::string out;
    ASSERT_EQ(runCommand(probe + "--json --units " + file, &out), 0) << out;
    std::istringstream lines(out);
    std::vector<nlohmann::json> records;
    for (std::string line; std::getline(lines, line);)
        records.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(records.size(), 9u) << out; // 5 NAL unit types, the stream, 3 access units
    EXPECT_EQ(records[1], nlohmann::json({{"event", "nalUnits"}, {"type", 5}, {"name", "IDR slice"}, {"count", 1}}));
    EXPECT_EQ(records[5]["crop"], nlohmann::json::array({0, 2, 0, 0})) << out;
    EXPECT_EQ(records[5]["sarWidth"].get<int>() * 10 + records[5]["sarHeight"].get<int>(), 43);
    EXPECT_EQ(records[5]["keyFrames"], 2);
    for (std::size_t i = 0; i < units.size(); ++i)
        EXPECT_EQ(records[6 + i], nlohmann::json({{"event", "accessUnit"},
                                                  {"index", i},
                                                  {"offset", units[i].offset},
                                                  {"size", units[i].size},
                                                  {"nalTypes", units[i].nalTypes},
                                                  {"keyFrame", units[i].keyFrame}}));
    ASSERT_EQ(runCommand(probe + "--units " + file, &out), 0); // the text form says the same for people
    for (const std::string& expected :
         {std::string("coded 176x144, display 174x144 (crop left 0, right 2, top 0"),
          std::string("sample aspect ratio 4:3, frame rate 25/1"), std::string("access units: 3, key frames: 2"),
          "#2 offset " + std::to_string(units[2].offset) + ", " + std::to_string(units[2].size) +
              " bytes, NAL 6,1, key frame"})
        EXPECT_NE(out.find(expected), std::string::npos) << expected << " not in\n" << out;
    ASSERT_EQ(runCommand(probe + dir + "/absent.264 2>&1", &out), 1); // a file that is not there fails with the reason
    EXPECT_NE(out.find("ParseError"), std::string::npos) << out;
    EXPECT_NE(out.find("absent.264"), std::string::npos) << out;
}
#endif

} // namespace
