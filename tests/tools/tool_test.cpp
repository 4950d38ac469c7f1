// The staged lumiflux tool as a user runs it: no LUMIFLUX_PLUGIN_DIR, so it
// finds its own plug-ins and sample beside itself.

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "test_paths.h"

namespace {

using nlohmann::json;
using Records = std::vector<json>;

const std::string kEnvironment = "env LUMIFLUX_NO_SYSLOG=1 PULSE_SERVER=unix:/nonexistent/lumiflux-test ";
const std::string kTool = "timeout -s KILL 90 " + kEnvironment + LUMIFLUX_STAGED_TOOL " ";
const std::string kSample = LUMIFLUX_STAGED_SAMPLE;

std::string tool(const std::string& arguments, int& status)
{
    std::string out;
    status = lumiflux_test::runCommand(kTool + arguments + " 2>&1", &out);
    return out;
}

Records toolJson(const std::string& arguments, int& status, const std::string& environment = "")
{
    std::string out;
    status = lumiflux_test::runCommand(environment + kTool + "--json " + arguments + " 2>/dev/null", &out);
    Records records;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        records.push_back(json::parse(line, nullptr, false));
        EXPECT_TRUE(records.back().is_object()) << "not one JSON object: " << line;
    }
    return records;
}

Records events(const Records& records, const std::string& name)
{
    Records found;
    std::copy_if(records.begin(), records.end(), std::back_inserter(found),
                 [&](const json& r) { return r.is_object() && r.value("event", "") == name; });
    return found;
}

json last(const Records& records, const std::string& name)
{
    const auto found = events(records, name);
    return found.empty() ? json() : found.back();
}

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

const char* const kSteps[] = {"plug-ins", "codecs", "cameras", "capture", "encode", "decode", "probe", "play"};

TEST(Tour, DefaultCommandRunsEveryStepToSuccess)
{
    int status = -1;
    const std::string out = tool("", status);
    EXPECT_EQ(status, 0) << out;
    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(has(out, "[" + std::to_string(i + 1) + "/8] " + kSteps[i] + ":")) << kSteps[i] << "\n" << out;
        EXPECT_TRUE(has(out, std::string("=> ok (") + kSteps[i] + ", exit status 0)")) << kSteps[i] << "\n" << out;
    }
    for (const char* part :
         {"lumiflux tour: plug-ins, codecs, cameras", "tour: 8 of 8 steps succeeded",
          "plug-in directory: ", "access units: 60, key frames: ", "played to the end", "tracks of file://"})
        EXPECT_TRUE(has(out, part)) << part << "\n" << out;
    for (const char* foreign : {"FAILED", "ALSA lib", "AL lib", "[OpenH264]", "Error"})
        EXPECT_FALSE(has(out, foreign)) << foreign << "\n" << out;
}

TEST(Play, SampleToTheEndWithItsTracksAtTwiceTheRate)
{
    int status = -1;
    const std::string out = tool("play " + kSample + " --rate 2", status);
    EXPECT_EQ(status, 0) << out;
    // The subtitle's language may come too late for this short sample (an open problem).
    for (const char* part : {"tracks of file://", "language en", "language de", "state Paused -> Playing"})
        EXPECT_TRUE(has(out, part)) << part << "\n" << out;
    EXPECT_FALSE(has(out, "\r")) << "not a terminal: no progress line";
    // The 3 s sample at rate 2 (at 1 it takes 3 s and more).
    std::smatch took;
    ASSERT_TRUE(std::regex_search(out, took, std::regex("played to the end: .* in ([0-9.]+) s"))) << out;
    EXPECT_LT(std::stod(took[1]), 2.4) << out;
    // No sound server here: one line says so, and the sound libraries say nothing.
    std::ifstream cards("/proc/asound/cards");
    std::string card;
    const bool noCard = !std::getline(cards, card) || has(card, "no soundcards");
    EXPECT_TRUE(!noCard || has(out, "no audio output: playing without sound\n")) << out;
    EXPECT_FALSE(has(out, "ALSA lib") || has(out, "AL lib")) << out;
}

