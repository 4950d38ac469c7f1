// Streams encoded at test time by the x264 command line and by ffmpeg, read
// by our readers and checked against what ffprobe says about the same file.
// x264, ffmpeg and ffprobe are installed by scripts/install-deps: missing
// tools fail the test.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <lumiflux/h264_reader.h>
#include <lumiflux/video_stream_parser.h>

#include "test_paths.h"

using lumiflux_test::runCommand;
using nlohmann::json;

namespace {

struct EncodeCase {
    std::string name, size;
    int frames;
    std::string pixelFormat; ///< of the raw pictures fed to the encoder
    std::string encoder;     ///< "x264" (command line) or "ffmpeg" (libx264 through ffmpeg)
    std::string options;
};

void PrintTo(const EncodeCase& c, std::ostream* os)
{
    *os << c.name;
}

const EncodeCase cases[] = {
    {"qcif_baseline", "176x144", 8, "yuv420p", "x264", "--profile baseline"},
    {"qvga_main_bframes", "320x240", 8, "yuv420p", "x264", "--profile main --bframes 2"},
    {"hd720_high", "1280x720", 4, "yuv420p", "x264", "--profile high --8x8dct --bframes 1"},
    {"hd1080_high", "1920x1080", 3, "yuv420p", "x264", "--profile high --8x8dct"},
    {"odd_1918x1078", "1918x1078", 3, "yuv420p", "x264", "--profile main --bframes 1"},
    {"uhd_4096x2160", "4096x2160", 2, "yuv420p", "x264", "--profile high --8x8dct"},
    {"interlaced_tff", "720x576", 6, "yuv420p", "x264", "--tff"},
    {"interlaced_bff_high", "704x480", 6, "yuv420p", "x264", "--bff --profile high --8x8dct"},
    {"yuv422_cropped", "638x358", 4, "yuv422p", "x264", "--profile high422 --output-csp i422"},
    {"yuv422_interlaced", "640x480", 4, "yuv422p", "x264", "--profile high422 --output-csp i422 --tff"},
    {"yuv444_odd", "321x239", 4, "yuv444p", "x264", "--profile high444 --output-csp i444"},
    {"high10", "320x240", 4, "yuv420p", "x264", "--profile high10 --output-depth 10"},
    // The encoder sends its matrices in the PPS, so the SPS has none.
    {"pps_scaling_lists", "1280x720", 3, "yuv420p", "x264", "--profile high --8x8dct --cqm jvt"},
    {"open_gop_recovery_points", "320x240", 10, "yuv420p", "x264", "--open-gop --bframes 2 --keyint 4"},
    {"intra_refresh", "320x240", 10, "yuv420p", "x264", "--intra-refresh"},
    {"four_slices", "640x480", 5, "yuv420p", "x264", "--slices 4"},
    {"sar_ntsc_rate", "352x288", 5, "yuv420p", "x264", "--sar 16:11 --fps 30000/1001"},
    {"ffmpeg_aud_sar", "400x300", 6, "yuv420p", "ffmpeg",
     "-x264-params aud=1:keyint=3 -bsf:v h264_metadata=sample_aspect_ratio=4/3"},
    {"ffmpeg_interlaced", "720x480", 6, "yuv420p", "ffmpeg", "-flags +ildct+ilme -x264-params keyint=3:tff=1"},
};

int profileIdc(const std::string& name)
{
    static const std::map<std::string, int> ids{{"Baseline", 66},
                                                {"Constrained Baseline", 66},
                                                {"Main", 77},
                                                {"Extended", 88},
                                                {"High", 100},
                                                {"High 10", 110},
                                                {"High 10 Intra", 110},
                                                {"High 4:2:2", 122},
                                                {"High 4:2:2 Intra", 122},
                                                {"High 4:4:4 Predictive", 244},
                                                {"High 4:4:4 Intra", 244}};
    const auto it = ids.find(name);
    return it != ids.end() ? it->second : -1;
}

class FfprobeOracle : public ::testing::TestWithParam<EncodeCase> {
protected:
    static void SetUpTestSuite()
    {
        // A missing tool is a broken install, not a reason to skip.
        for (const char* tool : {"x264", "ffmpeg", "ffprobe"})
            ASSERT_EQ(runCommand(std::string("command -v ") + tool + " >/dev/null"), 0) << tool << " is missing";
    }
};

} // namespace

