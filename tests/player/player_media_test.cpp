// Tracks and their selection, errors from broken media, fd:// sources.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>

#include <gtest/gtest.h>

#include "recording_listener.h"
#include "syslog_capture.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class PlayerMedia : public ::testing::Test, protected ListenedPlayer {
protected:
    // Selects `ids` and returns the next reported selection, sorted.
    std::vector<int> select(const std::vector<int>& ids)
    {
        const size_t before = listener.snapshot(listener.selections).size();
        player.selectTracks(ids);
        EXPECT_TRUE(listener.waitFor([&] { return listener.selections.size() > before; }));
        auto selected = listener.snapshot(listener.selections);
        auto last = selected.size() > before ? selected.back() : std::vector<int>{};
        std::sort(last.begin(), last.end());
        return last;
    }
};

TEST_F(PlayerMedia, TrackListAndSelection)
{
    const std::string uri = mediaUri("media.mkv");
    clearSyslog();
    player.setUri(uri, {{"X-Test", "1"}});
    player.pause();
    // A stream's tags may reach it after the first track list (the
    // subtitle's language comes with its first data): a later report
    // completes the list.
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
    ASSERT_EQ(info.httpHeaders().size(), 1u);
    EXPECT_EQ(info.httpHeaders()[0].first, "X-Test");

    // One track per stream, identifiers are stream positions: 0 video, 1 and
    // 2 audio (tagged "en" and "de"), 3 subtitles. Titles count per type and
    // carry the language.
    ASSERT_EQ(info.tracks().size(), 4u);
    const std::vector<std::pair<TrackType, std::string>> expected = {{TrackType::Video, "Video 1"},
                                                                     {TrackType::Audio, "Audio 1 (en)"},
                                                                     {TrackType::Audio, "Audio 2 (de)"},
                                                                     {TrackType::Subtitles, "Subtitles 1 (fr)"}};
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(info.tracks()[i].id(), static_cast<int>(i));
        EXPECT_EQ(info.tracks()[i].type(), expected[i].first) << i;
        EXPECT_EQ(info.tracks()[i].name(), expected[i].second);
    }
    const TrackInfo& video = info.tracks()[0];
    EXPECT_EQ(info.tracks()[1].lang(), "en");
    EXPECT_EQ(info.tracks()[2].tag<std::string>("language-code", "?"), "de");
    EXPECT_EQ(video.lang(), "");
    EXPECT_NE(video.codec().find("VP8"), std::string::npos) << video.codec();
    // Selected by default: exactly what the collection marks, at least the video.
    EXPECT_TRUE(video.flags() & TrackInfo::FlagSelectedByDefault);

    // Streams switch while data flows: keep the short medium playing.
    player.play();
    ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
    player.setAutoRepeat(true);
    ASSERT_TRUE(listener.waitFor([&] { return !listener.selections.empty(); }));
    const auto initial = listener.snapshot(listener.selections).back();
    EXPECT_NE(std::find(initial.begin(), initial.end(), 0), initial.end());
    // Two audio identifiers: only the first of them is selected; and back.
    EXPECT_EQ(select({0, 2, 1}), (std::vector<int>{0, 2}));
    EXPECT_EQ(select({1, 0, 2}), (std::vector<int>{0, 1}));
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());

    // Failures, with their texts exactly: an unknown identifier gives
    // "Unknown track id: " cut short by the identifier, then the empty
    // selection's text.
    player.selectTracks({});
    ASSERT_TRUE(listener.waitForErrorText("Trying to select 0 streams"));
    player.selectTracks({7});
    ASSERT_TRUE(listener.waitFor([&] { return listener.errors.size() >= 3; }));
    player.selectTracks({5, 25});
    ASSERT_TRUE(listener.waitFor([&] { return listener.errors.size() >= 6; }));
    const auto errors = listener.snapshot(listener.errors);
    std::vector<std::string> messages;
    for (const auto& e : errors) {
        EXPECT_EQ(e.error, PlayerError::SelectTracksFailed);
        messages.push_back(e.message);
    }
    EXPECT_EQ(messages,
              (std::vector<std::string>{"Trying to select 0 streams", " track id: ", "Trying to select 0 streams",
                                        "wn track id: ", "", "Trying to select 0 streams"}));
    player.stop();
    ASSERT_TRUE(listener.waitForState(PlayerState::Empty));
}

// Selects tracks from the listener as soon as the track list arrives, which
// is while the pipeline still prerolls and adds its pads.
class SelectingListener : public RecordingListener {
public:
    explicit SelectingListener(Player& p) : player(p) {}
    void onMediaInfo(const MediaInfo& info) override
    {
        RecordingListener::onMediaInfo(info);
        player.selectTracks({0, 2});
    }
    Player& player;
};

