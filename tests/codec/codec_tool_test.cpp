// `lumiflux codecs`, `encode` and `decode`, run as a user runs them, over the
// real lumiflux-gst-codecs module; ffprobe checks what they write.

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "test_paths.h"

namespace {

namespace fs = std::filesystem;

std::string toolPrefix()
{
    static const std::string prefix = [] {
        const std::string dir = lumiflux_test::freshDirectory("tool-codecs");
        fs::create_symlink(LUMIFLUX_GST_CODECS_MODULE, fs::path(dir) / "lumiflux-gst-codecs.so");
        return "LUMIFLUX_NO_SYSLOG=0 LUMIFLUX_PLUGIN_DIR='" + dir + "' " LUMIFLUX_TOOL;
    }();
    return prefix;
}

// Runs the tool with `arguments`; its exit status, and its output in `out`.
int tool(const std::string& arguments, std::string* out)
{
    return lumiflux_test::runCommand(toolPrefix() + " " + arguments, out);
}

std::vector<nlohmann::json> records(const std::string& output)
{
    std::vector<nlohmann::json> result;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line))
        if (!line.empty())
            result.push_back(nlohmann::json::parse(line));
    return result;
}

TEST(CodecTool, ListsCodecsInPreferenceOrderWithParameters)
{
    std::string out;
    ASSERT_EQ(tool("codecs --json", &out), 0) << out;
    const auto list = records(out);
    ASSERT_GE(list.size(), 6u) << out;
    for (std::size_t i = 1; i < list.size(); ++i)
        EXPECT_GE(list[i - 1]["priority"].get<int>(), list[i]["priority"].get<int>());
    bool sawEncoder = false;
    std::set<std::string> types;
    // The stand-in hardware codecs come first.
    EXPECT_EQ(list.front()["hw"], true);
    for (const auto& record : list) {
        EXPECT_EQ(record["event"], "codec");
        types.insert(record["type"].get<std::string>() + "/" + record["direction"].get<std::string>());
        if (record["id"] == "gst.h264.openh264.enc") {
            sawEncoder = true;
            EXPECT_EQ(record["type"], "h264");
            EXPECT_EQ(record["direction"], "encoder");
            EXPECT_EQ(record["hw"], false);
            EXPECT_EQ(record["maxSize"], (nlohmann::json{8192, 4320}));
            ASSERT_EQ(record["parameters"].size(), 4u);
            EXPECT_EQ(record["parameters"][0]["name"], "bit-rate");
            EXPECT_EQ(record["parameters"][0]["range"], "16000-100000000");
        }
    }
    EXPECT_TRUE(sawEncoder);
    for (const char* type : {"h264", "h265", "vp8", "vp9", "av1"})
        for (const char* direction : {"/encoder", "/decoder"})
            EXPECT_EQ(types.count(std::string(type) + direction), 1u) << type << direction;

    ASSERT_EQ(tool("codecs", &out), 0);
    EXPECT_NE(out.find("gst.vp8.vpx.dec\n    vp8 decoder, software"), std::string::npos) << out;
}

TEST(CodecTool, EncodesAndDecodesH264AndVp8)
{
    const std::string dir = lumiflux_test::freshDirectory("tool-out");
    const auto frameBytes = 40u * 320 * 240 * 3 / 2;
    std::string out;
    ASSERT_EQ(tool("encode pattern -c gst.h264.openh264.enc --size 320x240 --frames 40 --bitrate 500000 -o " + dir +
                       "/a.h264 --json 2>&1",
                   &out),
              0)
        << out;
    // openh264's drain at the end of the stream used to print an error line.
    EXPECT_EQ(out.find("OpenH264"), std::string::npos) << out;
    EXPECT_EQ(records(out).back()["event"], "done");
    EXPECT_EQ(records(out).back()["framesOut"], 40);
    EXPECT_EQ(lumiflux_test::probeVideo(dir + "/a.h264"), "h264,40\n");

    ASSERT_EQ(tool("decode " + dir + "/a.h264 -o " + dir + "/a.yuv --json", &out), 0) << out;
    EXPECT_EQ(records(out).back()["frames"], 40);
    EXPECT_EQ(fs::file_size(dir + "/a.yuv"), frameBytes);

    // The decoded NV12 file goes back in as raw input, through VP8 into IVF.
    ASSERT_EQ(tool("encode " + dir + "/a.yuv --format nv12 --size 320x240 -c vp8 -o " + dir + "/b.ivf", &out), 0)
        << out;
    EXPECT_NE(out.find("wrote 40 frames"), std::string::npos) << out;
    EXPECT_EQ(lumiflux_test::probeVideo(dir + "/b.ivf"), "vp8,40\n");
    ASSERT_EQ(tool("decode " + dir + "/b.ivf -o " + dir + "/b.yuv", &out), 0) << out;
    EXPECT_EQ(fs::file_size(dir + "/b.yuv"), frameBytes);
}

TEST(CodecTool, EncodesAndDecodesTheNewerFormats)
{
    const std::string dir = lumiflux_test::freshDirectory("tool-formats");
    std::string out;
    const std::vector<std::tuple<std::string, std::string, std::string>> cases{
        {"h265", "h265", "hevc"}, {"vp9", "ivf", "vp9"}, {"av1", "ivf", "av1"}};
    for (const auto& [codec, extension, probed] : cases) {
        SCOPED_TRACE(codec);
        const std::string file = dir + "/" + codec + "." + extension;
        ASSERT_EQ(tool("encode pattern -c " + codec + " --size 320x240 --frames 30 -o " + file, &out), 0) << out;
        EXPECT_EQ(lumiflux_test::probeVideo(file), probed + ",30\n");
        ASSERT_EQ(tool("decode " + file + " -o " + file + ".yuv --json", &out), 0) << out;
        EXPECT_EQ(records(out).back()["frames"], 30) << out;
        EXPECT_EQ(fs::file_size(file + ".yuv"), 30u * 320 * 240 * 3 / 2);
    }
}

TEST(CodecTool, FailuresAreNamed)
{
    const std::string dir = lumiflux_test::freshDirectory("tool-fail");
    std::string out;
    for (const auto& [arguments, error] : std::vector<std::pair<std::string, std::string>>{
             {"-c nosuch", "UnknownCodec"}, {"--size 12", "BadSize"}, {"--bitrate 5", "BadBitrate"}}) {
        EXPECT_EQ(tool("encode pattern " + arguments + " -o " + dir + "/x 2>&1", &out), 1) << arguments;
        EXPECT_NE(out.find(error), std::string::npos) << out;
    }
    EXPECT_EQ(lumiflux_test::runCommand("echo garbage > " + dir + "/g.h264; " + toolPrefix() + " decode " + dir +
                                            "/g.h264 -o " + dir + "/g.yuv --json",
                                        &out),
              1);
    EXPECT_EQ(records(out).back()["error"], "BadInput") << out;
}

} // namespace
