// `lumiflux codecs`, `encode` and `decode`, run as a user runs them, over the
// real lumiflux-gst-codecs module; ffprobe checks what they write.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "test_paths.h"

namespace {

// Runs the tool with `arguments`; its exit status, and its output in `out`.
int tool(const std::string& arguments, std::string* out)
{
    static const std::string prefix = [] {
        const std::string dir = lumiflux_test::freshDirectory("tool-codecs");
        std::filesystem::create_symlink(LUMIFLUX_GST_CODECS_MODULE, dir + "/lumiflux-gst-codecs.so");
        return "LUMIFLUX_NO_SYSLOG=0 LUMIFLUX_PLUGIN_DIR='" + dir + "' " LUMIFLUX_TOOL " ";
    }();
    return lumiflux_test::runCommand(prefix + arguments, out);
}

std::vector<nlohmann::json> records(const std::string& output)
{
    std::vector<nlohmann::json> result;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty())
            result.push_back(nlohmann::json::parse(line));
    return result;
}

TEST(CodecTool, ListsCodecsInPreferenceOrderWithParameters)
{
    std::string out;
    ASSERT_EQ(tool("codecs --json", &out), 0) << out;
    const auto list = records(out);
    ASSERT_GE(list.size(), 10u) << out;
    EXPECT_EQ(list.front()["hw"], true) << "the stand-in hardware codecs come first";
    std::set<std::string> types;
    for (std::size_t i = 0; i < list.size(); ++i) {
        EXPECT_TRUE(i == 0 || list[i - 1]["priority"].get<int>() >= list[i]["priority"].get<int>()) << i;
        types.insert(list[i]["type"].get<std::string>() + "/" + list[i]["direction"].get<std::string>());
        if (list[i]["id"] != "gst.h264.openh264.enc")
            continue;
        const nlohmann::json expected{{"type", "h264"},
                                      {"direction", "encoder"},
                                      {"hw", false},
                                      {"maxSize", {8192, 4320}},
                                      {"minSize", {16, 16}}};
        for (const auto& item : expected.items())
            EXPECT_EQ(list[i][item.key()], item.value()) << item.key();
        EXPECT_EQ(list[i]["parameters"][0].dump(),
                  R"({"id":1,"name":"bit-rate","range":"16000-100000000","value":"2000000"})");
    }
    for (const char* type : {"h264", "h265", "vp8", "vp9", "av1"})
        EXPECT_EQ(types.count(type + std::string("/encoder")) + types.count(type + std::string("/decoder")), 2u)
            << type;
    ASSERT_EQ(tool("codecs", &out), 0);
    EXPECT_NE(out.find("gst.vp8.vpx.dec\n    vp8 decoder, software"), std::string::npos) << out;
}

TEST(CodecTool, EncodesAndDecodesEveryFormat)
{
    const std::string dir = lumiflux_test::freshDirectory("tool-out");
    std::string out;
    // {input and options, file, what ffprobe reads}. The first decoded file
    // goes back in as raw NV12, in human mode.
    for (const auto& [input, file, probed] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"pattern -c gst.h264.openh264.enc --frames 40 --bitrate 500000", "a.h264", "h264"},
             {dir + "/a.h264.yuv --format nv12 -c vp8", "b.ivf", "vp8"},
             {"pattern -c h265 --frames 40", "c.h265", "hevc"},
             {"pattern -c vp9 --frames 40", "d.ivf", "vp9"},
             {"pattern -c av1 --frames 40", "e.ivf", "av1"}}) {
        SCOPED_TRACE(file);
        const std::string path = dir + "/" + file, json = probed == "vp8" ? "" : " --json";
        ASSERT_EQ(tool("encode " + input + " --size 320x240 -o " + path + json + " 2>&1", &out), 0) << out;
        // openh264's drain at the end of the stream used to print an error line.
        EXPECT_EQ(out.find("OpenH264"), std::string::npos) << out;
        if (json.empty())
            EXPECT_NE(out.find("wrote 40 frames"), std::string::npos) << out;
        else
            EXPECT_EQ(records(out).back()["framesOut"], 40) << out;
        EXPECT_EQ(lumiflux_test::probeVideo(path), probed + ",40\n");
        ASSERT_EQ(tool("decode " + path + " -o " + path + ".yuv" + json, &out), 0) << out;
        EXPECT_TRUE(json.empty() || records(out).back()["frames"] == 40) << out;
        EXPECT_EQ(std::filesystem::file_size(path + ".yuv"), 40u * 320 * 240 * 3 / 2);
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
    std::ofstream(dir + "/g.h264") << "garbage\n";
    EXPECT_EQ(tool("decode " + dir + "/g.h264 -o " + dir + "/g.yuv --json", &out), 1);
    EXPECT_EQ(records(out).back()["error"], "BadInput") << out;
}

} // namespace
