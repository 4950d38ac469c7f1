// The player on real playbin3 pipelines playing media made at test time.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <memory>
#include <numeric>
#include <thread>

#include <gtest/gtest.h>

#include <lumiflux/gst_graphic_buffer.h>

#include "recording_listener.h"
#include "syslog_capture.h"
#include "watchdog.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class PlayerPlayback : public ::testing::Test, protected ListenedPlayer {};

TEST_F(PlayerPlayback, StatesPositionsSeeksSettingsAndGetters)
{
    player.setUri(mediaUri("media.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    ASSERT_TRUE(listener.waitFor([&] { return !listener.mediaInfos.empty(); }));
    // Nothing may start playback now that the tracks are known.
    EXPECT_FALSE(listener.waitForState(PlayerState::Playing, 1500ms));
    EXPECT_EQ(listener.snapshot(listener.states), std::vector<PlayerState>{PlayerState::Paused});
    // Stop resets mute, repeat and rate; with no pipeline, transport calls report nothing.
    player.setMute(true), player.setAutoRepeat(true), player.setPlaybackRate(2.0);
    ASSERT_TRUE(player.getMute() && player.getAutoRepeat() && player.getPlaybackRate() == 2.0);
    player.stop();
    ASSERT_TRUE(listener.drain(player));
    EXPECT_EQ(player.getState(), PlayerState::Empty);
    EXPECT_FALSE(player.getMute() || player.getAutoRepeat());
    EXPECT_EQ(player.getPlaybackRate(), 1.0);
    listener.clear();
    player.play(), player.pause(), player.seek(1s);
    ASSERT_TRUE(listener.drain(player));
    EXPECT_EQ(listener.snapshot(listener.errors).size(), 1u);
    EXPECT_TRUE(listener.snapshot(listener.states).empty());

    // An absolute path is played as its file:// URI, to its end.
    ASSERT_TRUE(playsToEnd(mediaDir() + "/media.mkv"));
    EXPECT_EQ(player.getMediaInfo().uri(), mediaUri("media.mkv"));
    EXPECT_EQ(listener.snapshot(listener.states),
              (std::vector<PlayerState>{PlayerState::Paused, PlayerState::Playing, PlayerState::EOS}));
    const auto positions = listener.snapshot(listener.positions);
    const auto inStates = listener.snapshot(listener.positionStates);
    EXPECT_TRUE(std::is_sorted(positions.begin(), positions.end()));
    EXPECT_GE(std::count(inStates.begin(), inStates.end(), PlayerState::Playing), 5);
    EXPECT_GT(positions.back(), 2500ms);
    // The duration, from discovery and from the bus, is reported once per value.
    const auto durations = listener.snapshot(listener.durations);
    ASSERT_FALSE(durations.empty());
    EXPECT_EQ(std::adjacent_find(durations.begin(), durations.end()), durations.end());
    for (auto d : durations)
        EXPECT_NEAR(std::chrono::duration<double>(d).count(), 3.0, 0.15);

    // Paused after the end: no positions, and the getters say what the callbacks said.
    player.seek(0us), player.play();
    ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    ASSERT_TRUE(listener.drain(player));
    const size_t atPause = listener.snapshot(listener.positions).size();
    EXPECT_FALSE(listener.waitFor([&] { return listener.positions.size() > atPause; }, 700ms));
    EXPECT_EQ(player.getPosition(), listener.snapshot(listener.positions).back());
    EXPECT_EQ(player.getDuration(), listener.snapshot(listener.durations).back());
    EXPECT_EQ(player.getState(), PlayerState::Paused);

    // The first position while playing after a seek is where it was asked;
    // with auto-repeat the medium then starts over with no EOS or pause.
    player.seek(2s), player.play(), player.setAutoRepeat(true);
    size_t first = atPause;
    ASSERT_TRUE(listener.waitFor([&] {
        while (first < listener.positions.size() && listener.positionStates[first] != PlayerState::Playing)
            ++first;
        return first < listener.positions.size();
    }));
    const auto landed = listener.snapshot(listener.positions)[first];
    EXPECT_TRUE(landed >= 1950ms && landed < 2600ms) << landed.count();
    ASSERT_TRUE(listener.waitFor([&] {
        return std::any_of(listener.positions.begin() + first, listener.positions.end(), [](auto p) { return p < 1s; });
    })) << "no restart";
    EXPECT_EQ(listener.snapshot(listener.states).back(), PlayerState::Playing);

    // Neither a URI nor an absolute path: refused at once, by name.
    player.setUri("clips/clip.mkv");
    ASSERT_TRUE(listener.waitFor([&] { return listener.errors.back().error == PlayerError::NotFound; }));
    EXPECT_EQ(listener.snapshot(listener.errors).back().message, "Not a URI or an absolute path: 'clips/clip.mkv'");
    EXPECT_EQ(player.getMediaInfo().uri(), "clips/clip.mkv");
}

TEST(PlayerQueue, CoalescesMuteAndRateButNotSeeksAndDestructionDropsQueuedTasks)
{
    HookedListener listener;
    auto player = std::make_unique<Player>();
    player->setListener(&listener);
    // Holds the player thread inside a failing selection's callback while the test queues tasks.
    std::atomic<bool> released{false};
    const auto hold = [&] {
        const size_t errors = listener.snapshot(listener.errors).size();
        released = false;
        listener.arm(
            OnError,
            [&] {
                for (int i = 0; i < 6000 && !released; ++i)
                    std::this_thread::sleep_for(10ms);
            },
            [&, errors] { return listener.errors.size() > errors; });
        player->selectTracks({});
        return listener.waitFor([&] { return listener.errors.size() > errors; });
    };
    // Released before the player's destructor joins its thread, however the test ends.
    std::shared_ptr<void> releaseOnExit(nullptr, [&](void*) { released = true; });
    ASSERT_TRUE(hold());
    clearSyslog();
    player->setMute(true), player->setMute(false), player->seek(1s), player->seek(2s);
    player->setPlaybackRate(1.0); // the current rate: nothing to do
    player->setPlaybackRate(0.5), player->setPlaybackRate(2.0);
    released = true;
    ASSERT_TRUE(listener.drain(*player));
    const auto count = [](const std::string& text) { return syslogRecordsContaining(text).size(); };
    EXPECT_EQ(count("addTask:"), 7u) << "every request is logged, dropped or not";
    EXPECT_EQ(count("AFTER task: ApplyMute\n"), 1u);
    // In queue order, each task bracketed by its BEFORE and AFTER lines.
    std::vector<std::string> order;
    for (const auto& record : syslogRecordsContaining("BEFORE task: "))
        order.push_back(record.text.substr(record.text.find("BEFORE task: ") + 13));
    EXPECT_EQ(order,
              (std::vector<std::string>{"ApplyMute\n", "Seek\n", "Seek\n", "ApplyPlaybackRate\n", "SelectTracks\n"}));
    const auto lines = syslogRecordsContaining("[lumiflux-player] ");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().text.rfind("0[lumiflux-player] addTask:", 0), 0u) << lines.front().text;

    // Held again, then destroyed with tasks queued: none of them runs.
    ASSERT_TRUE(hold());
    const size_t errors = listener.snapshot(listener.errors).size();
    clearSyslog();
    player->play(), player->seek(1s), player->setUri(mediaUri("missing.mkv"));
    auto destroyed = std::async(std::launch::async, [&] { player.reset(); });
    // Ordering only: the destructor's quit request, which outranks tasks, comes first.
    std::this_thread::sleep_for(300ms);
    released = true;
    destroyed.get();
    EXPECT_EQ(count("BEFORE task: "), 0u);
    EXPECT_EQ(listener.snapshot(listener.errors).size(), errors);
}

class PlayerMedia : public ::testing::Test, protected ListenedPlayer {
protected:
    std::vector<int> select(const std::vector<int>& ids)
    {
        const size_t before = listener.snapshot(listener.selections).size();
        player.selectTracks(ids);
        EXPECT_TRUE(listener.waitFor([&] { return listener.selections.size() > before; }));
        auto last = listener.snapshot(listener.selections).back();
        std::sort(last.begin(), last.end());
        return last;
    }
};

TEST_F(PlayerMedia, TrackListAndSelection)
{
    const std::string uri = mediaUri("media.mkv");
    clearSyslog();
    player.setUri(uri, {{"X-Test", "1"}}), player.pause();
    // The subtitle's language comes with its data: a later track list completes it.
    ASSERT_TRUE(listener.waitFor([&] {
        if (listener.mediaInfos.empty())
            return false;
        for (const auto& track : listener.mediaInfos.back().tracks())
            if (track.type() != TrackType::Video && track.lang().empty())
                return false;
        return true;
    })) << "no track list with every audio and subtitle language";
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    EXPECT_EQ(syslogRecordsContaining("Starting async src discovery:").size(), 1u) << "a file URI is discovered";
    const MediaInfo info = listener.snapshot(listener.mediaInfos).back();
    EXPECT_EQ(info.uri(), uri);
    EXPECT_EQ(info.httpHeaders(), (HttpHeaders{{"X-Test", "1"}}));
    // Identifiers are stream positions; titles count per type and carry the language.
    const std::vector<std::tuple<TrackType, std::string, std::string>> expected = {
        {TrackType::Video, "Video 1", ""},
        {TrackType::Audio, "Audio 1 (en)", "en"},
        {TrackType::Audio, "Audio 2 (de)", "de"},
        {TrackType::Subtitles, "Subtitles 1 (fr)", "fr"}};
    ASSERT_EQ(info.tracks().size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const TrackInfo& t = info.tracks()[i];
        EXPECT_EQ(std::tuple(t.id(), t.type(), t.name(), t.tag<std::string>("language-code", "")),
                  std::tuple_cat(std::tuple(static_cast<int>(i)), expected[i]));
    }
    EXPECT_NE(info.tracks()[0].codec().find("VP8"), std::string::npos) << info.tracks()[0].codec();
    EXPECT_TRUE(info.tracks()[0].flags() & TrackInfo::FlagSelectedByDefault);

    // Streams switch while data flows: keep the short medium playing.
    player.play(), player.setAutoRepeat(true);
    ASSERT_TRUE(listener.waitFor([&] { return !listener.selections.empty(); }));
    const auto initial = listener.snapshot(listener.selections).back();
    EXPECT_NE(std::find(initial.begin(), initial.end(), 0), initial.end());
    // Two audio identifiers: only the first of them is selected; and back.
    EXPECT_EQ(select({0, 2, 1}), (std::vector<int>{0, 2}));
    EXPECT_EQ(select({1, 0, 2}), (std::vector<int>{0, 1}));
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
    // Exact texts: "Unknown track id: " cut short by the identifier, then the empty selection's.
    player.selectTracks({}), player.selectTracks({7}), player.selectTracks({5, 25});
    ASSERT_TRUE(listener.waitFor([&] { return listener.errors.size() >= 6; }));
    std::vector<std::string> messages;
    for (const auto& e : listener.snapshot(listener.errors)) {
        EXPECT_EQ(e.error, PlayerError::SelectTracksFailed);
        messages.push_back(e.message);
    }
    EXPECT_EQ(messages,
              (std::vector<std::string>{"Trying to select 0 streams", " track id: ", "Trying to select 0 streams",
                                        "wn track id: ", "", "Trying to select 0 streams"}));
}

TEST_F(PlayerMedia, BrokenMediaGiveTheirErrorAndThePlayerStaysUsable)
{
    int pipe[2]; // a local preroll that never ends: a pipe nobody writes to
    ASSERT_EQ(::pipe(pipe), 0);
    const struct {
        std::string uri;
        PlayerError expected;
        const char* message; // "": any
    } cases[] = {{mediaUri("no-such-file.mkv"), PlayerError::NotFound, ""},
                 {mediaUri("corrupt.mkv"), PlayerError::StreamFailed, ""},
                 {"fd://" + std::to_string(pipe[0]), PlayerError::StreamFailed, "Preroll did not complete"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.uri);
        listener.clear();
        player.play(c.uri), player.pause();
        ASSERT_TRUE(listener.waitFor([&] { return !listener.errors.empty(); }));
        const auto error = listener.snapshot(listener.errors).front();
        EXPECT_EQ(error.error, c.expected) << toString(error.error) << ": " << error.message;
        EXPECT_FALSE(error.message.empty());
        EXPECT_EQ(error.message.find(c.message), 0u) << error.message;
        player.stop();
        ASSERT_TRUE(listener.drain(player));
    }
    ::close(pipe[1]), ::close(pipe[0]);
    // A truncated file ends or fails, but never hangs.
    listener.clear();
    player.play(mediaUri("truncated.mkv")), player.pause();
    ASSERT_TRUE(listener.waitFor(
        [&] { return !listener.errors.empty() || listener.sawAfter(PlayerState::Paused, PlayerState::EOS); }));
    EXPECT_TRUE(playsToEnd(mediaUri("media.mkv")));
}

struct KeepingSink : VideoSink {
    void onFrame(const VideoFrame& frame, bool preroll) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        (preroll ? prerolls : frames).push_back(frame);
    }
    std::mutex mutex;
    std::vector<VideoFrame> frames, prerolls;
};