TEST(Play, JsonTracksFramesLimitTrackChoiceAndSeek)
{
    int status = -1;
    auto records = toolJson("play " + kSample + " --mute --frames 10", status);
    EXPECT_EQ(status, 0);
    auto done = events(records, "done");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0]["reason"], "frames");
    EXPECT_TRUE(done[0]["frames"] >= 10 && done[0]["frames"] < 40) << done[0].dump();
    const auto media = events(records, "mediaInfo");
    ASSERT_FALSE(media.empty());
    std::multiset<std::string> types;
    std::set<std::string> languages; // a stream's language may come in a later track list
    int german = -1, video = -1;
    for (const json& info : media)
        for (const json& track : info["tracks"])
            languages.insert(track["language"].get<std::string>());
    for (const json& track : media.back()["tracks"]) {
        types.insert(track["type"].get<std::string>());
        german = track["language"] == "de" ? track["id"].get<int>() : german;
        video = track["type"] == "Video" ? track["id"].get<int>() : video;
    }
    EXPECT_EQ(types, (std::multiset<std::string>{"Audio", "Audio", "Subtitles", "Video"}));
    languages.erase("");
    EXPECT_TRUE(languages == (std::set<std::string>{"de", "en"}) ||
                languages == (std::set<std::string>{"de", "en", "fr"}));

    // The German audio track by id, from 2 s: about one second of the three played.
    ASSERT_GE(german, 0);
    ASSERT_GE(video, 0);
    records = toolJson("play " + kSample + " --mute --track " + std::to_string(video) + " --track " +
                           std::to_string(german) + " --seek 2",
                       status);
    EXPECT_EQ(status, 0);
    bool germanPlayed = false;
    for (const json& selected : events(records, "tracksSelected"))
        for (const json& id : selected["tracks"])
            germanPlayed = germanPlayed || id == german;
    EXPECT_TRUE(germanPlayed);
    done = events(records, "done");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0]["reason"], "eos");
    EXPECT_TRUE(done[0]["frames"] > 15 && done[0]["frames"] < 60) << done[0].dump();
    EXPECT_TRUE(done[0]["width"] == 320 && done[0]["height"] == 240) << done[0].dump();
    EXPECT_NEAR(done[0]["duration"].get<double>(), 3.0, 0.1);
    // To the end: 3 s at 30 frames per second, a few of them perhaps dropped late.
    done = events(toolJson("play " + kSample + " --mute", status), "done");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_TRUE(done[0]["frames"] >= 80 && done[0]["frames"] <= 90) << done[0].dump();
}

// Ctrl-C while playing, past the first end of the stream: the tool stops the
// player, tears it down, says so and exits at once with status 0.
TEST(Play, InterruptStopsPromptly)
{
    const std::string out = lumiflux_test::freshDirectory("interrupt") + "/out";
    std::string report;
    ASSERT_EQ(lumiflux_test::runCommand(
                  kEnvironment + LUMIFLUX_STAGED_TOOL " --json play " + kSample + " --mute --repeat > " + out +
                      " 2>/dev/null & pid=$!; for i in $(seq 1 300); do grep -q '\"to\":\"Playing\"' " + out +
                      " && break; sleep 0.1; done; sleep 4; start=$(date +%s%N); kill -INT $pid; "
                      "for i in $(seq 1 100); do kill -0 $pid 2>/dev/null || break; sleep 0.05; done; "
                      "end=$(date +%s%N); kill -KILL $pid 2>/dev/null; wait $pid; "
                      "echo \"$? $(( (end - start) / 1000000 ))\"",
                  &report),
              0);
    std::ifstream in(out);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    int status = -1, milliseconds = -1;
    std::istringstream(report) >> status >> milliseconds;
    EXPECT_EQ(status, 0) << "exit status (137: did not exit within 5 s)\n" << text;
    EXPECT_LT(milliseconds, 3000);
    EXPECT_TRUE(has(text, "\"to\":\"Playing\"") && has(text, "\"reason\":\"interrupted\"")) << text;
    EXPECT_FALSE(has(text, "\"reason\":\"eos\"")) << "stopped at the first end\n" << text;
}

