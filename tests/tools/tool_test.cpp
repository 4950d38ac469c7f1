// The staged lumiflux tool as a user runs it: no LUMIFLUX_PLUGIN_DIR, so it
// finds its own plug-ins and sample beside itself.

#include <cstdlib>
#include <filesystem>
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
    int german = -1, video = -1;
    for (const json& track : media.back()["tracks"]) { // the last list: a language may come only in a later one
        types.insert(track["type"].get<std::string>());
        german = track["language"] == "de" ? track["id"].get<int>() : german;
        video = track["type"] == "Video" ? track["id"].get<int>() : video;
    }
    EXPECT_EQ(types, (std::multiset<std::string>{"Audio", "Audio", "Subtitles", "Video"}));

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
    // To the end at rate 1 (a rate change shows the current frame again): at most the file's 90 frames.
    done = events(toolJson("play " + kSample + " --mute", status), "done");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_TRUE(done[0]["frames"] >= 80 && done[0]["frames"] <= 90) << done[0].dump();
}

// Ctrl-C while playing, past the first end of the stream: the tool stops the player, tears it down, says so and
// exits with status 0 at once (3 s later timeout kills it: status 137).
TEST(Play, InterruptStopsPromptly)
{
    std::string out;
    const int status =
        lumiflux_test::runCommand("timeout --preserve-status -s INT -k 3 6 " + kEnvironment +
                                      LUMIFLUX_STAGED_TOOL " --json play " + kSample + " --mute --repeat 2>/dev/null",
                                  &out);
    EXPECT_EQ(status, 0) << out;
    EXPECT_TRUE(has(out, "\"to\":\"Playing\"") && has(out, "\"reason\":\"interrupted\"")) << out;
    EXPECT_FALSE(has(out, "\"reason\":\"eos\"")) << "stopped at the first end\n" << out;
}

json ffprobe(const std::string& arguments)
{
    std::string out;
    EXPECT_EQ(lumiflux_test::runCommand("ffprobe -v error -of json " + arguments + " 2>&1", &out), 0) << out;
    return json::parse(out, nullptr, false);
}

// ffprobe as the oracle on 50 frames of x264 (High, a frame rate in the VUI), 330x250 cropped from 336x256.
TEST(Probe, MatchesFfprobeUnitByUnit)
{
    const std::string stream = lumiflux_test::freshDirectory("probe") + "/x264.h264";
    std::string log;
    ASSERT_EQ(
        lumiflux_test::runCommand("ffmpeg -nostdin -v error -f lavfi -i testsrc=size=330x250:rate=25 -frames:v 50 "
                                  "-pix_fmt yuv420p -c:v libx264 -g 12 -f h264 -y " +
                                      stream + " 2>&1",
                                  &log),
        0)
        << log;
    const json ref = ffprobe("-show_entries stream=width,height,profile,level,r_frame_rate " + stream)["streams"][0];
    std::string refKeys, keys; // a character per access unit in stream order: K for a key frame
    const json packets = ffprobe("-show_entries packet=flags " + stream)["packets"];
    for (const json& packet : packets)
        refKeys += packet["flags"].get<std::string>().find('K') != std::string::npos ? 'K' : '.';
    int status = -1;
    const auto records = toolJson("probe --units " + stream, status);
    EXPECT_EQ(status, 0);
    const json ours = events(records, "stream").at(0);
    EXPECT_TRUE(ours["displayWidth"] == ref["width"] && ours["displayHeight"] == ref["height"]) << ours.dump();
    EXPECT_TRUE(ours["codedWidth"] == 336 && ours["codedHeight"] == 256) << ours.dump();
    EXPECT_TRUE(ours["level"] == ref["level"] && ours["profileName"] == ref["profile"]) << ours.dump();
    EXPECT_EQ(std::to_string(ours["frameRateNumerator"].get<int>()) + "/" +
                  std::to_string(ours["frameRateDenominator"].get<int>()),
              ref["r_frame_rate"]);
    std::uint64_t end = 0; // the units lie back to back up to the end of the file
    for (const json& unit : events(records, "accessUnit")) {
        EXPECT_EQ(unit["offset"], end);
        end += unit["size"].get<std::uint64_t>();
        keys += unit["keyFrame"].get<bool>() ? 'K' : '.';
    }
    EXPECT_EQ(end, std::filesystem::file_size(stream));
    EXPECT_EQ(keys, refKeys);
    EXPECT_TRUE(ours["accessUnits"] == keys.size() && ours["keyFrames"] == std::count(keys.begin(), keys.end(), 'K'))
        << ours.dump();
}

// Every JSON run of the tool here is read record by record (toolJson); the shortest capture still has a rate.
TEST(Json, ATwoFrameCaptureReportsItsRate)
{
    int status = -1;
    const json finished =
        events(toolJson("capture 0 --frames 2", status, "LUMIFLUX_TEST_CAMERAS=1 "), "finished").at(0);
    EXPECT_EQ(status, 0);
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
