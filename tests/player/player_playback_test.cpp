// State sequences, position and duration reports, seeks and the task queue,
// on a real playbin3 pipeline playing media made at test time.

#include <algorithm>
#include <atomic>
#include <chrono>

#include <gtest/gtest.h>

#include "recording_listener.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

constexpr auto kMediaLength = 3s;

class PlayerPlayback : public ::testing::Test, protected ListenedPlayer {};

TEST_F(PlayerPlayback, SetUriThenPauseStaysPausedAndStopResetsMuteRepeatAndRate)
{
    player.setUri(mediaUri("media.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    ASSERT_TRUE(listener.waitFor([&] { return !listener.mediaInfos.empty(); }));
    // Nothing may start playback now that the tracks are known.
    EXPECT_FALSE(listener.waitForState(PlayerState::Playing, 1500ms));
    EXPECT_EQ(player.getState(), PlayerState::Paused);
    EXPECT_EQ(listener.stateSequence(), std::vector<PlayerState>{PlayerState::Paused});

    player.setMute(true);
    player.setAutoRepeat(true);
    player.setPlaybackRate(2.0);
    ASSERT_TRUE(player.getMute() && player.getAutoRepeat() && player.getPlaybackRate() == 2.0);
    player.stop();
    ASSERT_TRUE(listener.drain(player));
    EXPECT_EQ(player.getState(), PlayerState::Empty);
    EXPECT_EQ(listener.stateSequence().back(), PlayerState::Empty);
    EXPECT_FALSE(player.getMute());
    EXPECT_FALSE(player.getAutoRepeat());
    EXPECT_EQ(player.getPlaybackRate(), 1.0);
    // With no pipeline, transport calls do nothing and report nothing.
    const size_t errors = listener.snapshot(listener.errors).size();
    const size_t states = listener.snapshot(listener.states).size();
    player.play();
    player.pause();
    player.seek(1s);
    ASSERT_TRUE(listener.drain(player));
    EXPECT_EQ(listener.snapshot(listener.errors).size(), errors + 1);
    EXPECT_EQ(listener.snapshot(listener.states).size(), states);
}

TEST_F(PlayerPlayback, PlayUriThenPauseStartsOnceTracksAreKnownEndsInEosAndSeeks)
{
    ASSERT_TRUE(start(mediaUri("media.mkv")));
    EXPECT_FALSE(listener.snapshot(listener.mediaInfos).empty()) << "played before the stream collection";
    ASSERT_TRUE(listener.waitForState(PlayerState::EOS));
    EXPECT_EQ(listener.stateSequence(),
              (std::vector<PlayerState>{PlayerState::Paused, PlayerState::Playing, PlayerState::EOS}));
    EXPECT_EQ(player.getState(), PlayerState::EOS);

    // Positions came while playing, rising, and reached the end.
    const auto positions = listener.snapshot(listener.positions);
    const auto whilePlaying = listener.snapshot(listener.positionStates);
    ASSERT_GE(positions.size(), 5u);
    EXPECT_TRUE(std::is_sorted(positions.begin(), positions.end()));
    EXPECT_GE(std::count(whilePlaying.begin(), whilePlaying.end(), PlayerState::Playing), 5);
    EXPECT_GT(positions.back(), kMediaLength - 500ms);

    // The duration, from discovery and from the bus, is reported once per value.
    const auto durations = listener.snapshot(listener.durations);
    ASSERT_FALSE(durations.empty());
    EXPECT_EQ(std::adjacent_find(durations.begin(), durations.end()), durations.end());
    EXPECT_NEAR(std::chrono::duration<double>(durations.back()).count(), 3.0, 0.15);

    // Play after the end: the next pause is a plain pause again, and no
    // position is polled while paused.
    player.seek(0us);
    player.play();
    ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    const size_t atPause = listener.snapshot(listener.positions).size();
    EXPECT_FALSE(listener.waitFor([&] { return listener.positions.size() > atPause; }, 700ms));

    // The first position reported while playing after a seek is where it was asked.
    player.seek(2s);
    player.play();
    size_t first = 0;
    ASSERT_TRUE(listener.waitFor([&] {
        for (first = atPause; first < listener.positions.size(); ++first)
            if (listener.positionStates[first] == PlayerState::Playing)
                return true;
        return false;
    }));
    const auto landed = listener.snapshot(listener.positions)[first];
    EXPECT_GE(landed, 2s - 50ms);
    EXPECT_LT(landed, 2s + 600ms);
}

TEST_F(PlayerPlayback, AutoRepeatRestartsWithoutEosOrPause)
{
    ASSERT_TRUE(start(mediaUri("media.mkv")));
    // Set after Init, which resets it for every new medium.
    player.setAutoRepeat(true);
    ASSERT_TRUE(listener.waitFor([&] {
        const auto& p = listener.positions;
        auto late = std::find_if(p.begin(), p.end(), [](auto v) { return v > kMediaLength - 800ms; });
        return late != p.end() && std::any_of(late, p.end(), [](auto v) { return v < 1s; });
    })) << "the position never returned to the start";
    EXPECT_EQ(listener.stateSequence(), (std::vector<PlayerState>{PlayerState::Paused, PlayerState::Playing}));
    player.stop();
    ASSERT_TRUE(listener.waitForState(PlayerState::Empty));
}

// The getters read what the callbacks last said: checked inside the
// callbacks while playing (the periodic report is the only one then), and
// once the player has settled after a pause, a seek and a stop.
class GetterCheckingListener : public RecordingListener {
public:
    explicit GetterCheckingListener(Player& p) : player(p) {}
    void onPositionChanged(std::chrono::microseconds position) override
    {
        RecordingListener::onPositionChanged(position);
        if (checking)
            mismatches += player.getPosition() != position;
        checks += checking.load();
    }
    void onDurationChanged(std::chrono::microseconds duration) override
    {
        RecordingListener::onDurationChanged(duration);
        mismatches += player.getDuration() != duration;
    }
    void onMediaInfo(const MediaInfo& info) override
    {
        RecordingListener::onMediaInfo(info);
        const MediaInfo known = player.getMediaInfo();
        mismatches += known.uri() != info.uri() || known.tracks().size() != info.tracks().size();
    }
    Player& player;
    std::atomic<bool> checking{true};
    std::atomic<int> checks{0};
    std::atomic<int> mismatches{0};
};

TEST(PlayerGetters, ReadWhatTheCallbacksLastSaidAndPathsBecomeUris)
{
    Player player;
    GetterCheckingListener listener(player);
    player.setListener(&listener);
    // An absolute path is played as its file:// URI.
    player.play(mediaDir() + "/media.mkv");
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
    ASSERT_TRUE(listener.waitFor([&] { return listener.positions.size() >= 6; }));
    listener.checking = false;
    EXPECT_EQ(player.getMediaInfo().uri(), mediaUri("media.mkv"));
    EXPECT_EQ(player.getMediaInfo().tracks().size(), listener.snapshot(listener.mediaInfos).back().tracks().size());

    const auto settled = [&] {
        EXPECT_EQ(player.getPosition(), listener.snapshot(listener.positions).back());
        EXPECT_EQ(player.getDuration(), listener.snapshot(listener.durations).back());
    };
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    ASSERT_TRUE(listener.drain(player));
    settled();
    // A seek while paused reports no position; playing on from there does.
    player.seek(1500ms);
    player.play();
    ASSERT_TRUE(listener.waitFor([&] { return listener.positions.back() >= 1400ms; }));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Paused));
    ASSERT_TRUE(listener.drain(player));
    settled();
    EXPECT_NEAR(std::chrono::duration<double>(player.getPosition()).count(), 1.6, 0.25);
    player.stop();
    ASSERT_TRUE(listener.waitForState(PlayerState::Empty));
    ASSERT_TRUE(listener.drain(player));
    settled();
    EXPECT_EQ(listener.mismatches.load(), 0);
    EXPECT_GE(listener.checks.load(), 4);

    // Neither a URI nor an absolute path: refused at once, by name.
    player.setUri("clips/clip.mkv");
    ASSERT_TRUE(listener.waitFor([&] { return listener.errors.back().error == PlayerError::NotFound; }));
    EXPECT_EQ(listener.snapshot(listener.errors).back().message, "Not a URI or an absolute path: 'clips/clip.mkv'");
    EXPECT_EQ(player.getMediaInfo().uri(), "clips/clip.mkv");
    player.setListener(nullptr);
}

} // namespace
