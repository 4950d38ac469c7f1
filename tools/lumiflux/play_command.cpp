// lumiflux play <uri|file>: plays a medium headless through Player, printing
// the track list, state changes and errors as they happen, with a live
// progress line on a terminal.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <mutex>
#include <optional>
#include <sstream>

#include <glib.h>

#include <lumiflux/player.h>

#include "audio_output.h"
#include "command.h"
#include "interrupt.h"

namespace lumiflux_tool {
namespace {

using namespace Tevara::Lumiflux;
using Clock = std::chrono::steady_clock;

struct PlayOptions {
    std::string location;
    std::vector<std::string> headers;
    double rate = 1.0;
    bool mute = false;
    bool repeat = false;
    std::vector<int> tracks;
    double seek = -1;
    unsigned frames = 0; ///< 0: to the end
    bool noVideoSink = false;
};

std::string seconds(std::chrono::microseconds time)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << static_cast<double>(time.count()) / 1e6 << " s";
    return text.str();
}

double secondsValue(std::chrono::microseconds time)
{
    return static_cast<double>(time.count()) / 1e6;
}

nlohmann::json trackRecord(const TrackInfo& track)
{
    return {{"id", track.id()},       {"type", toString(track.type())},
            {"codec", track.codec()}, {"language", track.lang()},
            {"name", track.name()},   {"default", (track.flags() & TrackInfo::FlagSelectedByDefault) != 0}};
}

std::string trackLine(const TrackInfo& track)
{
    std::string line = "  #" + std::to_string(track.id()) + " " + toString(track.type());
    if (!track.codec().empty())
        line += ", " + track.codec();
    if (!track.lang().empty())
        line += ", language " + track.lang();
    if (!track.name().empty())
        line += ", \"" + track.name() + "\"";
    if ((track.flags() & TrackInfo::FlagSelectedByDefault) != 0)
        line += " (default)";
    return line;
}

// What the player reports, printed as it arrives and kept for the progress
// line. The player calls it from its own thread and from streaming threads;
// the command's thread reads it under the same lock.
class PlayListener : public PlayerListener {
public:
    explicit PlayListener(Output& output) : out(output) {}

    void onMediaInfo(const MediaInfo& info) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        mediaInfoSeen = true;
        changed.notify_all();
        nlohmann::json tracks = nlohmann::json::array();
        for (const TrackInfo& track : info.tracks())
            tracks.push_back(trackRecord(track));
        // The player reports the media information again as streams and tags
        // are collected; the list is printed when it says something new.
        if (tracks == lastTracks)
            return;
        lastTracks = tracks;
        clearProgress();
        out.text("tracks of " + info.uri() + ":");
        for (const TrackInfo& track : info.tracks())
            out.text(trackLine(track));
        if (info.tracks().empty())
            out.text("  none");
        out.record({{"event", "mediaInfo"}, {"uri", info.uri()}, {"tracks", tracks}});
    }
    void onTracksSelected(const std::vector<int>& trackIds) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        clearProgress();
        std::string list;
        for (int id : trackIds)
            list += (list.empty() ? "" : ", ") + std::string("#") + std::to_string(id);
        out.text("playing tracks " + (list.empty() ? std::string("(none)") : list));
        out.record({{"event", "tracksSelected"}, {"tracks", trackIds}});
    }
    void onStateChanged(PlayerState oldState, PlayerState newState) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        clearProgress();
        out.text("state " + toString(oldState) + " -> " + toString(newState));
        out.record({{"event", "state"}, {"from", toString(oldState)}, {"to", toString(newState)}});
        state = newState;
        if (newState == PlayerState::Playing)
            playingSeen = true;
        if (newState == PlayerState::EOS)
            ended = true;
        changed.notify_all();
    }
    void onDurationChanged(std::chrono::microseconds value) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        duration = value;
        out.record({{"event", "duration"}, {"seconds", secondsValue(value)}});
    }
    void onPositionChanged(std::chrono::microseconds value) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        position = value;
    }
    void onBufferingChanged(int percent) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (percent != buffering)
            out.record({{"event", "buffering"}, {"percent", percent}});
        buffering = percent;
    }
    void onError(PlayerError value, const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        clearProgress();
        // The first error decides the exit status; later ones are printed too.
        out.error(toString(value), message.empty() ? "the player reported " + toString(value) : message);
        if (!error) {
            error = value;
            errorMessage = message;
        }
        changed.notify_all();
    }

    /** Wipes the progress line before a line of its own is printed (lock held). */
    void clearProgress()
    {
        if (progressShown) {
            std::fputs("\r\033[K", stdout);
            std::fflush(stdout);
            progressShown = false;
        }
    }

    Output& out;
    std::mutex mutex;
    std::condition_variable changed;
    PlayerState state = PlayerState::Empty;
    bool mediaInfoSeen = false;
    nlohmann::json lastTracks;
    bool playingSeen = false;
    bool ended = false;
    std::optional<PlayerError> error;
    std::string errorMessage;
    std::chrono::microseconds duration{-1};
    std::chrono::microseconds position{0};
    int buffering = 100;
    bool progressShown = false;
};

