// The stream parser on hand-made streams: what the minimal reader leaves out
// (emulation prevention, scaling lists, cropping by chroma format and field
// coding, VUI aspect ratio and timing, bit depth), rejection of out-of-range
// fields, and how NAL units group into access units and key frames.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <lumiflux/h264_reader.h>
#include <lumiflux/video_stream_parser.h>

#include "h264_stream.h"
#include "test_paths.h"

using namespace lumiflux_test;
using Tevara::Lumiflux::VideoStreamMetadata;
using Tevara::Lumiflux::VideoStreamParser;
using Tevara::Lumiflux::VideoStreamParserSettings;
using Bytes = std::vector<std::uint8_t>;

namespace {

// SPS, PPS and one IDR picture of one slice.
Bytes oneIdrPicture(const SpsFields& sps)
{
    Bytes stream;
    appendNal(stream, spsRbsp(sps));
    appendNal(stream, ppsRbsp());
    SliceFields slice;
    slice.idr = true;
    slice.log2MaxFrameNum = sps.log2MaxFrameNumMinus4 + 4;
    slice.log2MaxPocLsb = sps.log2MaxPocLsbMinus4 + 4;
    appendNal(stream, sliceRbsp(slice));
    return stream;
}

struct Parsed {
    bool ok;
    std::string error;
    VideoStreamMetadata meta;
    std::vector<Tevara::Lumiflux::VideoAccessUnit> units;
};

Parsed parse(const Bytes& stream, VideoStreamParserSettings settings = {})
{
    VideoStreamParser parser(settings);
    Parsed p;
    p.ok = parser.parse(stream.data(), stream.size());
    p.error = parser.errorMessage();
    p.meta = parser.metadata();
    p.units = parser.accessUnits();
    return p;
}

} // namespace

