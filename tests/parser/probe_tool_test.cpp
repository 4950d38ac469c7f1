// `lumiflux probe --units`, run as a user runs it, on a hand-made stream: it
// reports what the stream parser finds in the same file, record by record.
// (The stream description against ffprobe is the tool tests' part.)

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include <lumiflux/video_stream_parser.h>

#include "h264_stream.h"
#include "test_paths.h"

using namespace lumiflux_test;
using nlohmann::json;

TEST(ProbeTool, ListsWhatTheParserFinds)
{
    SpsFields sps; // 4:3 pixels at 25 frames per second, 2 columns cropped
    sps.sarWidth = 4;
    sps.sarHeight = 3;
    sps.numUnitsInTick = 1;
    sps.timeScale = 50;
    sps.cropUnits = {0, 1, 0, 0};
    Bytes stream;
    appendNal(stream, spsRbsp(sps));
    appendNal(stream, ppsRbsp());
    appendNal(stream, sliceRbsp(5));
    appendNal(stream, sliceRbsp(1, 1, 2));
    appendNal(stream, seiRbsp(true));
    appendNal(stream, sliceRbsp(1, 2, 4), 3);
    const std::string dir = freshDirectory("probe-tool");
    const std::string file = dir + "/clip.264";
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(stream.data()), static_cast<std::streamsize>(stream.size()));
    Tevara::Lumiflux::VideoStreamParser parser;
    ASSERT_TRUE(parser.parse(stream.data(), stream.size())) << parser.errorMessage();
    const auto& meta = parser.metadata();
    const auto& units = parser.accessUnits();
    ASSERT_EQ(units.size(), 3u);

    std::string out;
    ASSERT_EQ(runCommand("LUMIFLUX_NO_SYSLOG=1 " LUMIFLUX_TOOL " probe --json --units " + file, &out), 0) << out;
    std::istringstream lines(out);
    std::size_t unitIndex = 0, nalUnits = 0;
    json streamRecord;
    for (std::string line; std::getline(lines, line);) {
        const json record = json::parse(line);
        if (record["event"] == "stream") {
            streamRecord = record;
        } else if (record["event"] == "nalUnits") {
            nalUnits += record["count"].get<std::size_t>();
            EXPECT_EQ(record["count"], parser.nalUnitCounts().at(record["type"].get<std::size_t>())) << line;
        } else if (record["event"] == "accessUnit") {
            ASSERT_LT(unitIndex, units.size()) << line;
            const auto& unit = units[unitIndex++];
            EXPECT_EQ(record, json({{"event", "accessUnit"},
                                    {"index", unitIndex - 1},
                                    {"offset", unit.offset},
                                    {"size", unit.size},
                                    {"nalTypes", unit.nalTypes},
                                    {"keyFrame", unit.keyFrame}}));
        }
    }
    EXPECT_EQ(nalUnits, 6u);
    EXPECT_EQ(unitIndex, units.size());
    EXPECT_EQ(streamRecord["crop"], json::array({0, 2, 0, 0})) << out;
    EXPECT_EQ(streamRecord["sarWidth"], 4);
    EXPECT_EQ(streamRecord["sarHeight"], 3);
    EXPECT_EQ(streamRecord["keyFrames"], meta.keyFrameCount());

    // The text form says the same for people.
    ASSERT_EQ(runCommand("LUMIFLUX_NO_SYSLOG=1 " LUMIFLUX_TOOL " probe --units " + file, &out), 0);
    for (const std::string& expected :
         {std::string("7 SPS: 1"), std::string("coded 176x144, display 174x144 (crop left 0, right 2, top 0"),
          std::string("sample aspect ratio 4:3, frame rate 25/1"), std::string("access units: 3, key frames: 2"),
          "#0 offset 0, " + std::to_string(units[0].size) + " bytes, NAL 7,8,5, key frame",
          "#2 offset " + std::to_string(units[2].offset) + ", " + std::to_string(units[2].size) +
              " bytes, NAL 6,1, key frame"})
        EXPECT_NE(out.find(expected), std::string::npos) << expected << " not in\n" << out;

    // A file that is not there fails with the reason.
    ASSERT_EQ(runCommand("LUMIFLUX_NO_SYSLOG=1 " LUMIFLUX_TOOL " probe " + dir + "/absent.264 2>&1", &out), 1);
    EXPECT_NE(out.find("ParseError"), std::string::npos) << out;
    EXPECT_NE(out.find("absent.264"), std::string::npos) << out;
}