// fd:// plays without discovery; frames stay valid while held, even after
// the player is gone (which the AddressSanitizer build checks).
TEST(PlayerFrames, FdUriPlaysWithoutDiscoveryAndFramesOutliveThePlayer)
{
    const int fd = ::open((mediaDir() + "/media.mkv").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    KeepingSink sink;
    std::vector<VideoFrame> kept;
    std::shared_ptr<YCbCrFrame> view;
    {
        ListenedPlayer session;
        Player& player = session.player;
        EXPECT_TRUE(player.setVideoSink(&sink));
        clearSyslog();
        ASSERT_TRUE(session.playsToEnd("fd://" + std::to_string(fd)));
        EXPECT_EQ(player.getMediaInfo().tracks().size(), 4u);
        EXPECT_NEAR(std::chrono::duration<double>(player.getDuration()).count(), 3.0, 0.15);
        EXPECT_TRUE(syslogRecordsContaining("Starting async src discovery:").empty());
        EXPECT_FALSE(syslogRecordsContaining("uri: fd://").empty()) << "debug lines are captured in this scenario";
        player.reset();
        std::lock_guard<std::mutex> lock(sink.mutex);
        ASSERT_FALSE(sink.prerolls.empty());
        kept = sink.frames;
        // A view mapped while the player lives; the buffer behind it is dropped.
        view = kept.front().buffer->mapYCbCr();
        kept.front().buffer.reset();
    }
    ::close(fd);
    // 3 s at 30 frames per second, every frame delivered (the sink syncs, no QoS drops).
    ASSERT_GE(kept.size(), 85u);
    std::int64_t last = -1;
    for (const auto& frame : kept) {
        EXPECT_TRUE(frame.trackId == 0 && frame.format == fourcc('N', 'V', '1', '2') && frame.width == 320u &&
                    frame.height == 240u && frame.timestamp.count() > last);
        last = frame.timestamp.count();
    }
    // The pixels, now that the player, its pipeline and its factories are gone.
    ASSERT_TRUE(view && view->width == 320u && view->height == 240u);
    std::uint64_t luma = 0;
    for (unsigned row = 0; row < view->height; ++row)
        luma = std::accumulate(view->y + row * view->yStride, view->y + row * view->yStride + view->width, luma);
    EXPECT_GT(luma, 0u) << "the test pattern is not black";
    auto mapped = kept.back().buffer->mapFrame();
    ASSERT_TRUE(mapped && mapped->planes[0].data);
    EXPECT_EQ(mapped->fourcc, static_cast<std::uint32_t>(fourcc('N', 'V', '1', '2')));
}

// What an application may do from inside the player's callbacks; a watchdog names the case that deadlocks.
constexpr auto kCaseLimit = 40s;

TEST(PlayerCallbacks, CallsFromCallbacksAreQueuedAndThePlayerGoesOn)
{
    const std::pair<const char*, std::function<void(Player&)>> calls[] = {
        {"selectTracks({})", [](Player& p) { p.selectTracks({}); }},
        {"seek", [](Player& p) { p.seek(500ms); }},
        {"pause", [](Player& p) { p.pause(); }}};
    // Outlives the player: a case that fails leaves its destructor to hang.
    Watchdog whole("the re-entry cases and the player's teardown", 4 * kCaseLimit);
    HookedListener listener;
    Player player;
    player.setListener(&listener);
    {
        // Made while the pipeline still prerolls and adds its pads (it once hung there one time in five).
        Watchdog watchdog("selectTracks from onMediaInfo during the preroll", kCaseLimit);
        listener.arm(OnMediaInfo, [&] { player.selectTracks({0, 2}); });
        player.play(mediaUri("media.mkv")), player.pause();
        ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
        player.setAutoRepeat(true);
        ASSERT_TRUE(listener.waitFor([&] {
            const auto& s = listener.selections;
            return !s.empty() && std::find(s.back().begin(), s.back().end(), 2) != s.back().end();
        }));
    }
    for (Hook hook : {OnError, OnPosition, OnState}) {
        for (const auto& [callName, call] : calls) {
            const std::string name = std::string(callName) + " from " + kHookNames[hook];
            SCOPED_TRACE(name);
            Watchdog watchdog(name, kCaseLimit);
            // Playing again, whatever the case before left: positions move.
            const size_t positions = listener.snapshot(listener.positions).size();
            player.play();
            ASSERT_TRUE(listener.waitFor([&] { return listener.positions.size() > positions + 1; }));
            listener.arm(hook, [&player, &call = call] { call(player); });
            if (hook == OnError)
                player.selectTracks({}); // fails, on the player thread
            else if (hook == OnState)
                player.pause();
            ASSERT_TRUE(listener.waitForAction());
            EXPECT_TRUE(listener.drain(player));
        }
    }
    // Takes effect at once: the old listener hears nothing more.
    Watchdog watchdog("setListener from onError", kCaseLimit);
    RecordingListener next;
    listener.arm(OnError, [&] { player.setListener(&next); });
    player.selectTracks({});
    ASSERT_TRUE(listener.waitForAction());
    const size_t heard = listener.snapshot(listener.errors).size();
    EXPECT_TRUE(next.drain(player));
    EXPECT_EQ(listener.snapshot(listener.errors).size(), heard);
    player.setListener(nullptr);
}

TEST(PlayerCallbacks, APlayerDestroyedInsideItsCallbackLetsGoAtOnce)
{
    const std::string media = mediaUri("media.mkv");
    // Last, a pipeline error and an error the player thread reports itself.
    const std::pair<Hook, std::string> cases[] = {{OnState, media},
                                                  {OnPosition, media},
                                                  {OnMediaInfo, media},
                                                  {OnFrame, media},
                                                  {OnError, mediaUri("missing.mkv")},
                                                  {OnError, "relative/clip.mkv"}};
    for (const auto& [hook, uri] : cases) {
        const std::string name = std::string("destroyed from ") + kHookNames[hook] + " playing " + uri;
        SCOPED_TRACE(name);
        Watchdog watchdog(name, kCaseLimit);
        HookedListener listener;
        auto player = std::make_unique<Player>();
        std::mutex playerMutex;
        std::atomic<bool> destroyed{false};
        player->setListener(&listener), player->setVideoSink(&listener);
        listener.arm(hook, [&] {
            std::unique_lock<std::mutex> lock(playerMutex);
            std::unique_ptr<Player> last = std::move(player);
            lock.unlock(), last.reset(), destroyed = true;
        });
        std::unique_lock<std::mutex> starting(playerMutex);
        player->play(uri), player->pause(), starting.unlock();
        ASSERT_TRUE(listener.waitForAction());
        ASSERT_TRUE(destroyed.load());
        // Nothing may come after the destructor returned.
        const auto heard = [&] {
            std::lock_guard<std::mutex> lock(listener.mutex);
            return listener.states.size() + listener.errors.size() + listener.positions.size() + listener.frames;
        };
        const size_t calls = heard();
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(heard(), calls);
    }
    Watchdog watchdog("a new player after the destructions", kCaseLimit);
    ListenedPlayer session;
    EXPECT_TRUE(session.start(mediaUri("media.mkv")));
}

// The sink given up is not in a call once setVideoSink returns, and is never called again.
TEST(PlayerCallbacks, SetVideoSinkWaitsForTheFrameUnderWay)
{
    Watchdog watchdog("setVideoSink during a frame", kCaseLimit);
    HookedListener sink;
    std::atomic<bool> inCall{false};
    sink.arm(OnFrame, [&] { inCall = true, std::this_thread::sleep_for(300ms), inCall = false; });
    ListenedPlayer session;
    session.player.setVideoSink(&sink), session.player.play(mediaUri("media.mkv")), session.player.pause();
    while (!inCall.load())
        std::this_thread::sleep_for(5ms);
    session.player.setVideoSink(nullptr);
    EXPECT_FALSE(inCall.load());
    const int frames = sink.frames;
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(sink.frames.load(), frames);
}

// The audio path against a PulseAudio daemon of the test's own (null sink, private socket), read back with pactl.
TEST(PlayerPulse, StreamCarriesMediaRoleAndMutes)
{
    const std::string dir = freshDirectory("pulse"), socket = dir + "/native";
    // Output in a file: CTest waits for the pipes to close. It ends itself once idle for 30 s. Per-user mode
    // even as root: --system would use the machine-wide socket and configuration.
    std::string pid;
    ASSERT_EQ(runCommand("env -i XDG_RUNTIME_DIR=" + dir + " HOME=" + dir + " PATH=\"$PATH\" pulseaudio -n " +
                             "--daemonize=no --exit-idle-time=30 --use-pid-file=no --log-target=stderr " +
                             "-L 'module-null-sink sink_name=lumiflux_null' -L 'module-native-protocol-unix socket=" +
                             socket + " auth-anonymous=1' > " + dir + "/pulseaudio.log 2>&1 & echo -n $!",
                         &pid),
              0);
    std::shared_ptr<void> stop(nullptr, [&](void*) { kill(std::stoi(pid), SIGTERM); });
    std::string out;
    const auto pactl = [&](const std::string& command, const std::string& text) {
        for (int i = 0; i < 300; ++i) {
            runCommand("LC_ALL=C PULSE_SERVER=unix:" + socket + " pactl " + command + " 2>&1", &out);
            if (out.find(text) != std::string::npos)
                return true;
            std::this_thread::sleep_for(100ms);
        }
        return false;
    };
    ASSERT_TRUE(pactl("info", "Server Name"))
        << "no sound server (scripts/install-deps installs pulseaudio); see " << dir << "/pulseaudio.log\n"
        << out;
    setenv("PULSE_SERVER", ("unix:" + socket).c_str(), 1);
    ListenedPlayer session;
    ASSERT_TRUE(session.start(mediaUri("media.mkv")));
    session.player.setAutoRepeat(true);
    ASSERT_TRUE(pactl("list sink-inputs", "media.role")) << out;
    EXPECT_NE(out.find("media.role = \"x-tollan\""), std::string::npos) << out;
    EXPECT_NE(out.find("Mute: no"), std::string::npos) << out;
    session.player.setMute(true);
    EXPECT_TRUE(pactl("list sink-inputs", "Mute: yes")) << out;
    EXPECT_TRUE(session.listener.snapshot(session.listener.errors).empty());
}

} // namespace