TEST(VideoStreamParserSps, EmulationPreventionScalingListsAndCropping)
{
    // 1920x1080 high profile with scaling lists, a crop of 4 lines at the
    // bottom, and a num_units_in_tick of 1 whose 31 zero bits need emulation
    // prevention.
    SpsFields hd;
    hd.profile = 100;
    hd.level = 40;
    hd.widthMbsMinus1 = 119;
    hd.heightMapUnitsMinus1 = 67;
    hd.presentLists = {true, false, true, false, false, false, true, true};
    hd.crop = true;
    hd.cropBottom = 4;
    hd.vui = true;
    hd.aspectRatioIdc = 255;
    hd.sarWidth = 64;
    hd.sarHeight = 45;
    hd.timing = true;
    hd.numUnitsInTick = 1;
    hd.timeScale = 48;
    const Bytes stream = oneIdrPicture(hd);
    const Bytes raw = spsRbsp(hd);
    ASSERT_NE(escapeRbsp(raw), raw) << "the SPS should need emulation prevention";

    const auto p = parse(stream);
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

    // The minimal reader on the same unit takes the lists for later fields.
    H264Reader reader;
    reader.setData(stream.data(), stream.size());
    const auto unit = reader.readNalUnit();
    Bytes copy(stream.begin(), stream.begin() + static_cast<long>(unit.second));
    H264NaluReader nal(copy.data(), copy.size());
    int w = 0, h = 0, l = 0, pr = 0;
    EXPECT_FALSE(nal.parseSPS(w, h, l, pr) && w == 1920 && h == 1088);
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
        sps.profile = c.chroma == 3 ? 244 : 122;
        sps.chromaFormat = c.chroma;
        sps.separatePlanes = c.separatePlanes;
        sps.bitDepthLumaMinus8 = 2;
        sps.bitDepthChromaMinus8 = 1;
        sps.frameMbsOnly = c.frameMbsOnly;
        sps.widthMbsMinus1 = 39;       // 640
        sps.heightMapUnitsMinus1 = 14; // 240 frame / 480 field pair
        sps.crop = true;
        sps.cropLeft = 1;
        sps.cropRight = 2;
        sps.cropTop = 1;
        sps.cropBottom = 3;
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

TEST(VideoStreamParserSps, OutOfRangeFieldsAreRejectedWithTheirName)
{
    struct Case {
        const char* field;
        void (*change)(SpsFields&);
    };
    const Case cases[] = {
        {"seq_parameter_set_id", [](SpsFields& s) { s.id = 32; }},
        {"chroma_format_idc", [](SpsFields& s) { s.profile = 100, s.chromaFormat = 4; }},
        {"bit_depth_luma_minus8", [](SpsFields& s) { s.profile = 110, s.bitDepthLumaMinus8 = 7; }},
        {"bit_depth_chroma_minus8", [](SpsFields& s) { s.profile = 110, s.bitDepthChromaMinus8 = 40; }},
        {"log2_max_frame_num_minus4", [](SpsFields& s) { s.log2MaxFrameNumMinus4 = 13; }},
        {"pic_order_cnt_type", [](SpsFields& s) { s.pocType = 3; }},
        {"log2_max_pic_order_cnt_lsb_minus4", [](SpsFields& s) { s.log2MaxPocLsbMinus4 = 13; }},
        {"num_ref_frames_in_pic_order_cnt_cycle",
         [](SpsFields& s) { s.pocType = 1, s.pocCycle = std::vector<std::int64_t>(256, 1); }},
        {"max_num_ref_frames", [](SpsFields& s) { s.maxRefFrames = 17; }},
        {"pic_width_in_mbs_minus1", [](SpsFields& s) { s.widthMbsMinus1 = 0xfffffffeull; }},
        {"pic_height_in_map_units_minus1", [](SpsFields& s) { s.heightMapUnitsMinus1 = 2048; }},
        {"frame cropping", [](SpsFields& s) { s.crop = true, s.cropLeft = 100, s.cropRight = 100; }},
        {"num_units_in_tick", [](SpsFields& s) { s.vui = true, s.timing = true, s.numUnitsInTick = 0; }},
    };
    for (const auto& c : cases) {
        SpsFields sps;
        c.change(sps);
        const auto p = parse(oneIdrPicture(sps));
        EXPECT_FALSE(p.ok) << c.field;
        EXPECT_NE(p.error.find(c.field), std::string::npos) << c.field << ": " << p.error;
        EXPECT_FALSE(p.meta.isValid()) << c.field;
    }
    // At the limits, accepted.
    SpsFields edge;
    edge.profile = 110;
    edge.bitDepthLumaMinus8 = 6;
    edge.log2MaxFrameNumMinus4 = 12;
    edge.log2MaxPocLsbMinus4 = 12;
    edge.maxRefFrames = 16;
    edge.heightMapUnitsMinus1 = 2047;
    const auto p = parse(oneIdrPicture(edge));
    EXPECT_TRUE(p.ok) << p.error;
    EXPECT_EQ(p.meta.codedHeight(), 32768);
    EXPECT_EQ(p.meta.bitDepthLuma(), 14);

    // Truncated: every cut of the SPS before its size fails cleanly.
    const Bytes full = spsRbsp(SpsFields());
    for (std::size_t keep = 1; keep < 6; ++keep) {
        Bytes stream;
        appendNal(stream, Bytes(full.begin(), full.begin() + static_cast<long>(keep)));
        const auto cut = parse(stream);
        EXPECT_FALSE(cut.ok) << keep;
        EXPECT_NE(cut.error.find("truncated"), std::string::npos) << cut.error;
    }
}

TEST(VideoStreamParserUnits, AccessUnitsKeyFramesAndByteRanges)
{
    SpsFields sps;
    sps.log2MaxPocLsbMinus4 = 2;
    Bytes stream;
    std::vector<std::uint64_t> starts;
    auto slice = [&](bool idr, unsigned frame, unsigned poc, unsigned firstMb, int refIdc = 3) {
        SliceFields s;
        s.idr = idr;
        s.frameNum = frame;
        s.pocLsb = poc;
        s.firstMb = firstMb;
        s.nalRefIdc = refIdc;
        appendNal(stream, sliceRbsp(s), 3);
    };
    // AU 0: AUD, SPS, PPS, SEI, IDR in two slices.
    starts.push_back(stream.size());
    appendNal(stream, audRbsp());
    appendNal(stream, spsRbsp(sps));
    appendNal(stream, ppsRbsp());
    appendNal(stream, seiRbsp(false));
    slice(true, 0, 0, 0);
    slice(true, 0, 0, 50);
    // AU 1: a P picture in two slices, no delimiter.
    starts.push_back(stream.size());
    slice(false, 1, 4, 0);
    slice(false, 1, 4, 60);
    // AU 2: a non-reference picture with the same frame_num: only the POC
    // and nal_ref_idc tell it apart.
    starts.push_back(stream.size());
    slice(false, 2, 2, 0, 0);
    // AU 3: recovery point SEI before a non-IDR I picture.
    starts.push_back(stream.size());
    appendNal(stream, seiRbsp(true));
    slice(false, 2, 8, 0);
    // AU 4: a new IDR with another idr_pic_id, right after an IDR-less AU.
    starts.push_back(stream.size());
    {
        SliceFields s;
        s.idr = true;
        s.idrPicId = 1;
        appendNal(stream, sliceRbsp(s));
    }
    // AU 5: IDR again, idr_pic_id differs (consecutive IDRs).
    starts.push_back(stream.size());
    {
        SliceFields s;
        s.idr = true;
        s.idrPicId = 2;
        appendNal(stream, sliceRbsp(s));
    }
    // Trailing: end of stream NAL stays with the last picture.
    stream.insert(stream.end(), {0, 0, 1, 0x0b});

    const auto p = parse(stream);
    ASSERT_TRUE(p.ok) << p.error;
    ASSERT_EQ(p.units.size(), starts.size());
    for (std::size_t i = 0; i < starts.size(); ++i) {
        EXPECT_EQ(p.units[i].offset, starts[i]) << i;
        const std::uint64_t end = i + 1 < starts.size() ? starts[i + 1] : stream.size();
        EXPECT_EQ(p.units[i].size, end - starts[i]) << i;
    }
    EXPECT_EQ(p.units[0].nalTypes, (std::vector<std::uint8_t>{9, 7, 8, 6, 5, 5}));
    EXPECT_EQ(p.units[1].nalTypes, (std::vector<std::uint8_t>{1, 1}));
    EXPECT_EQ(p.units[3].nalTypes, (std::vector<std::uint8_t>{6, 1}));
    EXPECT_EQ(p.units[5].nalTypes, (std::vector<std::uint8_t>{5, 11}));
    const bool keys[] = {true, false, false, true, true, true};
    for (std::size_t i = 0; i < starts.size(); ++i)
        EXPECT_EQ(p.units[i].keyFrame, keys[i]) << i;
    EXPECT_TRUE(p.units[3].recoveryPoint);
    EXPECT_FALSE(p.units[3].idr);
    EXPECT_EQ(p.meta.accessUnitCount(), 6u);
    EXPECT_EQ(p.meta.keyFrameCount(), 4u);

    // Settings: recovery points not counted, units not kept.
    VideoStreamParserSettings settings;
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

    // Leading bytes: an error unless allowed.
    Bytes leading{0xff, 0xee};
    const Bytes body = oneIdrPicture(SpsFields());
    leading.insert(leading.end(), body.begin(), body.end());
    EXPECT_FALSE(parse(leading).ok);
    VideoStreamParserSettings allow;
    allow.allowLeadingBytes = true;
    const auto lenient = parse(leading, allow);
    ASSERT_TRUE(lenient.ok) << lenient.error;
    ASSERT_EQ(lenient.units.size(), 1u);
    EXPECT_EQ(lenient.units[0].offset, 2u);

    // No SPS at all.
    Bytes slicesOnly;
    appendNal(slicesOnly, sliceRbsp(SliceFields()));
    const auto noSps = parse(slicesOnly);
    EXPECT_FALSE(noSps.ok);
    EXPECT_NE(noSps.error.find("sequence parameter set"), std::string::npos) << noSps.error;

    // A forbidden_zero_bit.
    Bytes forbidden = body;
    forbidden.insert(forbidden.end(), {0, 0, 1, 0x81, 0x22});
    EXPECT_FALSE(parse(forbidden).ok);

    // Files: a real one and a missing one.
    const std::string dir = freshDirectory("stream-parser");
    const std::string path = dir + "/picture.264";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(body.data()), static_cast<std::streamsize>(body.size()));
    EXPECT_TRUE(parser.parseFile(path)) << parser.errorMessage();
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
