#pragma once

// The player's private state and the operations its thread, its timers and
// GStreamer's callbacks run. Split over several files by concept:
// player.cpp (facade, construction, destruction), task_queue.cpp,
// pipeline.cpp, http_headers.cpp, bus_handler.cpp, discovery.cpp,
// track_selection.cpp, frame_handoff.cpp.

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gst/gst.h>
#include <gst/pbutils/pbutils.h>

#include <lumiflux/media_info.h>
#include <lumiflux/player.h>

#include "core/glib_ref.h"
#include "player/http_answer_watch.h"
#include "player/sink_entry.h"
#include "player/source_start_hold.h"

namespace Tevara::Lumiflux {

/** Component prefix of every player log line. */
inline constexpr const char* kPlayerLog = "[lumiflux-player] ";

// Hidden although Player is exported: a nested class takes its enclosing
// class's visibility, and nothing of Impl is part of the binary interface.
struct __attribute__((visibility("hidden"))) Player::Impl {
    struct Task {
        enum Type : std::uint32_t {
            Init = 0,
            Modify,
            Play,
            Pause,
            Stop,
            Seek,
            ApplyPlaybackRate,
            ApplyMute,
            SelectTracks,
            Last,
        };

        Type type = Last;
        std::string uri;
        HttpHeaders httpHeaders;
        std::int64_t position = 0;
        std::vector<int> trackIds;

        Task() = default;
        explicit Task(Type t) : type(t) {}
        Task(Task&&) = default;
        Task& operator=(Task&&) = default;
        Task(const Task&) = delete;
        Task& operator=(const Task&) = delete;
    };

    static const char* taskName(std::uint32_t type);

    /**
     * Marks the current thread as running a call into the application for
     * this player (a listener callback, under listenerMutex, or the video
     * sink) while it lives. A player that such a call destroys or
     * reconfigures must not wait for the very thread that runs the call.
     * Also counts the calls under way, which the destructor waits out.
     */
    class CallbackScope {
    public:
        enum Kind { Listener, Sink };
        CallbackScope(Impl& impl, Kind kind);
        ~CallbackScope();
        CallbackScope(const CallbackScope&) = delete;
        CallbackScope& operator=(const CallbackScope&) = delete;
        /** True when the current thread runs a call of this kind for `impl`. */
        static bool inside(const Impl& impl, Kind kind);

    private:
        static thread_local const CallbackScope* innermost;
        Impl& owner;
        Kind kind;
        const CallbackScope* outer;
    };

    /** Calls `call(listener)` under listenerMutex, when a listener is set. */
    template <typename Call> void notifyListener(Call&& call)
    {
        CallbackScope scope(*this, CallbackScope::Listener); // ends after the lock is released
        std::lock_guard<std::mutex> lock(listenerMutex);
        if (listener)
            call(*listener);
    }
    /** True on the player's own thread or inside one of its calls into the application. */
    bool onOwnThread() const;
    /** Sets the listener; never waits for the current thread's own callback. */
    void replaceListener(PlayerListener* replacement);
    /** Sets the sink and waits for a call to the previous one, unless the current thread makes it. */
    void replaceVideoSink(VideoSink* replacement);

    Impl();
    ~Impl();

    // ---- facade and task queue (player.cpp, task_queue.cpp)
    void addTask(Task&& task, bool unique = false);
    void checkTaskQueue();
    void runTask(Task& task);
    static gboolean idleCheckTaskQueue(gpointer impl);
    static gboolean quitMainLoop(gpointer impl);
    void loop();
    void resetPlaybackSettings();

    // ---- pipeline (pipeline.cpp, http_headers.cpp)
    void createPipeline(std::string&& uri, HttpHeaders&& headers);
    void destroyPipeline();
    static void handleSourceSetup(GstBin* bin, GstElement* source, Impl* impl);
    static void handleDeepElementAdded(GstBin* bin, GstBin* subBin, GstElement* element, Impl* impl);
    static void handleElementAdded(GstBin* bin, GstElement* element, Impl* impl);
    static void handleDiscovererSourceSetup(GstDiscoverer* discoverer, GstElement* source, Impl* impl);
    static void handleDiscovererElementAdded(GstBin* bin, GstBin* subBin, GstElement* element, Impl* impl);
    void setupNestedHttpSource(GstBin* subBin, GstElement* element);
    bool setupHttpSource(const char* factoryName, GstElement* element);
    bool setupAdaptiveDemuxer(const char* factoryName, GstElement* element);
    void updateHttpHeaders(GstElement* element);
    HttpHeaders currentHttpHeaders();
    void waitForHttpAnswer(Internal::HttpAnswerWatch& watch);

