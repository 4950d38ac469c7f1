// Streams encoded at test time by the x264 command line and by ffmpeg, read
// by our readers and checked against what ffprobe says about the same file.
// x264, ffmpeg and ffprobe are installed by scripts/install-deps: missing
// tools fail the test.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <lumiflux/h264_reader.h>
#include <lumiflux/video_stream_parser.h>

#include "test_paths.h"

using lumiflux_test::freshDirectory;
using lumiflux_test::runCommand;
using Tevara::Lumiflux::VideoStreamParser;

namespace {

struct EncodeCase {
    std::string name;
    std::string size;
    int frames;
    std::string pixelFormat; ///< of the raw pictures fed to the encoder
    std::string encoder;     ///< "x264" (command line) or "ffmpeg" (libx264 through ffmpeg)
    std::string options;
};

void PrintTo(const EncodeCase& c, std::ostream* os)
{
    *os << c.name;
}

std::vector<EncodeCase> cases()
{
    return {
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
}

std::string encode(const EncodeCase& c, const std::string& dir)
{
    const std::string out = dir + "/" + c.name + ".264";
    const std::string source = "ffmpeg -nostdin -v error -f lavfi -i testsrc=size=" + c.size + ":rate=25 -frames:v " +
                               std::to_string(c.frames) + " -pix_fmt " + c.pixelFormat;
    std::string command;
    if (c.encoder == "x264")
        command = source + " -f yuv4mpegpipe - | x264 --quiet --preset ultrafast --keyint 3 --min-keyint 3 " +
                  "--demuxer y4m " + c.options + " -o " + out + " - 2>&1";
    else
        command = source + " -c:v libx264 -preset ultrafast " + c.options + " -f h264 -y " + out + " 2>&1";
    // popen's shell may lack pipefail; an encoder failing mid-pipe must show.
    std::string quoted;
    for (char ch : command)
        quoted += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    std::string log;
    const int status = runCommand("bash -o pipefail -c '" + quoted + "'", &log);
    EXPECT_EQ(status, 0) << command << "\n" << log;
    return out;
}

// ffprobe's stream entries as key=value pairs.
std::map<std::string, std::string> probeStream(const std::string& file)
{
    std::string text;
    const int status = runCommand("ffprobe -v error -select_streams v:0 -count_frames -show_entries "
                                  "stream=profile,level,width,height,coded_width,coded_height,sample_aspect_ratio,"
                                  "r_frame_rate,pix_fmt,nb_read_frames -of default=noprint_wrappers=1 '" +
                                      file + "'",
                                  &text);
    EXPECT_EQ(status, 0) << "ffprobe failed on " << file;
    std::map<std::string, std::string> entries;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        const auto eq = line.find('=');
        if (eq != std::string::npos)
            entries[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return entries;
}

// Indices of the packets ffprobe flags as key frames.
std::vector<std::size_t> probeKeyPackets(const std::string& file, std::size_t* packets)
{
    std::string text;
    EXPECT_EQ(
        runCommand("ffprobe -v error -select_streams v:0 -show_entries packet=flags -of csv=p=0 '" + file + "'", &text),
        0);
    std::vector<std::size_t> keys;
    std::istringstream lines(text);
    std::string line;
    std::size_t index = 0;
    while (std::getline(lines, line)) {
        if (line.empty())
            continue;
        if (line.find('K') != std::string::npos)
            keys.push_back(index);
        ++index;
    }
    *packets = index;
    return keys;
}

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
                                                {"High 4:4:4 Intra", 244},
                                                {"CAVLC 4:4:4", 44}};
    const auto it = ids.find(name);
    return it != ids.end() ? it->second : -1;
}

int toInt(const std::string& text)
{
    return text.empty() ? -1 : std::stoi(text);
}

std::vector<unsigned char> readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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
    const std::string file = encode(c, freshDirectory("oracle-" + c.name));
    ASSERT_FALSE(HasFailure());
    auto probe = probeStream(file);
    ASSERT_FALSE(probe["width"].empty()) << "ffprobe gave no stream for " << file;