// Counts the frames played (prerolled frames are shown again once playing,
// so they are not counted) and wakes the command when it has enough.
class FrameCounter : public VideoSink {
public:
    FrameCounter(PlayListener& listener, unsigned limit) : events(listener), frameLimit(limit) {}

    void onFrame(const VideoFrame& frame, bool preroll) override
    {
        if (preroll)
            return;
        const unsigned count = ++frames;
        width = frame.width;
        height = frame.height;
        if (frameLimit != 0 && count == frameLimit) {
            std::lock_guard<std::mutex> lock(events.mutex);
            events.changed.notify_all();
        }
    }
    bool enough() const { return frameLimit != 0 && frames.load() >= frameLimit; }

    std::atomic<unsigned> frames{0};
    std::atomic<std::uint32_t> width{0};
    std::atomic<std::uint32_t> height{0};

private:
    PlayListener& events;
    unsigned frameLimit;
};

std::string progressText(const PlayListener& listener, unsigned frames, double rate)
{
    std::ostringstream text;
    text << toString(listener.state) << "  " << seconds(listener.position);
    if (listener.duration.count() > 0) {
        text << " / " << seconds(listener.duration) << " [";
        const int width = 20;
        const auto filled = static_cast<int>(
            std::min<double>(1.0, secondsValue(listener.position) / secondsValue(listener.duration)) * width);
        text << std::string(static_cast<std::size_t>(std::max(0, filled)), '#')
             << std::string(static_cast<std::size_t>(width - std::max(0, filled)), '-') << "]";
    }
    text << "  buffering " << listener.buffering << "%  frames " << frames << " (" << std::fixed << std::setprecision(1)
         << rate << " fps)";
    return text.str();
}

// The header's form, or why it cannot be sent; empty when it is good.
std::string parseHeader(const std::string& text, std::pair<std::string, std::string>* header)
{
    // The player refuses these (they would end the request's header line).
    if (text.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
        std::string shown;
        for (char c : text)
            shown += c == '\r' ? "\\r" : c == '\n' ? "\\n" : c == '\0' ? "\\0" : std::string(1, c);
        return "-H '" + shown + "': a header cannot hold CR, LF or NUL; refused";
    }
    const auto colon = text.find(':');
    if (colon == std::string::npos || colon == 0)
        return "-H takes 'Name: value', not '" + text + "'";
    const auto valueStart = text.find_first_not_of(" \t", colon + 1);
    header->first = text.substr(0, colon);
    header->second = valueStart == std::string::npos ? std::string() : text.substr(valueStart);
    return {};
}

std::string toUri(const std::string& location)
{
    if (location.find("://") != std::string::npos)
        return location;
    std::error_code error;
    const auto absolute = std::filesystem::absolute(location, error);
    gchar* uri = g_filename_to_uri((error ? std::filesystem::path(location) : absolute).c_str(), nullptr, nullptr);
    if (uri == nullptr)
        return location;
    std::string result(uri);
    g_free(uri);
    return result;
}

