// The installed lumiflux tool, run as a user would from a fresh staged
// installation (tests/tools/stage_install.sh): no LUMIFLUX_PLUGIN_DIR, so the
// tool has to find its own plug-ins and sample beside itself.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "test_paths.h"

extern char** environ;

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

// Messages on standard error, and audio to no sound server, so that the
// tool behaves the same on any machine. A run that hangs is killed, so that
// it fails its test instead of stalling the suite.
const std::string kEnvironment =
    "timeout -s KILL 90 env LUMIFLUX_NO_SYSLOG=1 PULSE_SERVER=unix:/nonexistent/lumiflux-test ";
const std::string kEnvironmentNoTimeout = "env LUMIFLUX_NO_SYSLOG=1 PULSE_SERVER=unix:/nonexistent/lumiflux-test ";

struct ToolRun {
    int status = -1;
    std::string output;
};

// Runs the staged tool with standard error merged into the output.
ToolRun tool(const std::string& arguments)
{
    ToolRun run;
    run.status = lumiflux_test::runCommand(kEnvironment + LUMIFLUX_STAGED_TOOL " " + arguments + " 2>&1", &run.output);
    return run;
}

// Runs the staged tool with --json; standard error apart, so that every line
// of the output must parse.
std::vector<json> toolJson(const std::string& arguments, int* status)
{
    std::string out;
    *status =
        lumiflux_test::runCommand(kEnvironment + LUMIFLUX_STAGED_TOOL " --json " + arguments + " 2>/dev/null", &out);
    std::vector<json> records;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        json record = json::parse(line, nullptr, false);
        EXPECT_FALSE(record.is_discarded()) << "not one JSON object: " << line;
        if (!record.is_discarded()) {
            EXPECT_TRUE(record.is_object()) << line;
            records.push_back(record);
        }
    }
    return records;
}

std::vector<json> events(const std::vector<json>& records, const std::string& name)
{
    std::vector<json> found;
    for (const json& record : records)
        if (record.value("event", "") == name)
            found.push_back(record);
    return found;
}

// --- the tour ---

const char* const kSteps[] = {"plug-ins", "codecs", "cameras", "capture", "encode", "decode", "probe", "play"};