    // The minimal readers: the first SPS, read as its bits stand.
    auto bytes = readFile(file);
    ASSERT_FALSE(bytes.empty());
    H264Reader reader;
    reader.setData(bytes.data(), bytes.size());
    bool sawSps = false;
    for (auto unit = reader.readNalUnit(); unit.second > 0 && !sawSps; unit = reader.readNalUnit()) {
        H264NaluReader nal(bytes.data() + unit.first, unit.second);
        if (nal.naluType() != 7)
            continue;
        sawSps = true;
        int width = 0, height = 0, level = 0, profile = 0;
        const bool ok = nal.parseSPS(width, height, level, profile);
        EXPECT_EQ(profile, profileIdc(probe["profile"])) << probe["profile"];
        EXPECT_EQ(level, toInt(probe["level"]));
        // Every profile here is in parseSPS's set and no SPS carries scaling
        // lists, so its deliberate limits do not apply (they are covered with
        // hand-made units in the reader tests).
        ASSERT_TRUE(ok);
        EXPECT_EQ(width, toInt(probe["coded_width"]));
        EXPECT_EQ(height, toInt(probe["coded_height"]));
    }
    EXPECT_TRUE(sawSps);
    EXPECT_EQ(reader.error(), H264Reader::NoError);

    // The stream parser: everything, done right.
    VideoStreamParser parser;
    ASSERT_TRUE(parser.parseFile(file)) << parser.errorMessage();
    const auto& meta = parser.metadata();
    EXPECT_EQ(meta.codecName(), "h264");
    EXPECT_EQ(meta.profile(), profileIdc(probe["profile"]));
    EXPECT_EQ(meta.level(), toInt(probe["level"]));
    EXPECT_EQ(meta.codedWidth(), toInt(probe["coded_width"]));
    EXPECT_EQ(meta.codedHeight(), toInt(probe["coded_height"]));
    EXPECT_EQ(meta.displayWidth(), toInt(probe["width"]));
    EXPECT_EQ(meta.displayHeight(), toInt(probe["height"]));
    const std::string pix = probe["pix_fmt"];
    EXPECT_EQ(meta.chromaFormat(), pix.rfind("yuv444", 0) == 0 ? 3 : pix.rfind("yuv422", 0) == 0 ? 2 : 1) << pix;
    EXPECT_EQ(meta.bitDepthLuma(), pix.find("p10") != std::string::npos ? 10 : 8) << pix;
    EXPECT_EQ(std::to_string(meta.frameRateNumerator()) + "/" + std::to_string(meta.frameRateDenominator()),
              probe["r_frame_rate"]);
    if (meta.sarWidth() != 0) {
        EXPECT_EQ(std::to_string(meta.sarWidth()) + ":" + std::to_string(meta.sarHeight()),
                  probe["sample_aspect_ratio"]);
    }

    std::size_t packets = 0;
    const auto keys = probeKeyPackets(file, &packets);
    const auto& units = parser.accessUnits();
    EXPECT_EQ(units.size(), static_cast<std::size_t>(toInt(probe["nb_read_frames"])));
    EXPECT_EQ(units.size(), packets);
    std::vector<std::size_t> ourKeys;
    for (std::size_t i = 0; i < units.size(); ++i)
        if (units[i].keyFrame)
            ourKeys.push_back(i);
    EXPECT_EQ(ourKeys, keys);
    EXPECT_EQ(meta.accessUnitCount(), units.size());
    EXPECT_EQ(meta.keyFrameCount(), keys.size());
    // The access units tile the file.
    ASSERT_FALSE(units.empty());
    EXPECT_EQ(units.front().offset, 0u);
    for (std::size_t i = 1; i < units.size(); ++i)
        EXPECT_EQ(units[i].offset, units[i - 1].offset + units[i - 1].size);
    EXPECT_EQ(units.back().offset + units.back().size, bytes.size());
}

INSTANTIATE_TEST_SUITE_P(Streams, FfprobeOracle, ::testing::ValuesIn(cases()),
                         [](const ::testing::TestParamInfo<EncodeCase>& param) { return param.param.name; });

#include "bit_writer.h"

