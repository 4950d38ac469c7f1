// `lumiflux codecs`, `encode` and `decode` run as a user runs them over the
// real lumiflux-gst-codecs module; ffprobe checks what they write.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include <nlohmann/json.hpp>

#include "test_paths.h"

namespace {

// The tool's exit status; its output in `out`, and its JSON records in `records` when given.
int tool(const std::string& arguments, std::string* out, std::vector<nlohmann::json>* records = nullptr)
{
    static const std::string prefix = [] {
        const std::string dir = lumiflux_test::freshDirectory("tool-codecs");
        std::filesystem::create_symlink(LUMIFLUX_GST_CODECS_MODULE, dir + "/lumiflux-gst-codecs.so");
        return "LUMIFLUX_NO_SYSLOG=0 LUMIFLUX_PLUGIN_DIR='" + dir + "' " LUMIFLUX_TOOL " ";
    }();
    const int status = lumiflux_test::runCommand(prefix + arguments, out);
    std::istringstream lines(*out);
    for (std::string line; records && std::getline(lines, line);)
        if (!line.empty())
            records->push_back(nlohmann::json::parse(line));
    return status;
}

TEST(CodecTool, ListsCodecsHardwareFirstWithParameters)
{
    std::string out;
    std::vector<nlohmann::json> list;
    ASSERT_EQ(tool("codecs --json", &out, &list), 0) << out;
    ASSERT_GE(list.size(), 10u) << out;
    EXPECT_TRUE(list.front()["hw"] == true &&
                std::is_partitioned(list.begin(), list.end(), [](const auto& c) { return c["hw"] == true; }))
        << "the stand-in hardware codecs first";
    const auto openh264 =
        std::find_if(list.begin(), list.end(), [](const auto& c) { return c["id"] == "gst.h264.openh264.enc"; });
    ASSERT_NE(openh264, list.end());
    nlohmann::json picked{{"parameter", (*openh264)["parameters"][0]}};
    for (const char* key : {"type", "direction", "hw", "maxSize", "minSize"})
        picked[key] = (*openh264)[key];
    EXPECT_EQ(picked.dump(), R"({"direction":"encoder","hw":false,"maxSize":[8192,4320],"minSize":[16,16],)"
                             R"("parameter":{"id":1,"name":"bit-rate","range":"16000-100000000","value":"2000000"},)"
                             R"("type":"h264"})");
    ASSERT_EQ(tool("codecs", &out), 0);
    EXPECT_NE(out.find("gst.vp8.vpx.dec\n    vp8 decoder, software"), std::string::npos) << out;
}

TEST(CodecTool, EncodesAndDecodesEveryFormatAndNamesFailures)
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
        std::vector<nlohmann::json> records;
        ASSERT_EQ(tool("encode " + input + " --size 320x240 -o " + path + json + " 2>&1", &out,
                       json.empty() ? nullptr : &records),
                  0)
            << out;
        // openh264's drain at the end of the stream used to print an error line.
        EXPECT_EQ(out.find("OpenH264"), std::string::npos) << out;
        EXPECT_TRUE(json.empty() ? out.find("wrote 40 frames") != std::string::npos : records.back()["framesOut"] == 40)
            << out;
        EXPECT_EQ(lumiflux_test::probeVideo(path), probed + ",40\n");
        records.clear();
        ASSERT_EQ(tool("decode " + path + " -o " + path + ".yuv" + json, &out, json.empty() ? nullptr : &records), 0)
            << out;
        EXPECT_TRUE(json.empty() || records.back()["frames"] == 40) << out;
        EXPECT_EQ(std::filesystem::file_size(path + ".yuv"), 40u * 320 * 240 * 3 / 2);
    }
    for (const auto& [arguments, error] : std::vector<std::pair<std::string, std::string>>{
             {"-c nosuch", "UnknownCodec"}, {"--size 12", "BadSize"}, {"--bitrate 5", "BadBitrate"}}) {
        EXPECT_EQ(tool("encode pattern " + arguments + " -o " + dir + "/x 2>&1", &out), 1) << arguments;
        EXPECT_NE(out.find(error), std::string::npos) << out;
    }
    std::ofstream(dir + "/g.h264") << "garbage\n";
    std::vector<nlohmann::json> records;
    EXPECT_EQ(tool("decode " + dir + "/g.h264 -o " + dir + "/g.yuv --json", &out, &records), 1);
    EXPECT_EQ(records.back()["error"], "BadInput") << out;
}

} // namespace