json ffprobe(const std::string& arguments)
{
    std::string out;
    EXPECT_EQ(lumiflux_test::runCommand("ffprobe -v error -of json " + arguments + " 2>&1", &out), 0) << out;
    return json::parse(out, nullptr, false);
}

// ffprobe as the oracle: x264 (High, frame rate in the VUI) and openh264
// (Constrained Baseline, no timing), both 330x250, cropped from 336x256.
TEST(Probe, MatchesFfprobeOnGeneratedStreams)
{
    const std::string dir = lumiflux_test::freshDirectory("probe");
    const std::string raw = dir + "/raw.y4m", source = "gst-launch-1.0 -q videotestsrc num-buffers=50 pattern=ball ! ";
    for (auto [name, command] :
         {std::pair{"x264", source +
                                "video/x-raw,format=I420,width=330,height=250,framerate=25/1 ! y4menc ! "
                                "filesink location=" +
                                raw + " && x264 --quiet --keyint 12 --fps 25 " + raw + " -o "},
          {"openh264", source + "video/x-raw,width=330,height=250,framerate=25/1 ! openh264enc gop-size=10 ! "
                                "h264parse ! video/x-h264,stream-format=byte-stream ! filesink location="}}) {
        SCOPED_TRACE(name);
        const std::string stream = dir + "/" + name + ".h264";
        std::string log;
        ASSERT_EQ(lumiflux_test::runCommand(command + stream + " 2>&1", &log), 0) << log;
        const json ref = ffprobe("-count_frames -show_entries "
                                 "stream=width,height,profile,level,nb_read_frames,r_frame_rate " +
                                 stream)["streams"][0];
        int refKeys = 0;
        const json frames = ffprobe("-show_entries frame=key_frame " + stream)["frames"];
        for (const json& frame : frames)
            refKeys += frame["key_frame"].get<int>();
        int status = -1;
        const auto found = events(toolJson("probe " + stream, status), "stream");
        EXPECT_EQ(status, 0);
        ASSERT_EQ(found.size(), 1u);
        const json& ours = found[0];
        EXPECT_TRUE(ours["displayWidth"] == ref["width"] && ours["displayHeight"] == ref["height"]) << ours.dump();
        EXPECT_TRUE(ours["codedWidth"] == 336 && ours["codedHeight"] == 256) << ours.dump();
        EXPECT_TRUE(ours["level"] == ref["level"] && ours["profileName"] == ref["profile"]) << ours.dump();
        EXPECT_EQ(std::to_string(ours["accessUnits"].get<int>()), ref["nb_read_frames"].get<std::string>());
        EXPECT_GE(refKeys, 1);
        EXPECT_EQ(ours["keyFrames"], refKeys);
        // ffprobe assumes a rate where the stream carries none.
        if (std::string(name) == "x264")
            EXPECT_EQ(std::to_string(ours["frameRateNumerator"].get<int>()) + "/" +
                          std::to_string(ours["frameRateDenominator"].get<int>()),
                      ref["r_frame_rate"]);
        else
            EXPECT_EQ(ours["frameRateDenominator"], 0);
    }
}

TEST(Json, EveryCommandWritesOnlyJsonObjects)
{
    const std::string dir = lumiflux_test::freshDirectory("json");
    for (const std::string& arguments :
         {std::string("plugins"), std::string("codecs"), std::string("cameras"), std::string("tour"),
          "encode pattern -c h264 --frames 5 -o " + dir + "/p.h264", "decode " + dir + "/p.h264 -o " + dir + "/p.yuv",
          "probe " + dir + "/p.h264", "encode pattern -c vp8 --frames 5 -o " + dir + "/p.ivf"}) {
        int status = -1;
        const auto records = toolJson(arguments, status);
        std::string said;
        for (const json& record : records)
            said += record.dump() + "\n";
        EXPECT_EQ(status, 0) << arguments << "\n" << said;
        EXPECT_FALSE(records.empty()) << arguments;
        for (const json& record : records)
            EXPECT_TRUE(record.contains("event")) << arguments << ": " << record.dump();
    }
    int status = -1;
    const json finished = last(toolJson("capture 0 --frames 2", status, "LUMIFLUX_TEST_CAMERAS=1 "), "finished");
    EXPECT_EQ(finished["frames"], 2);
    EXPECT_GT(finished.value("measuredFrameRate", 0.0), 0.0) << finished.dump();
}

