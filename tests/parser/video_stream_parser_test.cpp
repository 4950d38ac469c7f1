// The stream parser on hand-made streams: what the minimal reader leaves out
// (emulation prevention, scaling lists, cropping by chroma format and field
// coding, VUI aspect ratio and timing, bit depth), rejection of out-of-range
// fields, and how NAL units group into access units and key frames.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <lumiflux/video_stream_parser.h>

#include "h264_stream.h"
#include "test_paths.h"

using namespace lumiflux_test;
using Tevara::Lumiflux::VideoStreamMetadata;
using Tevara::Lumiflux::VideoStreamParser;
using Tevara::Lumiflux::VideoStreamParserSettings;

namespace {

struct Parsed {
    bool ok;
    std::string error;
    VideoStreamMetadata meta;
    std::vector<Tevara::Lumiflux::VideoAccessUnit> units;
};

Parsed parse(const Bytes& stream, VideoStreamParserSettings settings = {})
{
    VideoStreamParser parser(settings);
    const bool ok = parser.parse(stream.data(), stream.size());
    return {ok, parser.errorMessage(), parser.metadata(), parser.accessUnits()};
}

// Every field of a description on one line, so that a case states it whole.
std::string describe(const VideoStreamMetadata& m)
{
    std::ostringstream s;
    s << m.codecName() << " " << m.profile() << "@" << m.level() << " coded " << m.codedWidth() << "x"
      << m.codedHeight() << " display " << m.displayWidth() << "x" << m.displayHeight() << " crop " << m.cropLeft()
      << "," << m.cropRight() << "," << m.cropTop() << "," << m.cropBottom() << " sar " << m.sarWidth() << ":"
      << m.sarHeight() << " rate " << m.frameRateNumerator() << "/" << m.frameRateDenominator() << " (" << m.frameRate()
      << ") chroma " << m.chromaFormat() << " depth " << m.bitDepthLuma() << "/" << m.bitDepthChroma()
      << (m.frameMbsOnly() ? " frames" : " fields");
    return s.str();
}

} // namespace

TEST(VideoStreamParserSps, EmulationPreventionScalingListsCroppingAndVui)
{
    // 1080p high profile with scaling lists, 4 crop units at the bottom, and
    // a num_units_in_tick of 1 whose 31 zero bits need emulation prevention.
    SpsFields hd(100, 120, 68);
    hd.levelIdc = 40;
    hd.presentLists = {true, false, true, false, false, false, true, true};
    hd.cropUnits = {0, 0, 0, 4};
    hd.sarWidth = 64;
    hd.sarHeight = 45;
    hd.numUnitsInTick = 1;
    hd.timeScale = 48;
    ASSERT_NE(escapeRbsp(spsRbsp(hd)), spsRbsp(hd)) << "the SPS should need emulation prevention";
    const auto p = parse(oneIdrPicture(hd));
    ASSERT_TRUE(p.ok) << p.error;
    EXPECT_TRUE(p.meta.isValid());
    EXPECT_EQ(describe(p.meta),
              "h264 100@40 coded 1920x1088 display 1920x1080 crop 0,0,0,8 sar 64:45 rate 24/1 (24) chroma 1 depth "
              "8/8 frames");
}

TEST(VideoStreamParserSps, CropUnitsFollowChromaFormatAndFieldCoding)
{
    // 640x240 coded (480 for a field pair), crop units 1, 2, 1 and 3.
    const struct {
        unsigned chroma;
        bool separatePlanes, frameMbsOnly;
        const char* expected;
    } cases[] = {
        {1, false, true, "coded 640x240 display 634x232 crop 2,4,2,6"},
        {1, false, false, "coded 640x480 display 634x464 crop 2,4,4,12"},
        {2, false, true, "coded 640x240 display 634x236 crop 2,4,1,3"},
        {2, false, false, "coded 640x480 display 634x472 crop 2,4,2,6"},
        {3, false, true, "coded 640x240 display 637x236 crop 1,2,1,3"},
        {3, false, false, "coded 640x480 display 637x472 crop 1,2,2,6"},
        {3, true, true, "coded 640x240 display 637x236 crop 1,2,1,3"},
        {0, false, true, "coded 640x240 display 637x236 crop 1,2,1,3"},
        {0, false, false, "coded 640x480 display 637x472 crop 1,2,2,6"},
    };
    for (const auto& c : cases) {
        SpsFields sps(c.chroma == 3 ? 244 : 122, 40, 15);
        sps.chromaFormatIdc = c.chroma;
        sps.separateColourPlane = c.separatePlanes;
        sps.bitDepthLuma = 10;
        sps.bitDepthChroma = 9;
        sps.frameMbsOnly = c.frameMbsOnly;
        sps.cropUnits = {1, 2, 1, 3};
        const auto p = parse(oneIdrPicture(sps));
        ASSERT_TRUE(p.ok) << p.error;
        EXPECT_EQ(describe(p.meta), "h264 " + std::to_string(sps.profileIdc) + "@30 " + c.expected +
                                        " sar 0:0 rate 0/0 (0) chroma " + std::to_string(c.chroma) + " depth 10/9" +
                                        (c.frameMbsOnly ? " frames" : " fields"));
    }
}