TEST_P(FfprobeOracle, ReadersAgreeWithFfprobe)
{
    const EncodeCase& c = GetParam();
    const std::string file = lumiflux_test::freshDirectory("oracle-" + c.name) + "/" + c.name + ".264";
    const std::string source = "ffmpeg -nostdin -v error -f lavfi -i testsrc=size=" + c.size + ":rate=25 -frames:v " +
                               std::to_string(c.frames) + " -pix_fmt " + c.pixelFormat;
    const std::string command =
        c.encoder == "x264" ? source + " -f yuv4mpegpipe - | x264 --quiet --preset ultrafast --keyint 3 " +
                                  "--min-keyint 3 --demuxer y4m " + c.options + " -o " + file + " - 2>&1"
                            : source + " -c:v libx264 -preset ultrafast " + c.options + " -f h264 -y " + file + " 2>&1";
    std::string text;
    // bash: an encoder failing mid-pipe must show.
    ASSERT_EQ(runCommand("bash -o pipefail -c '" + command + "'", &text), 0) << command << "\n" << text;
    ASSERT_EQ(runCommand("ffprobe -v error -select_streams v:0 -count_frames -of json -show_entries "
                         "stream=profile,level,width,height,coded_width,coded_height,sample_aspect_ratio,"
                         "r_frame_rate,pix_fmt,nb_read_frames:packet=flags " +
                             file,
                         &text),
              0)
        << text;
    const json probe = json::parse(text);
    const json& stream = probe["streams"].at(0);
    const int profile = profileIdc(stream["profile"].get<std::string>());

    // The minimal readers: the first SPS, read as its bits stand.
    std::ifstream in(file, std::ios::binary);
    std::vector<unsigned char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    H264Reader reader;
    reader.setData(bytes.data(), bytes.size());
    bool sawSps = false;
    for (auto unit = reader.readNalUnit(); unit.second > 0 && !sawSps; unit = reader.readNalUnit()) {
        H264NaluReader nal(bytes.data() + unit.first, unit.second);
        if ((sawSps = nal.naluType() == 7)) {
            int width = 0, height = 0, level = 0, spsProfile = 0;
            // Every profile here is in parseSPS's set and no SPS carries
            // scaling lists, so its deliberate limits do not apply.
            ASSERT_TRUE(nal.parseSPS(width, height, level, spsProfile));
            EXPECT_EQ(spsProfile, profile) << stream["profile"];
            EXPECT_EQ(level, stream["level"]);
            EXPECT_EQ(width, stream["coded_width"]);
            EXPECT_EQ(height, stream["coded_height"]);
        }
    }
    EXPECT_TRUE(sawSps);
    EXPECT_EQ(reader.error(), H264Reader::NoError);

    // The stream parser: everything, done right.
    Tevara::Lumiflux::VideoStreamParser parser;
    ASSERT_TRUE(parser.parseFile(file)) << parser.errorMessage();
    const auto& meta = parser.metadata();
    EXPECT_EQ(meta.codecName(), "h264");
    EXPECT_EQ(meta.profile(), profile);
    EXPECT_EQ(meta.level(), stream["level"]);
    EXPECT_EQ(meta.codedWidth(), stream["coded_width"]);
    EXPECT_EQ(meta.codedHeight(), stream["coded_height"]);
    EXPECT_EQ(meta.displayWidth(), stream["width"]);
    EXPECT_EQ(meta.displayHeight(), stream["height"]);
    const std::string pix = stream["pix_fmt"];
    EXPECT_EQ(meta.chromaFormat(), pix.rfind("yuv444", 0) == 0 ? 3 : pix.rfind("yuv422", 0) == 0 ? 2 : 1) << pix;
    EXPECT_EQ(meta.bitDepthLuma(), pix.find("p10") != std::string::npos ? 10 : 8) << pix;
    EXPECT_EQ(std::to_string(meta.frameRateNumerator()) + "/" + std::to_string(meta.frameRateDenominator()),
              stream["r_frame_rate"]);
    if (meta.sarWidth() != 0) {
        EXPECT_EQ(std::to_string(meta.sarWidth()) + ":" + std::to_string(meta.sarHeight()),
                  stream["sample_aspect_ratio"]);
    }

    std::vector<std::size_t> keys, ourKeys;
    const json& packets = probe["packets"];
    for (std::size_t i = 0; i < packets.size(); ++i)
        if (packets[i]["flags"].get<std::string>().find('K') != std::string::npos)
            keys.push_back(i);
    const auto& units = parser.accessUnits();
    EXPECT_EQ(std::to_string(units.size()), stream["nb_read_frames"]);
    EXPECT_EQ(units.size(), packets.size());
    for (std::size_t i = 0; i < units.size(); ++i)
        if (units[i].keyFrame)
            ourKeys.push_back(i);
    EXPECT_EQ(ourKeys, keys);
    EXPECT_EQ(meta.accessUnitCount(), units.size());
    EXPECT_EQ(meta.keyFrameCount(), keys.size());
    ASSERT_FALSE(units.empty()); // the access units tile the file
    EXPECT_EQ(units.front().offset, 0u);
    for (std::size_t i = 1; i < units.size(); ++i)
        EXPECT_EQ(units[i].offset, units[i - 1].offset + units[i - 1].size);
    EXPECT_EQ(units.back().offset + units.back().size, bytes.size());
}

INSTANTIATE_TEST_SUITE_P(Streams, FfprobeOracle, ::testing::ValuesIn(cases),
                         [](const ::testing::TestParamInfo<EncodeCase>& param) { return param.param.name; });