TEST(Tour, DefaultCommandRunsEveryStepToSuccess)
{
    // No command at all: what a new user types first.
    const ToolRun run = tool("");
    EXPECT_EQ(run.status, 0) << run.output;
    int index = 0;
    for (const char* step : kSteps) {
        ++index;
        const std::string heading = "[" + std::to_string(index) + "/8] " + step + ":";
        EXPECT_NE(run.output.find(heading), std::string::npos) << heading << "\n" << run.output;
        EXPECT_NE(run.output.find(std::string("=> ok (") + step + ", exit status 0)"), std::string::npos)
            << step << "\n"
            << run.output;
    }
    EXPECT_NE(run.output.find("tour: 8 of 8 steps succeeded"), std::string::npos) << run.output;
    // Each step shows its result, not just its heading.
    EXPECT_NE(run.output.find("plug-in directory: "), std::string::npos);
    EXPECT_NE(run.output.find("access units: 60, key frames: "), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("played to the end"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("tracks of file://"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("FAILED"), std::string::npos) << run.output;
}

TEST(Tour, JsonCarriesEachStepsFacts)
{
    int status = -1;
    const auto records = toolJson("tour", &status);
    EXPECT_EQ(status, 0);
    const auto steps = events(records, "step");
    ASSERT_EQ(steps.size(), 8u);
    for (std::size_t i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(steps[i]["step"], kSteps[i]);
        EXPECT_EQ(steps[i]["ok"], true) << steps[i].dump();
    }
    const auto summary = events(records, "summary");
    ASSERT_EQ(summary.size(), 1u);
    EXPECT_EQ(summary[0]["succeeded"], 8);
    EXPECT_EQ(summary[0]["ok"], true);

    // The same facts as the human output, from the commands the tour ran.
    EXPECT_FALSE(events(records, "module").empty());
    EXPECT_FALSE(events(records, "codec").empty());
    EXPECT_FALSE(events(records, "camera").empty());
    const auto stream = events(records, "stream");
    ASSERT_EQ(stream.size(), 1u);
    EXPECT_EQ(stream[0]["displayWidth"], 640);
    EXPECT_EQ(stream[0]["displayHeight"], 480);
    EXPECT_EQ(stream[0]["accessUnits"], 60);
    const auto media = events(records, "mediaInfo");
    ASSERT_FALSE(media.empty());
    EXPECT_EQ(media.back()["tracks"].size(), 4u);
    const auto done = events(records, "done");
    ASSERT_FALSE(done.empty());
    EXPECT_EQ(done.back()["reason"], "eos");
}

// --- play ---

TEST(Play, SampleToTheEndWithItsTracks)
{
    const ToolRun run = tool("play " LUMIFLUX_STAGED_SAMPLE " --mute");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("tracks of file://"), std::string::npos) << run.output;
    // The subtitle stream's language tag does not always reach the player
    // before the end of this short sample (an open problem of the player's
    // track list); the audio languages always do.
    for (const char* language : {"language en", "language de"})
        EXPECT_NE(run.output.find(language), std::string::npos) << language << "\n" << run.output;
    EXPECT_NE(run.output.find("state Paused -> Playing"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("played to the end"), std::string::npos) << run.output;
    // Not a terminal: no progress line.
    EXPECT_EQ(run.output.find('\r'), std::string::npos);
}

TEST(Play, JsonTracksStatesAndFrames)
{
    int status = -1;
    const auto records = toolJson("play " LUMIFLUX_STAGED_SAMPLE " --mute", &status);
    EXPECT_EQ(status, 0);
    const auto media = events(records, "mediaInfo");
    ASSERT_FALSE(media.empty());
    const json& tracks = media.back()["tracks"];
    ASSERT_EQ(tracks.size(), 4u);
    std::multiset<std::string> types;
    for (const json& track : tracks)
        types.insert(track["type"].get<std::string>());
    // A stream's language tag may reach the player in a later collection
    // than the stream itself: the tool prints the list again each time, so
    // the languages are those of every list printed, as a reader sees them.
    std::set<std::string> languages;
    for (const json& info : media)
        for (const json& track : info["tracks"])
            if (!track["language"].get<std::string>().empty())
                languages.insert(track["language"].get<std::string>());
    EXPECT_EQ(types.count("Video"), 1u);
    EXPECT_EQ(types.count("Audio"), 2u);
    EXPECT_EQ(types.count("Subtitles"), 1u);
    EXPECT_TRUE(languages.count("en") && languages.count("de")) << media.back().dump();
    // See SampleToTheEndWithItsTracks for the subtitle's language.
    EXPECT_TRUE(languages.size() == 2 || (languages.size() == 3 && languages.count("fr"))) << media.back().dump();

    bool playing = false;
    for (const json& state : events(records, "state"))
        playing = playing || state["to"] == "Playing";
    EXPECT_TRUE(playing);
    const auto done = events(records, "done");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0]["reason"], "eos");
    // 3 s at 30 frames per second; a few may be dropped late.
    EXPECT_GE(done[0]["frames"].get<int>(), 80);
    EXPECT_LE(done[0]["frames"].get<int>(), 90);
    EXPECT_EQ(done[0]["width"], 320);
    EXPECT_EQ(done[0]["height"], 240);
    EXPECT_NEAR(done[0]["duration"].get<double>(), 3.0, 0.1);
}

TEST(Play, FramesLimitTrackChoiceAndSeek)
{
    int status = -1;
    auto records = toolJson("play " LUMIFLUX_STAGED_SAMPLE " --mute --frames 10", &status);
    EXPECT_EQ(status, 0);
    auto done = events(records, "done");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0]["reason"], "frames");
    EXPECT_GE(done[0]["frames"].get<int>(), 10);
    EXPECT_LT(done[0]["frames"].get<int>(), 40);

    // The German audio track by id, found in the track list.
    records = toolJson("play " LUMIFLUX_STAGED_SAMPLE " --mute --frames 1", &status);
    int german = -1;
    int video = -1;
    for (const json& media : events(records, "mediaInfo"))
        for (const json& track : media["tracks"]) {
            if (track["language"] == "de")
                german = track["id"];
            if (track["type"] == "Video")
                video = track["id"];
        }
    ASSERT_GE(german, 0);
    ASSERT_GE(video, 0);
    records = toolJson("play " LUMIFLUX_STAGED_SAMPLE " --mute --track " + std::to_string(video) + " --track " +
                           std::to_string(german) + " --seek 2",
                       &status);
    EXPECT_EQ(status, 0);
    bool germanPlayed = false;
    for (const json& selected : events(records, "tracksSelected"))
        for (const json& id : selected["tracks"])
            germanPlayed = germanPlayed || id == german;
    EXPECT_TRUE(germanPlayed);
    done = events(records, "done");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0]["reason"], "eos");
    // Started at 2 s: about one second of the three played.
    EXPECT_LT(done[0]["frames"].get<int>(), 60);
}