TEST(VideoStreamParserSps, OutOfRangeAndTruncatedFieldsAreRejectedWithTheirName)
{
    struct Case {
        const char* field;
        void (*change)(SpsFields&);
    };
    const Case cases[] = {
        {"seq_parameter_set_id", [](SpsFields& s) { s.id = 32; }},
        {"chroma_format_idc", [](SpsFields& s) { s.profileIdc = 100, s.chromaFormatIdc = 4; }},
        {"bit_depth_luma_minus8", [](SpsFields& s) { s.profileIdc = 110, s.bitDepthLuma = 15; }},
        {"bit_depth_chroma_minus8", [](SpsFields& s) { s.profileIdc = 110, s.bitDepthChroma = 48; }},
        {"log2_max_frame_num_minus4", [](SpsFields& s) { s.log2MaxFrameNum = 17; }},
        {"pic_order_cnt_type", [](SpsFields& s) { s.pocType = 3; }},
        {"log2_max_pic_order_cnt_lsb_minus4", [](SpsFields& s) { s.log2MaxPocLsb = 17; }},
        {"num_ref_frames_in_pic_order_cnt_cycle", [](SpsFields& s) { s.pocType = 1, s.pocCycle.assign(256, 1); }},
        {"max_num_ref_frames", [](SpsFields& s) { s.maxNumRefFrames = 17; }},
        {"pic_width_in_mbs_minus1", [](SpsFields& s) { s.widthInMbs = 0xffffffffu; }},
        {"pic_height_in_map_units_minus1", [](SpsFields& s) { s.heightInMapUnits = 2049; }},
        {"frame cropping",
         [](SpsFields& s) {
             s.cropUnits = {100, 100, 0, 0};
         }},
        {"num_units_in_tick", [](SpsFields& s) { s.numUnitsInTick = 0, s.timeScale = 50; }},
    };
    for (const auto& c : cases) {
        SpsFields sps;
        c.change(sps);
        const auto p = parse(oneIdrPicture(sps));
        EXPECT_FALSE(p.ok) << c.field;
        EXPECT_NE(p.error.find(c.field), std::string::npos) << c.field << ": " << p.error;
        EXPECT_FALSE(p.meta.isValid()) << c.field;
    }
    SpsFields edge(110, 11, 2048); // every limit reached, accepted
    edge.bitDepthLuma = 14;
    edge.log2MaxFrameNum = 16;
    edge.log2MaxPocLsb = 16;
    edge.maxNumRefFrames = 16;
    const auto p = parse(oneIdrPicture(edge));
    EXPECT_TRUE(p.ok) << p.error;
    EXPECT_EQ(p.meta.codedHeight(), 32768);
    EXPECT_EQ(p.meta.bitDepthLuma(), 14);

    const Bytes full = spsRbsp(SpsFields());
    for (long keep = 1; keep < 6; ++keep) {
        Bytes stream;
        appendNal(stream, Bytes(full.begin(), full.begin() + keep));
        const auto cut = parse(stream);
        EXPECT_FALSE(cut.ok) << keep;
        EXPECT_NE(cut.error.find("truncated"), std::string::npos) << cut.error;
    }
}

