// `lumiflux cameras` and `lumiflux capture`, run as a user runs them, on the
// plug-in's test cameras.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "test_paths.h"

namespace {

// The tool with only the camera plug-in and `cameras` test cameras.
std::string tool(const std::string& arguments, const std::string& cameras = "2")
{
    static const std::string dir = [] {
        const std::string d = lumiflux_test::freshDirectory("camera-tools");
        std::filesystem::create_symlink(lumiflux_test::buildDir() + "/plugins-out/lumiflux-gst-cameras.so",
                                        d + "/lumiflux-gst-cameras.so");
        return d;
    }();
    return "env LUMIFLUX_NO_SYSLOG=1 LUMIFLUX_TEST_CAMERAS=" + cameras + " LUMIFLUX_PLUGIN_DIR='" + dir +
           "' " LUMIFLUX_TOOL " " + arguments;
}

std::vector<nlohmann::json> records(const std::string& out)
{
    std::vector<nlohmann::json> result;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        result.push_back(nlohmann::json::parse(line));
    return result;
}

TEST(CamerasTool, ListsTestCamerasByFacingWithPlacementFormatsAndModes)
{
    std::string out;
    ASSERT_EQ(lumiflux_test::runCommand(tool("cameras 2>/dev/null", "3"), &out), 0);
    // A [1/1, 60/1] rate range is offered as the rates people ask for, a list
    // of rates as it is; no mode twice although three formats list the same sizes.
    EXPECT_NE(out.find("0: lumiflux-test:/test/0  \"Test camera 0 (front)\"\n"
                       "    provider lumiflux-test, facing front, mount angle 270\n"
                       "    formats: YUV420SemiPlanar YUV420Planar\n"
                       "    320x240 @ 1, 5, 10, 15, 20, 24, 25, 30, 50, 60 fps\n"
                       "    640x480 @ 1, 5, 10, 15, 20, 24, 25, 30, 50, 60 fps\n"
                       "    1280x720 @ 30, 15 fps\n1: lumiflux-test:/test/1"),
              std::string::npos)
        << out;
    ASSERT_EQ(lumiflux_test::runCommand(tool("cameras --json 2>/dev/null", "3"), &out), 0);
    const auto all = records(out);
    ASSERT_EQ(all.size(), 4u) << out;
    EXPECT_EQ(all.back()["event"], "cameras");
    EXPECT_EQ(all.back()["count"], 3);
    const char* facings[] = {"front", "back", "external"};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(all[i]["id"].get<std::string>() + " " + all[i]["facingName"].get<std::string>(),
                  "lumiflux-test:/test/" + std::to_string(i) + " " + facings[i]);
    EXPECT_EQ(all[1]["mountAngle"], 90);
    EXPECT_EQ(all[1]["formats"][1]["format"], "YUV420Planar");
    EXPECT_EQ(all[1]["capabilities"].back(), nlohmann::json::parse(R"({"width":1280,"height":720,"frameRate":15})"));
    // Nothing on stderr, not even at exit, when the plug-in shuts its device monitor down.
    ASSERT_EQ(lumiflux_test::runCommand(tool("cameras 2>&1 >/dev/null", "3"), &out), 0);
    EXPECT_EQ(out, "");
}

TEST(CaptureTool, WritesTheRequestedFramesReportsTheRateAndFailsClearly)
{
    const std::string file = lumiflux_test::freshDirectory("capture-tool") + "/frames.yuv";
    std::string out;
    const std::string command = "capture lumiflux-test:/test/1 --size 320x240 --fps 30 --frames 10 --json -o ";
    ASSERT_EQ(lumiflux_test::runCommand(tool(command + file), &out), 0) << out;
    auto list = records(out);
    ASSERT_EQ(list.size(), 2u) << out;
    EXPECT_GT(list[1]["measuredFrameRate"].get<double>() * list[1]["seconds"].get<double>(), 0.0);
    list[1].erase("measuredFrameRate"), list[1].erase("seconds");
    EXPECT_EQ(list[0], nlohmann::json::parse(R"({"event":"started","id":"lumiflux-test:/test/1","width":320,)"
                                             R"("height":240,"frameRate":30,"format":"YUV420SemiPlanar"})"));
    EXPECT_EQ(list[1], nlohmann::json::parse(R"({"event":"finished","frames":10,"width":320,"height":240,"output":")" +
                                             file + "\"}"));
    // Ten NV12 frames, rows unpadded; the default bars white and yellow (Y 235, 210; Cb, Cr 128).
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size(), 10u * 320 * 240 * 3 / 2);
    EXPECT_EQ(std::vector<int>({static_cast<unsigned char>(bytes[0]), static_cast<unsigned char>(bytes[50]),
                                static_cast<unsigned char>(bytes[320 * 240]),
                                static_cast<unsigned char>(bytes[320 * 240 + 1])}),
              std::vector<int>({235, 210, 128, 128}));

    ASSERT_EQ(lumiflux_test::runCommand(tool("capture 0 --frames 5 --format i420 2>&1"), &out), 0);
    EXPECT_NE(out.find("capturing from lumiflux-test:/test/0: 640x480 @ 30 fps YUV420Planar"), std::string::npos)
        << out;
    EXPECT_NE(out.find("captured 5 frames of 640x480, measured "), std::string::npos) << out;
    EXPECT_EQ(lumiflux_test::runCommand(tool("capture no-such-camera 2>&1"), &out), 1);
    EXPECT_NE(out.find("NotFound: no camera 'no-such-camera'"), std::string::npos) << out;
    EXPECT_EQ(lumiflux_test::runCommand(tool("capture 0 --size 640by480 2>&1"), &out), 1);
    EXPECT_NE(out.find("BadArgument"), std::string::npos) << out;
}

} // namespace