int play(const PlayOptions& options, Output& out)
{
    HttpHeaders headers;
    for (const std::string& text : options.headers) {
        std::pair<std::string, std::string> header;
        const std::string problem = parseHeader(text, &header);
        if (!problem.empty()) {
            out.error("BadArgument", problem);
            return 2;
        }
        headers.push_back(header);
    }
    // GStreamer asserts on a zero rate, and a negative one would play backwards from the start.
    if (!(options.rate > 0.0) || !std::isfinite(options.rate)) {
        std::ostringstream rate;
        rate << options.rate;
        out.error("BadArgument", "--rate takes a number above 0, not " + rate.str());
        return 2;
    }
    if (options.frames > 0 && options.noVideoSink) {
        out.error("BadArgument", "--frames counts frames at the video sink; it cannot go with --no-video-sink");
        return 2;
    }
    watchForInterrupt();
    const std::string uri = toUri(options.location);
    const bool terminal = !out.json() && isatty(STDOUT_FILENO) != 0;

    // Declared before the player, so that they outlive it: the player's
    // destructor stops its thread and the pipeline before they go.
    PlayListener listener(out);
    FrameCounter counter(listener, options.frames);
    static const bool audioOutput = prepareAudioOutput();
    if (!audioOutput && !options.mute)
        out.text("no audio output: playing without sound");
    auto player = std::make_unique<Player>();
    player->setListener(&listener);
    if (!options.noVideoSink)
        player->setVideoSink(&counter);
    player->setMute(options.mute);
    player->setAutoRepeat(options.repeat);
    out.text("playing " + uri);
    out.record({{"event", "playing"}, {"uri", uri}});
    player->setUri(uri, headers);
    player->play();

    bool tracksAsked = options.tracks.empty();
    bool playingSetUp = false;
    std::string reason;
    const auto started = Clock::now();
    {
        std::unique_lock<std::mutex> lock(listener.mutex);
        for (;;) {
            listener.changed.wait_for(lock, std::chrono::milliseconds(200));
            if (interrupted()) {
                reason = "interrupted";
                break;
            }
            if (listener.error) {
                reason = "error";
                break;
            }
            if (listener.ended) {
                reason = "eos";
                break;
            }
            if (counter.enough()) {
                reason = "frames";
                break;
            }
            // Tracks are chosen once the player knows them; the player itself
            // holds a selection back while the pipeline prerolls where
            // GStreamer needs that.
            const bool selectNow = !tracksAsked && listener.mediaInfoSeen;
            const bool setUpNow = !playingSetUp && listener.playingSeen;
            if (selectNow || setUpNow) {
                tracksAsked = tracksAsked || selectNow;
                playingSetUp = playingSetUp || setUpNow;
                // The player is never called with the listener's lock held:
                // it calls the listener under a lock of its own.
                lock.unlock();
                if (selectNow)
                    player->selectTracks(options.tracks);
                // Rate, mute, repetition and the start position apply to a
                // running pipeline, so they are (re)applied once it plays.
                if (setUpNow) {
                    player->setMute(options.mute);
                    player->setAutoRepeat(options.repeat);
                    // The player gives the pipeline its rate with a seek: to
                    // the start position, or to where it is now.
                    if (options.rate != 1.0 || options.seek > 0) {
                        player->setPlaybackRate(options.rate);
                        player->seek(options.seek > 0
                                         ? std::chrono::microseconds(static_cast<std::int64_t>(options.seek * 1e6))
                                         : player->getPosition());
                    }
                }
                lock.lock();
            }
            const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
            const unsigned frames = counter.frames.load();
            const double rate = elapsed > 0 ? frames / elapsed : 0.0;
            if (terminal) {
                std::fputs(("\r\033[K" + progressText(listener, frames, rate)).c_str(), stdout);
                std::fflush(stdout);
                listener.progressShown = true;
            }
        }
        listener.clearProgress();
    }
    // Torn down before the summary, so that "stopped" means it.
    player->setListener(nullptr);
    player->setVideoSink(nullptr);
    player.reset();

    const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    const unsigned frames = counter.frames.load();
    nlohmann::json summary{{"event", "done"},
                           {"reason", reason},
                           {"uri", uri},
                           {"position", secondsValue(listener.position)},
                           {"frames", frames},
                           {"width", counter.width.load()},
                           {"height", counter.height.load()},
                           {"seconds", elapsed}};
    if (listener.duration.count() > 0)
        summary["duration"] = secondsValue(listener.duration);
    std::ostringstream rate;
    rate << std::fixed << std::setprecision(1) << (elapsed > 0 ? frames / elapsed : 0.0);
    if (reason == "error") {
        summary["error"] = toString(*listener.error);
        summary["message"] = listener.errorMessage;
        out.record(summary);
        return 1;
    }
    const std::string what = reason == "eos"      ? "played to the end"
                             : reason == "frames" ? "stopped after " + std::to_string(options.frames) + " frames"
                                                  : "interrupted; player stopped";
    out.text(what + ": " + std::to_string(frames) + " frames (" + rate.str() + " fps) in " +
             seconds(std::chrono::microseconds(static_cast<std::int64_t>(elapsed * 1e6))) + ", position " +
             seconds(listener.position));
    out.record(summary);
    return 0;
}

std::function<int(Output&)> setup(CLI::App& app)
{
    auto options = std::make_shared<PlayOptions>();
    app.add_option("medium", options->location, "a file or a URI (file://, http://, https://, fd://)")->required();
    app.add_option("-H,--header", options->headers, "an HTTP request header 'Name: value' (repeatable)");
    app.add_option("--rate", options->rate,
                   "playback rate, above 0 (2 plays twice as fast); applied with a seek to the current position "
                   "once playing")
        ->capture_default_str();
    app.add_flag("--mute", options->mute, "play without sound");
    app.add_flag("--repeat", options->repeat, "start again at the end (until Ctrl-C or --frames)");
    app.add_option("--track", options->tracks, "a track id to play (repeatable; see the track list)");
    app.add_option("--seek", options->seek, "start at this position, in seconds")->check(CLI::NonNegativeNumber);
    app.add_option("--frames", options->frames, "stop after this many frames");
    app.add_flag("--no-video-sink", options->noVideoSink, "let the pipeline drop the frames instead of receiving them");
    return [options](Output& out) { return play(*options, out); };
}

const CommandRegistration registration{Command{"play", "play a file or a stream headless", setup, 50}};

} // namespace
} // namespace lumiflux_tool
