// Streams encoded at test time, parsed and checked against ffprobe; scripts/install-deps installs the tools.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>

#include <nlohmann/json.hpp>

#include <lumiflux/video_stream_parser.h>

#include "test_paths.h"

using lumiflux_test::runCommand;
using nlohmann::json;

namespace {

// "name size frames pixel-format options": x264 options, or ffmpeg ones (one leading -).
class FfprobeOracle : public ::testing::TestWithParam<const char*> {};

TEST_P(FfprobeOracle, StreamParserAgreesWithFfprobe)
{
    std::istringstream fields(GetParam());
    std::string name, size, frames, pixels, options;
    std::getline(fields >> name >> size >> frames >> pixels >> std::ws, options);
    const std::string file = lumiflux_test::freshDirectory("oracle-" + name) + "/" + name + ".264";
    const std::string source = "ffmpeg -nostdin -v error -f lavfi -i testsrc=size=" + size + ":rate=25 -frames:v " +
                               frames + " -pix_fmt " + pixels;
    const std::string command =
        options[1] == '-' ? source + " -f yuv4mpegpipe - | x264 --quiet --preset ultrafast --keyint 3 " +
                                "--min-keyint 3 --demuxer y4m " + options + " -o " + file + " - 2>&1"
                          : source + " -c:v libx264 -preset ultrafast " + options + " -f h264 -y " + file + " 2>&1";
    std::string text;
    ASSERT_EQ(runCommand("bash -o pipefail -c '" + command + "'", &text), 0) << command << "\n" << text;
    ASSERT_EQ(runCommand("ffprobe -v error -select_streams v:0 -count_frames -of json -show_entries "
                         "stream=profile,level,width,height,coded_width,coded_height,sample_aspect_ratio,"
                         "r_frame_rate,pix_fmt,nb_read_frames:packet=flags " +
                             file,
                         &text),
              0)
        << text;
    const json probe = json::parse(text), &stream = probe["streams"].at(0);
    const std::map<std::string, int> profiles{
        {"Constrained Baseline", 66},  {"Main", 77}, {"High", 100}, {"High 10", 110}, {"High 4:2:2", 122},
        {"High 4:4:4 Predictive", 244}};
    const int profile = profiles.at(stream["profile"]);

    Tevara::Lumiflux::VideoStreamParser parser;
    ASSERT_TRUE(parser.parseFile(file)) << parser.errorMessage();
    const auto& m = parser.metadata();
    const std::string pix = stream["pix_fmt"], sar = std::to_string(m.sarWidth()) + ":" + std::to_string(m.sarHeight());
    EXPECT_EQ(json({m.codecName(), m.profile(), m.level(), m.codedWidth(), m.codedHeight(), m.displayWidth(),
                    m.displayHeight(),
                    std::to_string(m.frameRateNumerator()) + "/" + std::to_string(m.frameRateDenominator())}),
              json({"h264", profile, stream["level"], stream["coded_width"], stream["coded_height"], stream["width"],
                    stream["height"], stream["r_frame_rate"]}));
    EXPECT_EQ(m.chromaFormat(), pix.rfind("yuv444", 0) == 0 ? 3 : pix.rfind("yuv422", 0) == 0 ? 2 : 1) << pix;
    EXPECT_EQ(m.bitDepthLuma(), pix.find("p10") != std::string::npos ? 10 : 8) << pix;
    EXPECT_EQ(m.sarWidth() != 0 ? sar : stream["sample_aspect_ratio"].get<std::string>(),
              stream["sample_aspect_ratio"]);

    const auto& units = parser.accessUnits();
    const json& packets = probe["packets"];
    ASSERT_EQ(units.size(), packets.size());
    EXPECT_EQ(std::to_string(units.size()), stream["nb_read_frames"]);
    std::uint64_t end = 0, keys = 0;
    for (std::size_t i = 0; i < units.size(); ++i, end += units[i - 1].size) {
        EXPECT_EQ(units[i].keyFrame, packets[i]["flags"].get<std::string>().find('K') != std::string::npos) << i;
        EXPECT_EQ(units[i].offset, end) << i;
        keys += units[i].keyFrame;
    }
    EXPECT_EQ(end, std::filesystem::file_size(file));
    EXPECT_EQ(m.accessUnitCount() * 1000 + m.keyFrameCount(), units.size() * 1000 + keys);
}

INSTANTIATE_TEST_SUITE_P(
    Streams, FfprobeOracle,
    ::testing::Values(
        "qcif_baseline 176x144 8 yuv420p --profile baseline",
        "odd_1918x1078 1918x1078 3 yuv420p --profile main --bframes 1", "interlaced_1080i 1920x1080 4 yuv420p --tff",
        "interlaced_bff_high 704x480 6 yuv420p --bff --profile high --8x8dct",
        "yuv422_cropped 638x358 4 yuv422p --profile high422 --output-csp i422",
        "yuv422_interlaced 638x358 4 yuv422p --profile high422 --output-csp i422 --tff",
        "yuv444_odd 321x239 4 yuv444p --profile high444 --output-csp i444",
        "high10 320x240 4 yuv420p --profile high10 --output-depth 10",
        // The encoder sends these matrices in the PPS, so the SPS has none.
        "pps_scaling_lists 1280x720 3 yuv420p --profile high --8x8dct --cqm jvt",
        "open_gop_recovery_points 320x240 10 yuv420p --open-gop --bframes 2 --keyint 4",
        "intra_refresh 320x240 10 yuv420p --intra-refresh", "four_slices 640x480 5 yuv420p --slices 4",
        "sar_ntsc_rate 352x288 5 yuv420p --sar 16:11 --fps 30000/1001",
        "ffmpeg_aud_sar 400x300 6 yuv420p -x264-params aud=1:keyint=3 -bsf:v h264_metadata=sample_aspect_ratio=4/3"),
    [](const ::testing::TestParamInfo<const char*>& param) {
        return std::string(param.param, std::strchr(param.param, ' '));
    });

} // namespace