TEST(Play, MissingFileFailsWithNotFound)
{
    const ToolRun run = tool("play /nonexistent/lumiflux/missing.mkv");
    EXPECT_NE(run.status, 0);
    EXPECT_NE(run.output.find("lumiflux: NotFound: "), std::string::npos) << run.output;

    int status = 0;
    const auto records = toolJson("play /nonexistent/lumiflux/missing.mkv", &status);
    EXPECT_NE(status, 0);
    const auto errors = events(records, "error");
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors[0]["error"], "NotFound");
    EXPECT_FALSE(errors[0]["message"].get<std::string>().empty());
}

TEST(Play, BadArgumentsAreRefused)
{
    ToolRun run = tool("play " LUMIFLUX_STAGED_SAMPLE " -H NoColon");
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.output.find("BadArgument"), std::string::npos) << run.output;
    run = tool("play " LUMIFLUX_STAGED_SAMPLE " --frames 3 --no-video-sink");
    EXPECT_EQ(run.status, 2);
    run = tool("play");
    EXPECT_NE(run.status, 0);
}

// Ctrl-C while playing: the tool stops the player, tears it down, says so
// and exits at once with status 0.
TEST(Play, InterruptStopsPromptly)
{
    const std::string command =
        kEnvironmentNoTimeout + LUMIFLUX_STAGED_TOOL " --json play " LUMIFLUX_STAGED_SAMPLE " --mute --repeat";
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    // exec, so that the signal reaches the tool and not a shell.
    const std::string shell = "exec " + command;
    const char* argv[] = {"/bin/sh", "-c", shell.c_str(), nullptr};
    pid_t child = -1;
    ASSERT_EQ(posix_spawn(&child, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);

    // Reads what is there, up to `until`.
    std::string out;
    const auto readFor = [&](Clock::time_point until, const std::string& wanted) {
        char chunk[4096];
        while (Clock::now() < until && out.find(wanted) == std::string::npos) {
            pollfd fd{pipeFds[0], POLLIN, 0};
            if (poll(&fd, 1, 100) <= 0)
                continue;
            const ssize_t n = read(pipeFds[0], chunk, sizeof chunk);
            if (n <= 0)
                break;
            out.append(chunk, static_cast<std::size_t>(n));
        }
    };
    readFor(Clock::now() + std::chrono::seconds(30), "\"to\":\"Playing\"");
    ASSERT_NE(out.find("\"to\":\"Playing\""), std::string::npos) << out;
    // Playing past the first end of the stream, so repetition is under way.
    readFor(Clock::now() + std::chrono::seconds(4), "never");

    const auto sent = Clock::now();
    ASSERT_EQ(kill(child, SIGINT), 0);
    readFor(sent + std::chrono::seconds(10), "\"reason\":\"interrupted\"");
    int status = 0;
    pid_t waited = 0;
    while ((waited = waitpid(child, &status, WNOHANG)) == 0 && Clock::now() < sent + std::chrono::seconds(10))
        usleep(20000);
    const auto took = Clock::now() - sent;
    if (waited == 0) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        FAIL() << "the tool did not exit within 10 s of SIGINT\n" << out;
    }
    close(pipeFds[0]);
    EXPECT_LT(took, std::chrono::seconds(3));
    ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(out.find("\"reason\":\"interrupted\""), std::string::npos) << out;
    // Played past the first end without stopping there.
    EXPECT_EQ(out.find("\"reason\":\"eos\""), std::string::npos) << out;
}

// --- probe against ffprobe ---

json ffprobe(const std::string& arguments)
{
    std::string out;
    const int status = lumiflux_test::runCommand("ffprobe -v error -of json " + arguments + " 2>&1", &out);
    EXPECT_EQ(status, 0) << "ffprobe (scripts/install-deps installs it) failed: " << out;
    return json::parse(out, nullptr, false);
}

// Two streams from two encoders: x264 (High profile, with the frame rate in
// its VUI) and openh264 (Constrained Baseline, no timing information), both
// at 330x250, which needs cropping from the coded 336x256.
struct GeneratedStream {
    std::string name;
    std::string command; ///< writes the stream to the path appended
};

std::vector<GeneratedStream> generatedStreams(const std::string& dir)
{
    const std::string raw = dir + "/raw.y4m";
    return {
        {"x264", "gst-launch-1.0 -q videotestsrc num-buffers=50 pattern=ball ! "
                 "video/x-raw,format=I420,width=330,height=250,framerate=25/1 ! y4menc ! filesink location=" +
                     raw + " && x264 --quiet --keyint 12 --fps 25 " + raw + " -o "},
        {"openh264", "gst-launch-1.0 -q videotestsrc num-buffers=50 pattern=ball ! "
                     "video/x-raw,width=330,height=250,framerate=25/1 ! openh264enc gop-size=10 ! h264parse ! "
                     "video/x-h264,stream-format=byte-stream ! filesink location="},
    };
}

