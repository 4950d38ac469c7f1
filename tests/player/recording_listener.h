#pragma once

// A PlayerListener that records every call, and lets a test wait until a condition on the record holds.

#include <algorithm>
#include <atomic>
#include <functional>

#include <lumiflux/player.h>

#include "recorder.h"
#include "test_paths.h"

namespace lumiflux_test {

using namespace Tevara::Lumiflux;

struct RecordedError {
    PlayerError error;
    std::string message;
};

class RecordingListener : public PlayerListener, public Recorder {
public:
    void onMediaInfo(const MediaInfo& info) override { add(mediaInfos, info); }
    void onTracksSelected(const std::vector<int>& ids) override { add(selections, ids); }
    void onStateChanged(PlayerState, PlayerState to) override { add(states, to); }
    void onDurationChanged(std::chrono::microseconds d) override { add(durations, d); }
    void onPositionChanged(std::chrono::microseconds p) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        positionStates.push_back(states.empty() ? PlayerState::Empty : states.back()); // the state it came in
        positions.push_back(p);
        changed.notify_all();
    }
    void onError(PlayerError error, const std::string& message) override { add(errors, RecordedError{error, message}); }

    bool waitForState(PlayerState state, std::chrono::milliseconds timeout = std::chrono::seconds(30))
    {
        return waitFor([&] { return !states.empty() && states.back() == state; }, timeout);
    }
    bool sawAfter(PlayerState first, PlayerState later)
    {
        auto at = std::find(states.begin(), states.end(), first);
        return at != states.end() && std::find(at, states.end(), later) != states.end();
    }
    /** Every task queued before has run once this returns true: selecting nothing fails in queue order. */
    bool drain(Player& player)
    {
        const size_t before = snapshot(errors).size();
        player.selectTracks({});
        return waitFor([&] { return errors.size() > before && errors.back().message == "Trying to select 0 streams"; });
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        mediaInfos.clear(), selections.clear(), states.clear(), durations.clear();
        positions.clear(), positionStates.clear(), errors.clear();
    }

    std::vector<MediaInfo> mediaInfos;
    std::vector<std::vector<int>> selections;
    std::vector<PlayerState> states, positionStates;
    std::vector<std::chrono::microseconds> durations, positions;
    std::vector<RecordedError> errors;
};

/** A player reporting to a RecordingListener for its whole life. */
struct ListenedPlayer {
    ListenedPlayer() { player.setListener(&listener); }
    ~ListenedPlayer() { player.setListener(nullptr); }
    /** play(uri) then pause() (it starts once the tracks are known); waits for Playing. */
    bool start(const std::string& uri, const HttpHeaders& headers = {})
    {
        listener.clear();
        player.play(uri, headers), player.pause();
        return listener.waitFor([&] { return listener.sawAfter(PlayerState::Playing, PlayerState::Playing); });
    }
    bool playsToEnd(const std::string& uri, const HttpHeaders& headers = {})
    {
        return start(uri, headers) &&
               listener.waitFor([&] { return listener.sawAfter(PlayerState::Playing, PlayerState::EOS); });
    }
    RecordingListener listener;
    Player player;
};

inline std::string mediaDir()
{
    return buildDir() + "/player-media";
}
inline std::string mediaUri(const std::string& name)
{
    return "file://" + mediaDir() + "/" + name;
}

enum Hook { OnError, OnPosition, OnState, OnMediaInfo, OnFrame };
const char* const kHookNames[] = {"onError", "onPositionChanged", "onStateChanged", "onMediaInfo",
                                  "VideoSink::onFrame"};

// Runs `action` once, from inside the first callback of the armed kind.
class HookedListener : public RecordingListener, public VideoSink {
public:
    void arm(Hook kind, std::function<void()> what, std::function<bool()> when = {})
    {
        std::lock_guard<std::mutex> lock(mutex);
        hook = kind, action = std::move(what), condition = std::move(when), acted = false;
    }
    bool waitForAction()
    {
        return waitFor([&] { return acted; });
    }
    void onError(PlayerError e, const std::string& m) override { RecordingListener::onError(e, m), fire(OnError); }
    void onPositionChanged(std::chrono::microseconds p) override
    {
        RecordingListener::onPositionChanged(p), fire(OnPosition);
    }
    void onStateChanged(PlayerState f, PlayerState t) override
    {
        RecordingListener::onStateChanged(f, t), fire(OnState);
    }
    void onMediaInfo(const MediaInfo& i) override { RecordingListener::onMediaInfo(i), fire(OnMediaInfo); }
    void onFrame(const VideoFrame&, bool) override { ++frames, fire(OnFrame); }
    std::atomic<int> frames{0};

private:
    void fire(Hook kind)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (kind != hook || !action || (condition && !condition()))
            return;
        auto what = std::exchange(action, nullptr);
        lock.unlock(), what(), lock.lock();
        acted = true, changed.notify_all();
    }
    Hook hook = OnError;
    std::function<void()> action;
    std::function<bool()> condition;
    bool acted = false;
};

} // namespace lumiflux_test
