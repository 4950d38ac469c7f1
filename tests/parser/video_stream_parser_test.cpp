// The stream parser on hand-made streams: what the minimal reader leaves out
// (emulation prevention, scaling lists, cropping by chroma format and field
// coding, VUI aspect ratio and timing, bit depth), rejection of out-of-range
// fields, and how NAL units group into access units and key frames.

#include <gtest/gtest.h>

#include <fstream>
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

} // namespace

TEST(VideoStreamParserSps, EmulationPreventionScalingListsCroppingAndVui)
{
    // 1080p high profile with scaling lists, 4 crop units at the bottom, and
    // a num_units_in_tick of 1 whose 31 zero bits need emulation prevention.
    SpsFields hd;
    hd.profileIdc = 100;
    hd.levelIdc = 40;
    hd.widthInMbs = 120;
    hd.heightInMapUnits = 68;
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
    EXPECT_EQ(p.meta.codecName(), "h264");
    EXPECT_EQ(p.meta.profile(), 100);
    EXPECT_EQ(p.meta.level(), 40);
    EXPECT_EQ(p.meta.codedWidth(), 1920);
    EXPECT_EQ(p.meta.codedHeight(), 1088);
    EXPECT_EQ(p.meta.displayWidth(), 1920);
    EXPECT_EQ(p.meta.displayHeight(), 1080);
    EXPECT_EQ(p.meta.cropBottom(), 8); // 4:2:0 frame: crop units of two lines
    EXPECT_EQ(p.meta.sarWidth(), 64);
    EXPECT_EQ(p.meta.sarHeight(), 45);
    EXPECT_EQ(p.meta.frameRateNumerator(), 24);
    EXPECT_EQ(p.meta.frameRateDenominator(), 1);
    EXPECT_DOUBLE_EQ(p.meta.frameRate(), 24.0);
    EXPECT_EQ(p.meta.chromaFormat(), 1);
    EXPECT_EQ(p.meta.bitDepthLuma(), 8);
    EXPECT_TRUE(p.meta.frameMbsOnly());
}

TEST(VideoStreamParserSps, CropUnitsFollowChromaFormatAndFieldCoding)
{
    struct Case {
        unsigned chroma;
        bool separatePlanes;
        bool frameMbsOnly;
        int unitX, unitY;
    };
    const Case cases[] = {{1, false, true, 2, 2},  {1, false, false, 2, 4}, {2, false, true, 2, 1},
                          {2, false, false, 2, 2}, {3, false, true, 1, 1},  {3, false, false, 1, 2},
                          {3, true, true, 1, 1},   {0, false, true, 1, 1},  {0, false, false, 1, 2}};
    for (const auto& c : cases) {
        SpsFields sps;
        sps.profileIdc = c.chroma == 3 ? 244 : 122;
        sps.chromaFormatIdc = c.chroma;
        sps.separateColourPlane = c.separatePlanes;
        sps.bitDepthLuma = 10;
        sps.bitDepthChroma = 9;
        sps.frameMbsOnly = c.frameMbsOnly;
        sps.widthInMbs = 40;       // 640
        sps.heightInMapUnits = 15; // 240 frame / 480 field pair
        sps.cropUnits = {1, 2, 1, 3};
        const auto p = parse(oneIdrPicture(sps));
        ASSERT_TRUE(p.ok) << p.error;
        const int codedHeight = c.frameMbsOnly ? 240 : 480;
        SCOPED_TRACE("chroma " + std::to_string(c.chroma) + (c.frameMbsOnly ? " frame" : " field"));
        EXPECT_EQ(p.meta.codedWidth(), 640);
        EXPECT_EQ(p.meta.codedHeight(), codedHeight);
        EXPECT_EQ(p.meta.cropLeft(), c.unitX);
        EXPECT_EQ(p.meta.displayWidth(), 640 - 3 * c.unitX);
        EXPECT_EQ(p.meta.cropTop(), c.unitY);
        EXPECT_EQ(p.meta.displayHeight(), codedHeight - 4 * c.unitY);
        EXPECT_EQ(p.meta.chromaFormat(), static_cast<int>(c.chroma));
        EXPECT_EQ(p.meta.bitDepthLuma(), 10);
        EXPECT_EQ(p.meta.bitDepthChroma(), 9);
        EXPECT_EQ(p.meta.frameMbsOnly(), c.frameMbsOnly);
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
        {"frame cropping", [](SpsFields& s) { s.cropUnits = {100, 100, 0, 0}; }},
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
    SpsFields edge; // every limit reached, accepted
    edge.profileIdc = 110;
    edge.bitDepthLuma = 14;
    edge.log2MaxFrameNum = 16;
    edge.log2MaxPocLsb = 16;
    edge.maxNumRefFrames = 16;
    edge.heightInMapUnits = 2048;
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
    auto add = [&](const SliceHeader& s) { appendNal(stream, sliceRbsp(s), 3); };
    // 0: delimiter, SPS, PPS, SEI and an IDR in two slices.
    starts.push_back(stream.size());
    appendNal(stream, {0x09, 0xf0});
    appendNal(stream, spsRbsp(SpsFields()));
    appendNal(stream, ppsRbsp());
    appendNal(stream, seiRbsp(false));
    add(slice(5, 0, 0, 0));
    add(slice(5, 0, 0, 50));
    // 1: a P picture in two slices, no delimiter.
    starts.push_back(stream.size());
    add(slice(1, 1, 4, 0));
    add(slice(1, 1, 4, 60));
    // 2: a non-reference picture with the same frame_num: only the POC and
    // nal_ref_idc tell it apart.
    starts.push_back(stream.size());
    add(slice(1, 2, 2, 0, 0));
    // 3: a recovery point SEI before a non-IDR picture.
    starts.push_back(stream.size());
    appendNal(stream, seiRbsp(true));
    add(slice(1, 2, 8));
    // 4 and 5: IDRs told apart by idr_pic_id alone; end of stream stays with the last.
    starts.push_back(stream.size());
    add(slice(5, 0, 0, 0, 3, 1));
    starts.push_back(stream.size());
    add(slice(5, 0, 0, 0, 3, 2));
    stream.insert(stream.end(), {0, 0, 1, 0x0b});

    const auto p = parse(stream);
    ASSERT_TRUE(p.ok) << p.error;
    ASSERT_EQ(p.units.size(), starts.size());
    const bool keys[] = {true, false, false, true, true, true};
    for (std::size_t i = 0; i < starts.size(); ++i) {
        EXPECT_EQ(p.units[i].offset, starts[i]) << i;
        EXPECT_EQ(p.units[i].size, (i + 1 < starts.size() ? starts[i + 1] : stream.size()) - starts[i]) << i;
        EXPECT_EQ(p.units[i].keyFrame, keys[i]) << i;
    }
    EXPECT_EQ(p.units[0].nalTypes, (std::vector<std::uint8_t>{9, 7, 8, 6, 5, 5}));
    EXPECT_EQ(p.units[1].nalTypes, (std::vector<std::uint8_t>{1, 1}));
    EXPECT_EQ(p.units[3].nalTypes, (std::vector<std::uint8_t>{6, 1}));
    EXPECT_EQ(p.units[5].nalTypes, (std::vector<std::uint8_t>{5, 11}));
    EXPECT_TRUE(p.units[3].recoveryPoint);
    EXPECT_FALSE(p.units[3].idr);
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
    appendNal(slicesOnly, sliceRbsp(slice(1)));
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