namespace {

std::vector<std::uint8_t> unescape(const std::uint8_t* nal, std::size_t size)
{
    std::vector<std::uint8_t> out;
    int zeros = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (zeros >= 2 && nal[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = nal[i] == 0 ? zeros + 1 : 0;
        out.push_back(nal[i]);
    }
    return out;
}

// The encoder's high-profile SPS with seq_scaling_matrix_present_flag set and
// scaling lists inserted after it; every other field is kept as it was.
std::vector<std::uint8_t> withScalingLists(const std::vector<std::uint8_t>& rbsp)
{
    // header 8, profile/constraints/level 24, ue(0) id, ue(1) chroma format,
    // ue(0) ue(0) bit depths, 1 bypass flag: the matrix flag is bit 39.
    constexpr std::size_t matrixFlagBit = 39;
    auto bitAt = [&](std::size_t i) { return (rbsp[i / 8] >> (7 - i % 8)) & 1u; };
    std::size_t stopBit = rbsp.size() * 8 - 1;
    while (stopBit > 0 && bitAt(stopBit) == 0)
        --stopBit;
    lumiflux_test::BitWriter w;
    for (std::size_t i = 0; i < matrixFlagBit; ++i)
        w.u(1, bitAt(i));
    w.flag(true);
    for (int list = 0; list < 8; ++list) {
        const bool present = list != 2 && list != 4;
        w.flag(present);
        if (present)
            w.se(5).se(-13); // 13 everywhere
    }
    for (std::size_t i = matrixFlagBit + 1; i < stopBit; ++i)
        w.u(1, bitAt(i));
    w.trailing();
    return w.bytes();
}

} // namespace

// No installed encoder puts scaling lists in the SPS (they go in the PPS), so
// the SPS of a real high-profile stream gets them inserted by hand. ffprobe
// decodes the result; the minimal reader shows its documented deviation and
// the stream parser agrees with ffprobe.
TEST(FfprobeOracleSpliced, SpsScalingListsDeviateInTheMinimalReaderOnly)
{
    const EncodeCase source{"scaling_source", "1278x718", 4, "yuv420p", "x264", "--profile high --8x8dct"};
    const std::string dir = freshDirectory("oracle-spliced");
    const auto original = readFile(encode(source, dir));
    ASSERT_FALSE(original.empty());

    std::vector<unsigned char> spliced;
    H264Reader reader;
    reader.setData(original.data(), original.size());
    int replaced = 0;
    for (auto unit = reader.readNalUnit(); unit.second > 0; unit = reader.readNalUnit()) {
        const unsigned char* start = original.data() + unit.first;
        const std::size_t header = start[2] == 1 ? 3 : 4;
        if ((start[header] & 0x1f) != 7) {
            spliced.insert(spliced.end(), start, start + unit.second);
            continue;
        }
        ASSERT_EQ(start[header + 1], 100) << "expected a high-profile SPS";
        lumiflux_test::appendNal(spliced, withScalingLists(unescape(start + header, unit.second - header)));
        ++replaced;
    }
    ASSERT_GT(replaced, 0);
    const std::string file = dir + "/spliced.264";
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(spliced.data()), static_cast<std::streamsize>(spliced.size()));

    auto probe = probeStream(file);
    ASSERT_EQ(probe["width"], "1278");
    ASSERT_EQ(probe["height"], "718");
    ASSERT_EQ(probe["nb_read_frames"], "4") << "ffprobe could not decode the spliced stream";

    H264Reader units;
    units.setData(spliced.data(), spliced.size());
    const auto first = units.readNalUnit();
    H264NaluReader nal(spliced.data() + first.first, first.second);
    ASSERT_EQ(nal.naluType(), 7u);
    int width = 0, height = 0, level = 0, profile = 0;
    const bool ok = nal.parseSPS(width, height, level, profile);
    EXPECT_EQ(profile, profileIdc(probe["profile"]));
    EXPECT_EQ(level, toInt(probe["level"]));
    EXPECT_FALSE(ok && width == toInt(probe["coded_width"]) && height == toInt(probe["coded_height"]))
        << "parseSPS is documented not to skip scaling lists";

    VideoStreamParser parser;
    ASSERT_TRUE(parser.parseFile(file)) << parser.errorMessage();
    EXPECT_EQ(parser.metadata().codedWidth(), toInt(probe["coded_width"]));
    EXPECT_EQ(parser.metadata().codedHeight(), toInt(probe["coded_height"]));
    EXPECT_EQ(parser.metadata().displayWidth(), 1278);
    EXPECT_EQ(parser.metadata().displayHeight(), 718);
    EXPECT_EQ(parser.accessUnits().size(), 4u);
}