TEST(PlayerSelection, SelectionDuringThePrerollNeverHangs)
{
    // Each round once hung about one time in five: the selection crossed the
    // pads being added.
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        Player player;
        SelectingListener selecting(player);
        player.setListener(&selecting);
        // Cleared before the listener goes, however the round ends.
        std::shared_ptr<void> clearListener(nullptr, [&](void*) { player.setListener(nullptr); });
        player.setUri(mediaUri("media.mkv"));
        player.pause();
        ASSERT_TRUE(selecting.waitForState(PlayerState::Paused));
        // The switch to the second audio stream completes once that stream's
        // data moves; in PAUSED the prerolled sinks can hold it back for good
        // on a slow machine (ThreadSanitizer), so the round then plays.
        player.play();
        ASSERT_TRUE(selecting.waitFor([&] {
            const auto& s = selecting.selections;
            return !s.empty() && std::find(s.back().begin(), s.back().end(), 2) != s.back().end();
        }));
        player.setListener(nullptr);
    }
}

TEST_F(PlayerMedia, BrokenFilesGiveTheirErrorAndThePlayerStaysUsable)
{
    const struct {
        const char* file;
        PlayerError expected;
    } cases[] = {{"no-such-file.mkv", PlayerError::NotFound}, {"corrupt.mkv", PlayerError::StreamFailed}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        player.play(mediaUri(c.file));
        player.pause();
        ASSERT_TRUE(listener.waitForError());
        const auto error = listener.snapshot(listener.errors).front();
        EXPECT_EQ(error.error, c.expected) << toString(error.error) << ": " << error.message;
        EXPECT_FALSE(error.message.empty());
        ASSERT_TRUE(start(mediaUri("media.mkv")));
        player.stop();
        ASSERT_TRUE(listener.drain(player));
        std::lock_guard<std::mutex> lock(listener.mutex);
        listener.errors.clear();
        listener.states.clear();
    }
}

TEST_F(PlayerMedia, TruncatedFileEndsOrFailsButNeverHangs)
{
    player.play(mediaUri("truncated.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitFor([&] {
        return !listener.errors.empty() ||
               (!listener.states.empty() && listener.states.back().second == PlayerState::EOS);
    }));
    player.stop();
    ASSERT_TRUE(listener.waitForState(PlayerState::Empty));
}

// Counts the frames handed to the application.
class CountingSink : public VideoSink {
public:
    void onFrame(const VideoFrame& frame, bool) override
    {
        if (frame.buffer && frame.width == 320)
            ++frames;
    }
    std::atomic<int> frames{0};
};

TEST_F(PlayerMedia, FdUriPlaysWithoutDiscovery)
{
    const std::string path = mediaDir() + "/media.mkv";
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << path;
    CountingSink sink;
    player.setVideoSink(&sink);
    clearSyslog();
    ASSERT_TRUE(start("fd://" + std::to_string(fd)));
    ASSERT_TRUE(listener.waitForState(PlayerState::EOS));
    EXPECT_EQ(listener.snapshot(listener.mediaInfos).back().tracks().size(), 4u);
    ASSERT_FALSE(listener.snapshot(listener.durations).empty());
    EXPECT_NEAR(std::chrono::duration<double>(listener.snapshot(listener.durations).back()).count(), 3.0, 0.15);
    EXPECT_GE(sink.frames.load(), 85) << "3 s at 30 frames per second";
    EXPECT_TRUE(syslogRecordsContaining("Starting async src discovery:").empty());
    EXPECT_FALSE(syslogRecordsContaining("uri: fd://").empty()) << "debug lines are captured in this scenario";
    player.stop();
    // The descriptor may be closed only once the Stop task is over.
    ASSERT_TRUE(listener.drain(player));
    player.setVideoSink(nullptr);
    ::close(fd);
}

// A local medium whose preroll never ends (here a pipe nobody writes to)
// is reported as a stream failure after a bounded wait, and the player
// stays usable.
TEST_F(PlayerMedia, LocalPrerollThatNeverEndsFails)
{
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    player.play("fd://" + std::to_string(fds[0]));
    player.pause();
    ASSERT_TRUE(listener.waitForError());
    const auto errors = listener.snapshot(listener.errors);
    EXPECT_EQ(errors[0].error, PlayerError::StreamFailed);
    EXPECT_EQ(errors[0].message, "Preroll did not complete");
    player.stop();
    ASSERT_TRUE(listener.drain(player));
    ::close(fds[1]);
    ::close(fds[0]);
    EXPECT_TRUE(playsToEnd(mediaUri("media.mkv")));
}

} // namespace
