// Tracks and their selection, errors from broken media, fd:// sources.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>

#include <gtest/gtest.h>

#include "recording_listener.h"
#include "syslog_capture.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class PlayerMedia : public ::testing::Test {
protected:
    void SetUp() override { player.setListener(&listener); }
    void TearDown() override { player.setListener(nullptr); }

    bool waitForErrorText(const std::string& message)
    {
        return listener.waitFor([&] {
            return std::any_of(listener.errors.begin(), listener.errors.end(),
                               [&](const RecordedError& e) { return e.message == message; });
        });
    }

    RecordingListener listener;
    Player player;
};

const TrackInfo* firstOfType(const MediaInfo& info, TrackType type, int skip = 0)
{
    for (const auto& track : info.tracks())
        if (track.type() == type && skip-- == 0)
            return &track;
    return nullptr;
}

TEST_F(PlayerMedia, TrackListAndSelection)
{
    const std::string uri = mediaUri("media.mkv");
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
    const MediaInfo info = listener.snapshot(listener.mediaInfos).back();
    EXPECT_EQ(info.uri(), uri);
    ASSERT_EQ(info.httpHeaders().size(), 1u);
    EXPECT_EQ(info.httpHeaders()[0].first, "X-Test");

    // One track per stream; identifiers are stream positions.
    ASSERT_EQ(info.tracks().size(), 4u);
    for (size_t i = 0; i < info.tracks().size(); ++i)
        EXPECT_EQ(info.tracks()[i].id(), static_cast<int>(i));
    const TrackInfo* video = firstOfType(info, TrackType::Video);
    const TrackInfo* audio1 = firstOfType(info, TrackType::Audio);
    const TrackInfo* audio2 = firstOfType(info, TrackType::Audio, 1);
    const TrackInfo* text = firstOfType(info, TrackType::Subtitles);
    ASSERT_TRUE(video && audio1 && audio2 && text);
    EXPECT_EQ(video->name(), "Video 1");
    EXPECT_EQ(text->name(), "Subtitles 1 (fr)");
    // Audio titles count per type and carry the language; the medium tags
    // the first audio track "en" and the second "de".
    EXPECT_EQ(audio1->name(), "Audio 1 (en)");
    EXPECT_EQ(audio2->name(), "Audio 2 (de)");
    EXPECT_EQ(audio1->lang(), "en");
    EXPECT_EQ(audio2->tag<std::string>("language-code", "?"), "de");
    EXPECT_EQ(video->lang(), "");
    EXPECT_NE(video->codec().find("VP8"), std::string::npos) << video->codec();
    // Selected by default: exactly what the collection marks, at least the video.
    EXPECT_TRUE(video->flags() & TrackInfo::FlagSelectedByDefault);

    // Streams switch while data flows: keep the short medium playing.
    player.play();
    ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
    player.setAutoRepeat(true);
    ASSERT_TRUE(listener.waitFor([&] { return !listener.selections.empty(); }));
    const auto initial = listener.snapshot(listener.selections).back();
    EXPECT_NE(std::find(initial.begin(), initial.end(), video->id()), initial.end());

    // Two audio identifiers: only the first of them is selected.
    size_t before = listener.snapshot(listener.selections).size();
    player.selectTracks({video->id(), audio2->id(), audio1->id()});
    ASSERT_TRUE(listener.waitFor([&] { return listener.selections.size() > before; }));
    auto selected = listener.snapshot(listener.selections).back();
    std::sort(selected.begin(), selected.end());
    EXPECT_EQ(selected, (std::vector<int>{video->id(), audio2->id()}));

    // And back: a switch is reported again.
    before = listener.snapshot(listener.selections).size();
    player.selectTracks({audio1->id(), video->id(), audio2->id()});
    ASSERT_TRUE(listener.waitFor([&] { return listener.selections.size() > before; }));
    selected = listener.snapshot(listener.selections).back();
    std::sort(selected.begin(), selected.end());
    EXPECT_EQ(selected, (std::vector<int>{video->id(), audio1->id()}));
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());

    // Failures, with their texts exactly.
    player.selectTracks({});
    ASSERT_TRUE(waitForErrorText("Trying to select 0 streams"));
    player.selectTracks({7});
    ASSERT_TRUE(listener.waitFor([&] { return listener.errors.size() >= 3; }));
    const auto errors = listener.snapshot(listener.errors);
    ASSERT_EQ(errors.size(), 3u);
    for (const auto& e : errors)
        EXPECT_EQ(e.error, PlayerError::SelectTracksFailed);
    EXPECT_EQ(errors[1].message, " track id: ");
    EXPECT_EQ(errors[2].message, "Trying to select 0 streams");
    player.selectTracks({5, 25});
    ASSERT_TRUE(listener.waitFor([&] { return listener.errors.size() >= 6; }));
    EXPECT_EQ(listener.snapshot(listener.errors)[3].message, "wn track id: ");
    EXPECT_EQ(listener.snapshot(listener.errors)[4].message, "");
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
        Player player;
        SelectingListener selecting(player);
        player.setListener(&selecting);
        player.setUri(mediaUri("media.mkv"));
        player.pause();
        ASSERT_TRUE(selecting.waitForState(PlayerState::Paused)) << "round " << round;
        // The medium's tracks: 0 video, 1 and 2 audio, 3 subtitles.
        ASSERT_TRUE(selecting.waitFor([&] {
            return !selecting.selections.empty() &&
                   std::find(selecting.selections.back().begin(), selecting.selections.back().end(), 2) !=
                       selecting.selections.back().end();
        })) << "round "
            << round;
        player.setListener(nullptr);
    }
}

