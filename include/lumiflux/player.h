#pragma once

/**
 * @file player.h
 * The media player: a playbin3 pipeline driven from a thread of its own.
 *
 * Every public call of Player is cheap and never blocks on GStreamer: it
 * records a value and, where the pipeline must change, queues a task that
 * the player's thread runs in order. What happens is reported back through
 * a PlayerListener; decoded video frames go to a VideoSink.
 *
 * A first program:
 * @code
 * Player player;
 * player.setListener(&myListener);      // outlives the player, or is cleared first
 * player.play("/home/me/clip.mkv", {}); // an absolute path or a URI
 * player.play();                        // needed: see play(uri, headers)
 * @endcode
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
 * listener lock).
 *
 * From inside a callback the application may call any Player operation of
 * the player that calls it: operations queue their work (a task queued on
 * the player's thread runs on the loop's next turn, never inside the
 * callback), setListener() replaces the listener at once, and destroying the
 * player is allowed: the destructor then lets go of the listener and the
 * sink before it returns and finishes the teardown on a thread of its own.
 * A callback should not block: the player's thread or a stream waits for it.
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

/**
 * One decoded video frame handed to the application.
 *
 * The player's frames are always NV12 (`format` is fourcc 'NV12'): plane 0
 * holds `width` luma samples per row (one byte each), plane 1 holds
 * `width / 2` interleaved Cb/Cr pairs per row (`width` bytes) for `height / 2`
 * rows. Rows may be padded: use the strides of the mapped view.
 */
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
 *
 * Lifetime: Player::setVideoSink() (with another sink or null) waits for a
 * call to the previous sink that is under way, then returns; from then on
 * the previous sink is never called again and may be destroyed. Called from
 * inside the sink's own onFrame(), it does not wait (the caller is that
 * call). Do not call setVideoSink() while holding a lock that onFrame()
 * takes. Destroying the player has the same effect.
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
    /**
     * Stops the thread (tasks still queued are dropped unrun) and tears the
     * pipeline down. May be called from inside one of this player's listener
     * or sink callbacks: the listener and the sink are then never called
     * again once it returns, and the teardown finishes on a thread of its own
     * shortly after (it cannot wait for the thread that runs the callback).
     */
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;
    Player(Player&&) = delete;
    Player& operator=(Player&&) = delete;

    /**
     * Sets (or clears, with null) the listener; returns after any running
     * callback has finished. Called from inside one of this player's
     * callbacks, it takes effect at once without waiting.
     */
    void setListener(PlayerListener* listener);
    /**
     * Sets (or clears, with null) the frame receiver; returns true once a call
     * to the previous sink under way has finished (see VideoSink).
     */
    bool setVideoSink(VideoSink* sink);
    /**
     * Loads a medium and stays stopped; pause() or play() starts it.
     *
     * `uri` is a URI (file://, http://, https://, fd://N, ...) or an absolute
     * file path, which is taken as the file:// URI of that file. Anything
     * else is reported at once as PlayerError::NotFound, with a message that
     * names the string.
     */
    void setUri(std::string_view uri, const HttpHeaders& headers = {});
    /**
     * Loads a medium (as setUri() does) and plays it as soon as its tracks
     * are known. The pipeline it builds waits in GStreamer's NULL state until
     * a play() or pause() task moves it, so call play() or pause() after it:
     * `player.play(uri, headers); player.play();`.
     */
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
    /**
     * Records the rate that the next seek() uses. On its own it switches the
     * running pipeline only between normal speed (any non-zero rate) and a
     * zero rate, at the current position: to play at 2x, call
     * setPlaybackRate(2.0) and then seek() to the current position. A rate of
     * 0 is passed to GStreamer as it is, which refuses it: the result is
     * PlayerError::ApplyPlaybackRateFailed (and a failed seek() while it is
     * set); use pause() to hold still. Init and stop() set the rate back to 1.
     */
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
    /**
     * The position last reported to onPositionChanged() (0 after a new medium
     * is loaded). Reads what the player knows; queues nothing, never blocks.
     */
    std::chrono::microseconds getPosition() const;
    /** The duration last reported to onDurationChanged() (0 after a new medium is loaded); queues nothing. */
    std::chrono::microseconds getDuration() const;
    /**
     * The current medium: its URI, HTTP headers and, once reported to
     * onMediaInfo(), its tags and tracks. A copy; queues nothing.
     */
    MediaInfo getMediaInfo() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace Tevara::Lumiflux
