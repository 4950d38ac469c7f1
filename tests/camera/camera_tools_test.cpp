// `lumiflux cameras` and `lumiflux capture`, run as a user runs them, on the
// plug-in's test cameras.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <nlohmann/json.hpp>

#include "test_paths.h"

namespace {

namespace fs = std::filesystem;

std::string pluginDir()
{
    static const std::string dir = [] {
        const std::string d = lumiflux_test::freshDirectory("camera-tools");
        fs::create_symlink(lumiflux_test::buildDir() + "/plugins-out/lumiflux-gst-cameras.so",
                           d + "/lumiflux-gst-cameras.so");
        return d;
    }();
    return dir;
}

// The tool exempts GLib's abandoned first quark array itself under
// AddressSanitizer (tools/lumiflux/CMakeLists.txt), so its leak check stays on.

std::string tool(const std::string& arguments, const std::string& testCameras = "2")
{
    return "env LUMIFLUX_NO_SYSLOG=1 LUMIFLUX_TEST_CAMERAS=" + testCameras + " LUMIFLUX_PLUGIN_DIR='" + pluginDir() +
           "' " LUMIFLUX_TOOL " " + arguments;
}

std::vector<nlohmann::json> records(const std::string& out)
{
    std::vector<nlohmann::json> result;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line))
        result.push_back(nlohmann::json::parse(line));
    return result;
}

TEST(CamerasTool, ListsTestCamerasByFacingWithPlacementFormatsAndModes)
{
    std::string out;
    ASSERT_EQ(lumiflux_test::runCommand(tool("cameras 2>/dev/null", "3"), &out), 0);
    EXPECT_NE(out.find("0: lumiflux-test:/test/0  \"Test camera 0 (front)\""), std::string::npos) << out;
    EXPECT_NE(out.find("provider lumiflux-test, facing back, mount angle 90"), std::string::npos) << out;
    EXPECT_NE(out.find("formats: YUV420SemiPlanar YUV420Planar"), std::string::npos) << out;
    // A [1/1, 60/1] rate range is offered as the rates people ask for, a
    // list of rates as it is; no mode twice although three formats list the
    // same sizes.
    EXPECT_NE(out.find("640x480 @ 1, 5, 10, 15, 20, 24, 25, 30, 50, 60 fps"), std::string::npos) << out;
    EXPECT_NE(out.find("1280x720 @ 30, 15 fps"), std::string::npos) << out;

    ASSERT_EQ(lumiflux_test::runCommand(tool("cameras --json 2>/dev/null", "3"), &out), 0);
    const auto all = records(out);
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.back()["event"], "cameras");
    EXPECT_EQ(all.back()["count"], all.size() - 1);
    std::vector<nlohmann::json> cameras;
    for (const auto& record : all)
        if (record["event"] == "camera" && record["provider"] == "lumiflux-test")
            cameras.push_back(record);
    ASSERT_EQ(cameras.size(), 3u) << out;
    const struct {
        const char* facing;
        int mountAngle;
    } expected[] = {{"front", 270}, {"back", 90}, {"external", 0}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(cameras[i]["id"], "lumiflux-test:/test/" + std::to_string(i));
        EXPECT_EQ(cameras[i]["facingName"], expected[i].facing);
        if (i < 2) {
            EXPECT_EQ(cameras[i]["mountAngle"], expected[i].mountAngle);
        }
    }
    EXPECT_EQ(cameras[1]["formats"][1]["format"], "YUV420Planar");
    bool has720p15 = false;
    for (const auto& mode : cameras[1]["capabilities"])
        has720p15 = has720p15 || (mode["width"] == 1280 && mode["height"] == 720 && mode["frameRate"] == 15);
    EXPECT_TRUE(has720p15);

    // A count that is not a number offers no test camera at all.
    ASSERT_EQ(lumiflux_test::runCommand(tool("cameras --json 2>/dev/null", "three"), &out), 0);
    EXPECT_EQ(out.find("lumiflux-test"), std::string::npos) << out;
}