TEST(VideoStreamParserUnits, AccessUnitsKeyFramesAndByteRanges)
{
    Bytes stream;
    std::vector<std::uint64_t> starts;
    auto add = [&](const Bytes& rbsp, bool startsUnit = false) {
        if (startsUnit)
            starts.push_back(stream.size());
        appendNal(stream, rbsp, 3);
    };
    // 0: delimiter, SPS, PPS, SEI and an IDR in two slices.
    add({0x09, 0xf0}, true);
    add(spsRbsp(SpsFields()));
    add(ppsRbsp());
    add(seiRbsp(false));
    add(sliceRbsp(5, 0, 0, 0));
    add(sliceRbsp(5, 0, 0, 50));
    // 1: a P picture in two slices, no delimiter.
    add(sliceRbsp(1, 1, 4, 0), true);
    add(sliceRbsp(1, 1, 4, 60));
    // 2: a non-reference picture with the same frame_num: only the POC and
    // nal_ref_idc tell it apart.
    add(sliceRbsp(1, 2, 2, 0, 0), true);
    // 3: a recovery point SEI before a non-IDR picture.
    add(seiRbsp(true), true);
    add(sliceRbsp(1, 2, 8));
    // 4 and 5: IDRs told apart by idr_pic_id alone; end of stream stays with the last.
    add(sliceRbsp(5, 0, 0, 0, 3, 1), true);
    add(sliceRbsp(5, 0, 0, 0, 3, 2), true);
    add({0x0b});

    const auto p = parse(stream);
    ASSERT_TRUE(p.ok) << p.error;
    std::vector<std::uint64_t> offsets;
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
    EXPECT_EQ(shape, "9,7,8,6,5,5, idr key; 1,1,; 1,; 6,1, recovery key; 5, idr key; 5,11, idr key; ");
    EXPECT_EQ(p.meta.accessUnitCount(), 6u);
    EXPECT_EQ(p.meta.keyFrameCount(), 4u);

    VideoStreamParserSettings settings; // recovery points not counted, units not kept
    settings.recoveryPointIsKeyFrame = false;
    settings.keepAccessUnits = false;
    const auto counted = parse(stream, settings);
    ASSERT_TRUE(counted.ok) << counted.error;
    EXPECT_TRUE(counted.units.empty());
    EXPECT_EQ(counted.meta.accessUnitCount(), 6u);
    EXPECT_EQ(counted.meta.keyFrameCount(), 3u);
}

TEST(VideoStreamParserUnits, FailuresAndInputs)
{
    VideoStreamParser parser;
    EXPECT_FALSE(parser.parse(nullptr, 10));
    EXPECT_FALSE(parser.errorMessage().empty());
    const Bytes noStartCode{0x12, 0x34, 0x56};
    EXPECT_FALSE(parser.parse(noStartCode.data(), noStartCode.size()));
    EXPECT_NE(parser.errorMessage().find("start code"), std::string::npos) << parser.errorMessage();

    Bytes leading{0xff, 0xee}; // an error unless allowed
    const Bytes body = oneIdrPicture();
    leading.insert(leading.end(), body.begin(), body.end());
    EXPECT_FALSE(parse(leading).ok);
    VideoStreamParserSettings allow;
    allow.allowLeadingBytes = true;
    const auto lenient = parse(leading, allow);
    ASSERT_TRUE(lenient.ok) << lenient.error;
    ASSERT_EQ(lenient.units.size(), 1u);
    EXPECT_EQ(lenient.units[0].offset, 2u);

    Bytes slicesOnly;
    appendNal(slicesOnly, sliceRbsp(1));
    const auto noSps = parse(slicesOnly);
    EXPECT_FALSE(noSps.ok);
    EXPECT_NE(noSps.error.find("sequence parameter set"), std::string::npos) << noSps.error;

    Bytes forbidden = body;
    forbidden.insert(forbidden.end(), {0, 0, 1, 0x81, 0x22});
    EXPECT_FALSE(parse(forbidden).ok);

    const std::string dir = freshDirectory("stream-parser");
    std::ofstream(dir + "/picture.264", std::ios::binary)
        .write(reinterpret_cast<const char*>(body.data()), static_cast<std::streamsize>(body.size()));
    EXPECT_TRUE(parser.parseFile(dir + "/picture.264")) << parser.errorMessage();
    EXPECT_EQ(parser.metadata().displayWidth(), 176);
    EXPECT_EQ(parser.nalUnitCounts()[7], 1u);
    EXPECT_EQ(parser.nalUnitCounts()[5], 1u);
    EXPECT_FALSE(parser.parseFile(dir + "/missing.264"));
    EXPECT_NE(parser.errorMessage().find("missing.264"), std::string::npos);
    EXPECT_FALSE(parser.metadata().isValid());

    // Metadata is a value: copies survive the parser, moved-from is empty.
    VideoStreamMetadata kept;
    {
        VideoStreamParser local;
        ASSERT_TRUE(local.parse(body.data(), body.size()));
        kept = local.metadata();
    }
    EXPECT_EQ(kept.codedWidth(), 176);
    VideoStreamMetadata moved = std::move(kept);
    EXPECT_EQ(moved.codedHeight(), 144);
    EXPECT_FALSE(kept.isValid()); // NOLINT(bugprone-use-after-move): documented state
    EXPECT_EQ(kept.codedWidth(), 0);
}