TEST(Probe, MatchesFfprobeOnGeneratedStreams)
{
    const std::string dir = lumiflux_test::freshDirectory("probe");
    for (const GeneratedStream& generated : generatedStreams(dir)) {
        SCOPED_TRACE(generated.name);
        const std::string stream = dir + "/" + generated.name + ".h264";
        std::string log;
        ASSERT_EQ(lumiflux_test::runCommand(generated.command + stream + " 2>&1", &log), 0)
            << "(gst-launch-1.0, x264 and openh264enc come with scripts/install-deps) " << log;

        const json reference = ffprobe(
            "-count_frames -show_entries stream=width,height,profile,level,nb_read_frames,r_frame_rate " + stream);
        ASSERT_TRUE(reference.is_object());
        const json& ref = reference["streams"][0];
        const json keyFrames = ffprobe("-show_entries frame=key_frame " + stream);
        int refKeys = 0;
        for (const json& frame : keyFrames["frames"])
            refKeys += frame["key_frame"].get<int>();
        EXPECT_GE(refKeys, 1);

        int status = -1;
        const auto records = toolJson("probe " + stream, &status);
        EXPECT_EQ(status, 0);
        const auto found = events(records, "stream");
        ASSERT_EQ(found.size(), 1u);
        const json& ours = found[0];
        EXPECT_EQ(ours["displayWidth"], ref["width"]);
        EXPECT_EQ(ours["displayHeight"], ref["height"]);
        EXPECT_EQ(ours["displayWidth"], 330);
        EXPECT_EQ(ours["codedWidth"], 336);
        EXPECT_EQ(ours["codedHeight"], 256);
        EXPECT_EQ(ours["level"], ref["level"]);
        EXPECT_EQ(ours["profileName"], ref["profile"]);
        EXPECT_EQ(std::to_string(ours["accessUnits"].get<int>()), ref["nb_read_frames"].get<std::string>());
        EXPECT_EQ(ours["keyFrames"], refKeys);
        // Without timing information in the stream ffprobe assumes a rate;
        // the stream only carries one where the encoder wrote it.
        if (generated.name == "x264")
            EXPECT_EQ(std::to_string(ours["frameRateNumerator"].get<int>()) + "/" +
                          std::to_string(ours["frameRateDenominator"].get<int>()),
                      ref["r_frame_rate"]);
        else
            EXPECT_EQ(ours["frameRateDenominator"], 0);

        // The human form says the same.
        const ToolRun run = tool("probe " + stream);
        EXPECT_EQ(run.status, 0);
        EXPECT_NE(run.output.find("display 330x250"), std::string::npos) << run.output;
        EXPECT_NE(run.output.find("profile " + ref["profile"].get<std::string>() + " ("), std::string::npos)
            << run.output;
        EXPECT_NE(run.output.find("access units: " + ref["nb_read_frames"].get<std::string>() +
                                  ", key frames: " + std::to_string(refKeys)),
                  std::string::npos)
            << run.output;
    }
}

TEST(Probe, NotAStreamFails)
{
    const ToolRun run = tool("probe " LUMIFLUX_STAGED_SAMPLE);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("ParseError"), std::string::npos) << run.output;
}

// --- --json everywhere ---

TEST(Json, EveryCommandWritesOnlyJsonObjects)
{
    const std::string dir = lumiflux_test::freshDirectory("json");
    int status = -1;
    for (const std::string& arguments :
         {std::string("plugins"), std::string("codecs"), std::string("cameras"),
          "encode pattern -c h264 --frames 5 -o " + dir + "/p.h264", "decode " + dir + "/p.h264 -o " + dir + "/p.yuv",
          "probe " + dir + "/p.h264", "encode pattern -c vp8 --frames 5 -o " + dir + "/p.ivf"}) {
        const auto records = toolJson(arguments, &status);
        EXPECT_EQ(status, 0) << arguments;
        EXPECT_FALSE(records.empty()) << arguments;
        for (const json& record : records)
            EXPECT_TRUE(record.contains("event")) << arguments << ": " << record.dump();
    }
    // A failure is a record too.
    const auto records = toolJson("decode /nonexistent.h264 -o " + dir + "/x.yuv", &status);
    EXPECT_NE(status, 0);
    ASSERT_EQ(events(records, "error").size(), 1u);
}

} // namespace