TEST(CamerasTool, WatchRunsUntilInterrupted)
{
    // Interrupted only once it says it is watching (a slow start under
    // sanitizers must not turn into a kill before the handler is installed);
    // the exit status is the tool's own after SIGINT, which must be a clean 0.
    const std::string out = lumiflux_test::freshDirectory("cameras-watch") + "/out";
    const std::string script = tool("cameras --watch --json") + " > " + out +
                               " 2>/dev/null & pid=$!; "
                               "for i in $(seq 1 300); do grep -q watching " +
                               out + " && break; sleep 0.1; done; kill -INT $pid; wait $pid";
    ASSERT_EQ(lumiflux_test::runCommand(script), 0);
    std::ifstream in(out);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto list = records(text);
    ASSERT_FALSE(list.empty());
    EXPECT_EQ(list.back()["event"], "watching");
    EXPECT_EQ(list[list.size() - 2]["event"], "cameras");
}

TEST(CaptureTool, WritesTheRequestedFramesAndReportsTheRate)
{
    const std::string file = lumiflux_test::freshDirectory("capture-tool") + "/frames.yuv";
    std::string out;
    ASSERT_EQ(
        lumiflux_test::runCommand(
            tool("capture lumiflux-test:/test/1 --size 320x240 --fps 30 --frames 10 -o '" + file + "' --json"), &out),
        0)
        << out;
    auto list = records(out);
    ASSERT_EQ(list.size(), 2u) << out;
    EXPECT_EQ(list[0]["event"], "started");
    EXPECT_EQ(list[0]["width"], 320);
    EXPECT_EQ(list[0]["frameRate"], 30);
    EXPECT_EQ(list[0]["format"], "YUV420SemiPlanar");
    EXPECT_EQ(list[1]["event"], "finished");
    EXPECT_EQ(list[1]["frames"], 10);
    EXPECT_EQ(list[1]["height"], 240);
    EXPECT_GT(list[1]["measuredFrameRate"].get<double>(), 0.0);

    // Ten NV12 frames, rows unpadded; the default pattern's first two bars
    // (100% white and yellow: Y 235 and 210, neutral chroma under white).
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size(), 10u * 320 * 240 * 3 / 2);
    EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 235);
    EXPECT_EQ(static_cast<unsigned char>(bytes[50]), 210);
    EXPECT_EQ(static_cast<unsigned char>(bytes[320 * 240]), 128);
    EXPECT_EQ(static_cast<unsigned char>(bytes[320 * 240 + 1]), 128);
}

TEST(CaptureTool, HumanOutputLiveLineOnlyOnATerminalAndClearFailures)
{
    std::string out;
    ASSERT_EQ(lumiflux_test::runCommand(tool("capture 0 --frames 5 --format i420 2>&1"), &out), 0);
    EXPECT_NE(out.find("capturing from lumiflux-test:/test/0: 640x480 @ 30 fps YUV420Planar"), std::string::npos)
        << out;
    EXPECT_NE(out.find("captured 5 frames of 640x480, measured "), std::string::npos) << out;
    EXPECT_EQ(out.find("\rframes"), std::string::npos) << "no live line into a pipe";

    // script(1) gives the tool a terminal: now the live line appears.
    ASSERT_EQ(lumiflux_test::runCommand("script -qec \"" + tool("capture 0 --frames 15") + "\" /dev/null", &out), 0);
    EXPECT_NE(out.find("\rframes "), std::string::npos) << out;

    EXPECT_EQ(lumiflux_test::runCommand(tool("capture no-such-camera 2>&1"), &out), 1);
    EXPECT_NE(out.find("NotFound: no camera 'no-such-camera'"), std::string::npos) << out;
    EXPECT_EQ(lumiflux_test::runCommand(tool("capture 0 --size 640by480 2>&1"), &out), 1);
    EXPECT_NE(out.find("BadArgument"), std::string::npos) << out;
}

} // namespace