    // ---- bus, state and errors (bus_handler.cpp)
    static GstBusSyncReply handleGstMessage(GstBus* bus, GstMessage* message, gpointer impl);
    static gboolean positionSourceCallback(gpointer impl);
    static gboolean durationSourceCallback(gpointer impl);
    void handleStateChanged(GstMessage* message);
    void onStateChanged(PlayerState newState);
    void onDurationChanged(std::chrono::microseconds value);
    void onPositionChanged(std::chrono::microseconds value);
    void onError(PlayerError error, const std::string& message);
    void onError(const GError* error);
    void pause();
    void applyPlaybackRate();

    // ---- discovery and tracks (discovery.cpp, track_selection.cpp)
    void startAsyncDiscovery();
    void discoverCurrentUri();
    void abortDiscoveries();
    static void onDiscovered(GstDiscoverer* discoverer, GstDiscovererInfo* info, GError* error, Impl* impl);
    void handleStreamCollection(GstMessage* message);
    void watchTrackTags(GstStreamCollection* collection);
    void unwatchTrackTagsLocked();
    static void handleTrackTagsChanged(GstStreamCollection* collection, GstStream* stream, GParamSpec* property,
                                       Impl* impl);
    void onMediaInfoReady(MediaInfo& info);
    void handleStreamsSelected(GstMessage* message);
    void selectTracks(const std::vector<int>& trackIds);
    void sendSelectStreams(GList* streamIds);
    void runPendingCleanups();

    // ---- work held back while the pipeline prerolls (preroll_wait.cpp)
    /** True while a state change is pending; `current` receives the state reached so far. */
    bool pipelinePrerolling(GstState* current = nullptr);
    void schedulePrerollCheck();
    static gboolean prerollCheck(gpointer impl);
    void watchLocalPreroll(GstStateChangeReturn stateChange);
    void stopPrerollWatchdog();
    static gboolean prerollWatchdog(gpointer impl);

    // ---- frames (frame_handoff.cpp)
    static void handleHandoff(GstElement* sink, GstBuffer* buffer, GstPad* pad, Impl* impl);
    static void handlePrerollHandoff(GstElement* sink, GstBuffer* buffer, GstPad* pad, Impl* impl);
    void handOff(GstBuffer* buffer, GstPad* pad, bool preroll);

    // ---- fields
    std::atomic<PlayerState> state{PlayerState::Empty};
    std::atomic<std::int64_t> duration{0};
    std::atomic<std::int64_t> position{0};
    std::atomic<std::int32_t> bufferingPercent{0};
    std::atomic<bool> eosReached{false};
    std::atomic<bool> playWhenReady{false};
    std::atomic<bool> shouldApplyPlaybackRate{false};
    std::atomic<double> playbackRate{1.0};
    std::atomic<double> appliedPlaybackRate{1.0};
    std::atomic<bool> autoRepeat{false};
    std::atomic<bool> mute{false};

    // One entry per track for the frame hand-off, and the video track the
    // fake sink currently receives. The hand-off runs on a streaming thread
    // while a new stream collection may replace the entries on another one,
    // hence the lock (held only to copy what a frame needs, never around a
    // call into the application).
    std::vector<std::shared_ptr<SinkEntry>> sinkEntries;
    // Frames that arrive before any stream collection names their track.
    std::shared_ptr<SinkEntry> unassignedSinkEntry = std::make_shared<SinkEntry>();
    std::atomic<int> currentVideoTrack{-1};
    std::mutex sinkMutex;
    // Written by the application without a lock, read by the hand-off; atomic
    // so that the read is well defined.
    std::atomic<VideoSink*> videoSink{nullptr};
    // Held by the hand-off while it calls the sink, so that setVideoSink can
    // wait for a call to the sink it replaces.
    std::mutex sinkCallMutex;
    // Calls into the application under way (see CallbackScope).
    std::atomic<int> callbacksRunning{0};