// On a terminal the encoder shows its progress; the pattern is a smooth gradient from the very first column.
TEST(Json, EncodePatternOnATerminal)
{
    const std::string dir = lumiflux_test::freshDirectory("encode"), stream = dir + "/p.h264";
    std::string out;
    ASSERT_EQ(lumiflux_test::runCommand(
                  "script -qec '" + kTool + "encode pattern -c h264 --frames 3 -o " + stream + "' /dev/null", &out),
              0)
        << out;
    std::string progress;
    const std::regex frame("frame ([0-9]+/[0-9]+)");
    for (std::sregex_iterator i(out.begin(), out.end(), frame), end; i != end; ++i)
        progress = (*i)[1];
    EXPECT_EQ(progress, "3/3") << out;
    ASSERT_EQ(lumiflux_test::runCommand("ffmpeg -v error -i " + stream +
                                            " -frames:v 1 -f rawvideo -pix_fmt yuv420p -y " + dir + "/p.yuv 2>&1",
                                        &out),
              0)
        << out;
    std::ifstream in(dir + "/p.yuv", std::ios::binary);
    const std::string yuv((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(yuv.size(), 640u * 480 * 3 / 2);
    for (auto [offset, width, height] :
         {std::tuple{0, 640, 480}, {640 * 480, 320, 240}, {640 * 480 * 5 / 4, 320, 240}}) {
        int step = 0;
        for (int row = 0; row < height; ++row)
            step += std::abs(static_cast<unsigned char>(yuv[offset + row * width]) -
                             static_cast<unsigned char>(yuv[offset + row * width + 1]));
        EXPECT_LT(step / height, 6) << "plane at " << offset;
    }
}

TEST(Failures, NamedWithTheirErrorAndAsAJsonRecord)
{
    const struct {
        std::string arguments;
        int status; // -1: any failure
        const char* text;
    } cases[] = {{"play /nonexistent/lumiflux/missing.mkv", -1, "lumiflux: NotFound: "},
                 {"play " + kSample + " -H NoColon", 2, "BadArgument"},
                 {"play " + kSample + " -H \"$(printf 'X: a\\rb')\"", 2,
                  "-H 'X: a\\rb': a header cannot hold CR, LF or NUL; refused"},
                 {"play " + kSample + " --rate 0", 2, "--rate takes a number above 0, not 0"},
                 {"play " + kSample + " --rate -1.5", 2, "--rate takes a number above 0, not -1.5"},
                 {"play " + kSample + " --frames 3 --no-video-sink", 2, ""},
                 {"play", -1, ""},
                 {"probe " + kSample, 1, "ParseError"}};
    for (const auto& c : cases) {
        int status = -1;
        const std::string out = tool(c.arguments, status);
        EXPECT_TRUE(c.status < 0 ? status != 0 : status == c.status) << c.arguments << ": " << status;
        EXPECT_TRUE(has(out, c.text)) << c.arguments << "\n" << out;
    }
    // The player may report several errors; the first names the cause.
    for (auto [arguments, name] : {std::pair{"play /nonexistent/lumiflux/missing.mkv", "NotFound"},
                                   {"decode /nonexistent.h264 -o /dev/null", "InputNotFound"}}) {
        int status = 0;
        const auto errors = events(toolJson(arguments, status), "error");
        EXPECT_NE(status, 0);
        ASSERT_FALSE(errors.empty()) << arguments;
        EXPECT_TRUE(errors.size() == 1u || std::string(name) == "NotFound") << arguments;
        EXPECT_EQ(errors[0]["error"], name) << arguments;
        EXPECT_FALSE(errors[0]["message"].get<std::string>().empty());
    }
}

} // namespace
