#pragma once

/**
 * @file player.h
 * The media player: a playbin3 pipeline driven from a thread of its own.
 *
 * Every public call of Player is cheap and never blocks on GStreamer: it
 * records a value and, where the pipeline must change, queues a task that
 * the player's thread runs in order. What happens is reported back through
 * a PlayerListener; decoded video frames go to a VideoSink.
 */

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <lumiflux/export.h>
#include <lumiflux/graphic_buffer.h>
#include <lumiflux/media_info.h>
#include <lumiflux/types.h>

namespace Tevara::Lumiflux {

/**
 * Receives what a player reports. The player calls it from its own thread and
 * from GStreamer's streaming threads, one call at a time (under the player's
 * listener lock). A callback must not call Player::setListener().
 */
class LUMIFLUX_EXPORT PlayerListener {
public:
    virtual ~PlayerListener();
    /** The medium's tracks are known (after each stream collection). */
    virtual void onMediaInfo(const MediaInfo& mediaInfo);
    /** The track identifiers now being played. */
    virtual void onTracksSelected(const std::vector<int>& trackIds);
    /** The reported state changed; never called with equal states. */
    virtual void onStateChanged(PlayerState oldState, PlayerState newState);
    /** The medium's duration became known or changed. */
    virtual void onDurationChanged(std::chrono::microseconds duration);
    /** The playback position, reported periodically while playing. */
    virtual void onPositionChanged(std::chrono::microseconds position);
    /** How full the network buffer is, 0 to 100. */
    virtual void onBufferingChanged(int percent);
    /** A failure; `message` is GStreamer's text, or empty for failed player operations. */
    virtual void onError(PlayerError error, const std::string& message);
};

/** One decoded video frame handed to the application. */
struct VideoFrame {
    /** The track the frame belongs to (a TrackInfo id), -1 when no video track is known yet. */
    int trackId = -1;
    /** The pixel layout of the mapped frame (NV12). */
    PixelFormat format = PixelFormat::Invalid;
    std::uint32_t width = 0;  ///< pixels
    std::uint32_t height = 0; ///< pixels
    /** Presentation time, -1 when unknown. */
    std::chrono::microseconds timestamp{-1};
    /**
     * The pixels, zero copy over GStreamer's buffer. Valid for as long as the
     * application holds it or a view mapped from it, whatever the player does
     * meanwhile (caps change, track switch, stop, destruction).
     */
    std::shared_ptr<GraphicBuffer> buffer;
};

/**
 * Receives decoded frames. Called on a GStreamer streaming thread, never
 * under the listener lock; it should return quickly (the stream waits).
 */
class LUMIFLUX_EXPORT VideoSink {
public:
    virtual ~VideoSink();
    /** A new frame; `preroll` is true for the frame shown on pause. */
    virtual void onFrame(const VideoFrame& frame, bool preroll) = 0;
};

/**
 * One media player. All operations may be called from any thread and return
 * at once; the work runs on the player's thread. Not copyable or movable.
 */
class LUMIFLUX_EXPORT Player {
public:
    /** Starts the player's thread. Throws std::system_error when the thread cannot be started. */
    Player();
    /** Stops the thread (tasks still queued are dropped unrun) and tears the pipeline down. */
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;
    Player(Player&&) = delete;
    Player& operator=(Player&&) = delete;

    /** Sets (or clears, with null) the listener; returns after any running callback has finished. */
    void setListener(PlayerListener* listener);
    /** Sets (or clears, with null) the frame receiver; returns true. */
    bool setVideoSink(VideoSink* sink);
    /** Loads a medium and stays stopped; pause() or play() starts it. */
    void setUri(std::string_view uri, const HttpHeaders& headers = {});
    /** Loads a medium and starts playing as soon as its tracks are known (after play() or pause()). */
    void play(std::string_view uri, const HttpHeaders& headers = {});
    /** Replaces the HTTP request headers, also on a running stream's HTTP elements. */
    void setHttpHeaders(const HttpHeaders& headers);
    /** Starts or resumes playback of the loaded medium. */
    void play();
    /** Pauses playback. */
    void pause();
    /** Seeks to `position`, at the requested playback rate. */
    void seek(std::chrono::microseconds position);
    /** Tears the pipeline down; mute, repeat and rate go back to their defaults. */
    void stop();
    /** stop(), then clears the listener and the video sink. */
    void reset();
    /**
     * Plays the given tracks (at most one per type, the first of each type
     * wins). Failures are reported as PlayerError::SelectTracksFailed.
     */
    void selectTracks(const std::vector<int>& trackIds);
    /** Requests a playback rate; 0 pauses the clock, any other value plays at normal speed. */
    void setPlaybackRate(double rate);
    /** Mutes or unmutes the audio. */
    void setMute(bool mute);
    /** Restart from the beginning at end of stream. */
    void setAutoRepeat(bool autoRepeat);

    /** The state last reported to the listener. */
    PlayerState getState() const;
    /** The playback rate last requested. */
    double getPlaybackRate() const;
    /** Whether the medium restarts at its end. */
    bool getAutoRepeat() const;
    /** Whether the audio is muted. */
    bool getMute() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace Tevara::Lumiflux