    PlayerListener* listener = nullptr;
    std::mutex listenerMutex;

    // The medium, its stream identifiers by collection position. Replaced by
    // the stream collection handling on a streaming thread and read by the
    // player thread and the element callbacks: guarded by mediaMutex.
    MediaInfo mediaInfo;
    std::vector<std::string> streamIds;
    std::mutex mediaMutex;
    // The last collection, watched for tags that reach its streams late;
    // released with the pipeline, whose streaming threads notify.
    Internal::Ref<GstStreamCollection> watchedCollection;
    gulong tagWatchHandler = 0;
    std::mutex tagWatchMutex;

    std::thread thread;
    std::recursive_mutex taskMutex;
    GMainLoop* mainLoop = nullptr;
    GMainContext* mainContext = nullptr;
    GSource* positionSource = nullptr;
    GSource* durationSource = nullptr;

    // Written on the player thread (pipeline) or by element callbacks on
    // streaming threads, read on other threads: atomics.
    std::atomic<GstBus*> bus{nullptr};
    std::atomic<GstElement*> pipeline{nullptr};
    std::atomic<GstElement*> videoconvert{nullptr};
    std::atomic<GstElement*> videoSinkElement{nullptr};
    std::atomic<GstElement*> outputBin{nullptr};
    // Held with a reference of our own: the audio sink may drop a PulseAudio
    // sink it tried and could not open, and a later ApplyMute must not touch
    // freed memory.
    Internal::Ref<GstElement> audioMuteElement;
    std::mutex audioMuteMutex;
    std::atomic<GstElement*> adaptiveDemuxer{nullptr};
    std::atomic<GstElement*> httpSource{nullptr};
    // The pipeline's HTTP source again, with a reference of our own: taken
    // down before the pipeline (see destroyPipeline).
    Internal::Ref<GstElement> pipelineSource;
    std::mutex sourceMutex;
    // Whether the pipeline's and the discoverer's HTTP sources wait for an
    // answer: neither is flushed or taken down before it has come, for a
    // short while (see http_answer_watch.h).
    Internal::HttpAnswerWatch pipelineSourceAnswer;
    Internal::HttpAnswerWatch discovererSourceAnswer;
    // A descriptor source's first data, held until the state change that
    // started it has reached the decoding bin (see source_start_hold.h).
    Internal::SourceStartHold descriptorSourceHold;

    GstDiscoverer* discoverer = nullptr;
    // A discovery waits for the pipeline to preroll, and how often it has
    // checked (player thread only).
    std::atomic<bool> discoveryScheduled{false};
    int discoveryWaits = 0;
    // A selection that waits for the pipeline to preroll, and the check that
    // runs while anything waits (player thread only).
    struct StreamListFree {
        void operator()(GList* list) const { g_list_free_full(list, g_free); }
    };
    std::unique_ptr<GList, StreamListFree> pendingSelection;
    GSource* prerollCheckSource = nullptr;
    // Bounds the preroll of a local medium (player thread only; see
    // preroll_wait.cpp).
    GSource* prerollWatchdogSource = nullptr;
    // Discoveries queued and not yet reported. The destructor waits for them
    // before releasing the discoverer: stopping one that is still processing
    // can deadlock inside GStreamer (it changes its pipeline's state under a
    // lock that the pipeline's own callbacks take).
    int pendingDiscoveries = 0;
    // The source of the discovery under way (a reference), or null. Its own
    // lock: the discoverer sets the source up while discoveryMutex is held by
    // the queuing of the URI.
    GstElement* discovererSource = nullptr;
    std::mutex discovererSourceMutex;
    std::mutex discoveryMutex;
    std::condition_variable discoveryDone;

    std::deque<Task> tasks;
    // Set first thing by the destructor: tasks still queued are dropped
    // unrun, even those whose idle source the loop dispatches while the
    // destructor lets it finish the discoveries under way.
    std::atomic<bool> shuttingDown{false};
    std::array<std::atomic<int>, Task::Last> taskTypeCounter{};

    std::vector<std::function<void()>> pendingCleanups;
    std::mutex cleanupMutex;
};

} // namespace Tevara::Lumiflux
