// `lumiflux probe`, run as a user runs it, against ffprobe on the same file.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "test_paths.h"

namespace {

std::vector<nlohmann::json> jsonLines(const std::string& text)
{
    std::vector<nlohmann::json> records;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
        records.push_back(nlohmann::json::parse(line));
    return records;
}

TEST(ProbeTool, DescribesAStreamAsFfprobeDoes)
{
    const std::string dir = lumiflux_test::freshDirectory("probe-tool");
    const std::string file = dir + "/clip.264";
    std::string log;
    ASSERT_EQ(lumiflux_test::runCommand(
                  "bash -o pipefail -c 'ffmpeg -nostdin -v error -f lavfi -i testsrc=size=1918x1078:rate=30 "
                  "-frames:v 7 -pix_fmt yuv420p -f yuv4mpegpipe - | x264 --quiet --preset ultrafast --keyint 3 "
                  "--sar 4:3 --demuxer y4m -o " +
                      file + " - 2>&1'",
                  &log),
              0)
        << log;

    std::string probe;
    ASSERT_EQ(lumiflux_test::runCommand("ffprobe -v error -select_streams v:0 -count_frames -show_entries "
                                        "stream=width,height,coded_width,coded_height,level,r_frame_rate,"
                                        "sample_aspect_ratio,nb_read_frames -of json " +
                                            file,
                                        &probe),
              0);
    const auto expected = nlohmann::json::parse(probe)["streams"][0];

    std::string out;
    ASSERT_EQ(lumiflux_test::runCommand("LUMIFLUX_NO_SYSLOG=1 " LUMIFLUX_TOOL " probe --json --units " + file, &out), 0)
        << out;
    const auto records = jsonLines(out);
    const nlohmann::json* stream = nullptr;
    int units = 0, keys = 0, nalTotal = 0;
    for (const auto& record : records) {
        if (record["event"] == "stream")
            stream = &record;
        if (record["event"] == "accessUnit") {
            ++units;
            keys += record["keyFrame"].get<bool>() ? 1 : 0;
        }
        if (record["event"] == "nalUnits")
            nalTotal += record["count"].get<int>();
    }
    ASSERT_NE(stream, nullptr) << out;
    EXPECT_EQ((*stream)["displayWidth"], expected["width"]);
    EXPECT_EQ((*stream)["displayHeight"], expected["height"]);
    EXPECT_EQ((*stream)["codedWidth"], expected["coded_width"]);
    EXPECT_EQ((*stream)["codedHeight"], expected["coded_height"]);
    EXPECT_EQ((*stream)["level"], expected["level"]);
    EXPECT_EQ(std::to_string((*stream)["frameRateNumerator"].get<int>()) + "/" +
                  std::to_string((*stream)["frameRateDenominator"].get<int>()),
              expected["r_frame_rate"]);
    EXPECT_EQ(std::to_string((*stream)["sarWidth"].get<int>()) + ":" +
                  std::to_string((*stream)["sarHeight"].get<int>()),
              expected["sample_aspect_ratio"]);
    EXPECT_EQ(std::to_string((*stream)["accessUnits"].get<int>()), expected["nb_read_frames"]);
    EXPECT_EQ(units, 7);
    EXPECT_EQ(keys, 3); // frames 0, 3 and 6
    EXPECT_EQ((*stream)["keyFrames"], 3);
    EXPECT_GE(nalTotal, units + 2);

    // The text form says the same for people.
    ASSERT_EQ(lumiflux_test::runCommand("LUMIFLUX_NO_SYSLOG=1 " LUMIFLUX_TOOL " probe " + file, &out), 0);
    EXPECT_NE(out.find("coded 1920x1088, display 1918x1078"), std::string::npos) << out;
    EXPECT_NE(out.find("access units: 7, key frames: 3"), std::string::npos) << out;
    EXPECT_NE(out.find("7 SPS: "), std::string::npos) << out;

    // A file that is not a stream fails with the reason.
    ASSERT_EQ(
        lumiflux_test::runCommand("LUMIFLUX_NO_SYSLOG=1 " LUMIFLUX_TOOL " probe " + dir + "/absent.264 2>&1", &out), 1);
    EXPECT_NE(out.find("ParseError"), std::string::npos) << out;
    EXPECT_NE(out.find("absent.264"), std::string::npos) << out;
}

} // namespace