TEST_F(PlayerMedia, MissingFileIsNotFoundAndThePlayerStaysUsable)
{
    player.setUri(mediaUri("no-such-file.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForError());
    const auto error = listener.snapshot(listener.errors).front();
    EXPECT_EQ(error.error, PlayerError::NotFound) << toString(error.error) << ": " << error.message;
    EXPECT_FALSE(error.message.empty());

    player.setUri(mediaUri("media.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
}

TEST_F(PlayerMedia, CorruptFileIsAStreamErrorAndThePlayerStaysUsable)
{
    player.play(mediaUri("corrupt.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForError());
    const auto error = listener.snapshot(listener.errors).front();
    EXPECT_EQ(error.error, PlayerError::StreamFailed) << toString(error.error) << ": " << error.message;

    player.play(mediaUri("media.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
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
    player.play("fd://" + std::to_string(fd));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
    ASSERT_TRUE(listener.waitForState(PlayerState::EOS));
    EXPECT_EQ(listener.snapshot(listener.mediaInfos).back().tracks().size(), 4u);
    ASSERT_FALSE(listener.snapshot(listener.durations).empty());
    EXPECT_NEAR(std::chrono::duration<double>(listener.snapshot(listener.durations).back()).count(), 3.0, 0.15);
    EXPECT_GE(sink.frames.load(), 85) << "3 s at 30 frames per second";
    EXPECT_TRUE(syslogRecordsContaining("Starting async src discovery:").empty());
    EXPECT_FALSE(syslogRecordsContaining("uri: fd://").empty()) << "debug lines are captured in this scenario";
    player.stop();
    // The descriptor may be closed only once the Stop task is over, which
    // the next task's report shows.
    player.selectTracks({});
    ASSERT_TRUE(waitForErrorText("Trying to select 0 streams"));
    player.setVideoSink(nullptr);
    ::close(fd);
}

TEST_F(PlayerMedia, FileUriIsDiscovered)
{
    clearSyslog();
    player.setUri(mediaUri("media.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    EXPECT_EQ(syslogRecordsContaining("Starting async src discovery:").size(), 1u);
}

} // namespace
