#pragma once

// The player's private state and the operations its thread, its timers and
// GStreamer's callbacks run. Split over several files by concept:
// player.cpp (facade, construction, destruction), task_queue.cpp,
// playback.cpp (the tasks that move the pipeline), pipeline.cpp and
// pipeline_owner.cpp, http_headers.cpp, bus_handler.cpp, discovery.cpp,
// track_selection.cpp, preroll_wait.cpp, frame_handoff.cpp, and
// gst_quirks.cpp (what the GStreamer and libsoup versions need worked
// around).
//
// Locks, by concern, in the order they are taken (a thread holding one may
// take those below it, never one above it):
//
//  1. Calls into the application: listenerMutex (every listener call) and
//     sinkCallMutex (every video sink call). The application may call any
//     player operation from inside, so every lock below may be taken under
//     them. They are never held together by the player itself.
//  2. The task queue: taskMutex (recursive), held only to queue or to take
//     the queued tasks.
//  3. Discovery: discoveryMutex, then discovererSourceMutex. The first is
//     held while a URI is queued on the discoverer, which sets its source up
//     on the same thread and records it under the second; the source's
//     set-up reads the headers (media state) and starts its answer watch.
//  4. Media state: mediaMutex (the medium, its stream identifiers, the
//     per-track sink entries, the tag watch), then cleanupMutex (selections
//     waiting for their confirmation).
//  5. Leaves, under which nothing else is taken: the pipeline owner's lock
//     (pipeline_owner.h), each HTTP answer watch's, the descriptor source
//     hold's and each sink entry's.
//
// The fields that a lock guards say so (LUMIFLUX_GUARDED_BY), and clang's
// thread-safety analysis checks every access (the thread-safety test stage
// builds the player with -Wthread-safety -Werror). Fields touched only on
// the player thread say so in a comment; the scalars the public calls
// exchange between threads are atomics.

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

#include "core/thread_safety.h"
#include "player/http_answer_watch.h"
#include "player/pipeline_owner.h"
#include "player/sink_entry.h"
#include "player/source_start_hold.h"
#include <lumiflux/gst_ref.h>

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
    template <typename Call> void notifyListener(Call&& call) LUMIFLUX_EXCLUDES(listenerMutex)
    {
        CallbackScope scope(*this, CallbackScope::Listener); // ends after the lock is released
        Internal::MutexLock lock(listenerMutex);
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
    void destroyPipeline(std::chrono::steady_clock::time_point answerDeadline = answerDeadlineFromNow());
    static void handleSourceSetup(GstBin* bin, GstElement* source, Impl* impl);
    static void handleDeepElementAdded(GstBin* bin, GstBin* subBin, GstElement* element, Impl* impl);
    static void handleElementAdded(GstBin* bin, GstElement* element, Impl* impl);
    void setupNestedHttpSource(GstBin* subBin, GstElement* element);
    bool setupHttpSource(const char* factoryName, GstElement* element);
    bool setupAdaptiveDemuxer(const char* factoryName, GstElement* element);
    void updateHttpHeaders(GstElement* element);
    HttpHeaders currentHttpHeaders() LUMIFLUX_EXCLUDES(mediaMutex);
    /** How long a request that is out may take to be answered, from now. */
    static std::chrono::steady_clock::time_point answerDeadlineFromNow();
    void waitForHttpAnswer(Internal::HttpAnswerWatch& watch, std::chrono::steady_clock::time_point deadline);

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

    // ---- the tasks that move the pipeline (playback.cpp)
    void play();
    void pause();
    void seek(std::int64_t positionUs);
    void applyPlaybackRate();
    void applyMute();

    // ---- discovery and tracks (discovery.cpp, track_selection.cpp)
    void startAsyncDiscovery();
    void discoverCurrentUri() LUMIFLUX_EXCLUDES(discoveryMutex);
    void abortDiscoveries(std::chrono::steady_clock::time_point answerDeadline) LUMIFLUX_EXCLUDES(discoveryMutex);
    static void onDiscovered(GstDiscoverer* discoverer, GstDiscovererInfo* info, GError* error, Impl* impl);
    static void handleDiscovererSourceSetup(GstDiscoverer* discoverer, GstElement* source, Impl* impl);
    static void handleDiscovererElementAdded(GstBin* bin, GstBin* subBin, GstElement* element, Impl* impl);
    void handleStreamCollection(GstMessage* message);
    void watchTrackTags(GstStreamCollection* collection);
    void unwatchTrackTagsLocked() LUMIFLUX_REQUIRES(mediaMutex);
    static void handleTrackTagsChanged(GstStreamCollection* collection, GstStream* stream, GParamSpec* property,
                                       Impl* impl);
    void onMediaInfoReady(MediaInfo& info);
    void handleStreamsSelected(GstMessage* message);
    void selectTracks(const std::vector<int>& trackIds);
    void sendSelectStreams(GList* streamIds);
    void runPendingCleanups() LUMIFLUX_EXCLUDES(cleanupMutex);

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

    // ---- calls into the application (lock group 1)
    PlayerListener* listener LUMIFLUX_GUARDED_BY(listenerMutex) = nullptr;
    Internal::Mutex listenerMutex;
    // Written by the application without a lock, read by the hand-off; atomic
    // so that the read is well defined.
    std::atomic<VideoSink*> videoSink{nullptr};
    // Held by the hand-off while it calls the sink, so that setVideoSink can
    // wait for a call to the sink it replaces.
    Internal::Mutex sinkCallMutex;
    // Calls into the application under way (see CallbackScope).
    std::atomic<int> callbacksRunning{0};

    // ---- media state (lock group 4)
    // The medium and its stream identifiers by collection position: replaced
    // by the stream collection handling on a streaming thread, read by the
    // player thread and the element callbacks.
    Internal::Mutex mediaMutex;
    MediaInfo mediaInfo LUMIFLUX_GUARDED_BY(mediaMutex);
    std::vector<std::string> streamIds LUMIFLUX_GUARDED_BY(mediaMutex);
    // One entry per track for the frame hand-off (held only to copy what a
    // frame needs, never around a call into the application), and the video
    // track the fake sink currently receives.
    std::vector<std::shared_ptr<SinkEntry>> sinkEntries LUMIFLUX_GUARDED_BY(mediaMutex);
    // Frames that arrive before any stream collection names their track.
    const std::shared_ptr<SinkEntry> unassignedSinkEntry = std::make_shared<SinkEntry>();
    std::atomic<int> currentVideoTrack{-1};
    // The last collection, watched for tags that reach its streams late;
    // released with the pipeline, whose streaming threads notify.
    Internal::Ref<GstStreamCollection> watchedCollection LUMIFLUX_GUARDED_BY(mediaMutex);
    gulong tagWatchHandler LUMIFLUX_GUARDED_BY(mediaMutex) = 0;
    std::vector<std::function<void()>> pendingCleanups LUMIFLUX_GUARDED_BY(cleanupMutex);
    Internal::Mutex cleanupMutex;

    // ---- the player thread and its loop
    std::thread thread;
    // Player thread only, from loop() to its end.
    Internal::Ref<GMainLoop> mainLoop;
    const Internal::Ref<GMainContext> mainContext = Internal::Ref<GMainContext>::adopt(g_main_context_new());
    Internal::Ref<GSource> positionSource;
    Internal::Ref<GSource> durationSource;

    // ---- the pipeline: its elements, each with a reference (pipeline_owner.h)
    Internal::PipelineOwner pipelineElements;
    // Whether the pipeline's and the discoverer's HTTP sources wait for an
    // answer: neither is flushed or taken down before it has come, for a
    // short while (see http_answer_watch.h).
    Internal::HttpAnswerWatch pipelineSourceAnswer;
    Internal::HttpAnswerWatch discovererSourceAnswer;
    // A descriptor source's first data, held until the state change that
    // started it has reached the decoding bin (see source_start_hold.h).
    Internal::SourceStartHold descriptorSourceHold;

    // ---- discovery (lock group 3)
    Internal::Mutex discoveryMutex;
    Internal::Ref<GstDiscoverer> discoverer LUMIFLUX_GUARDED_BY(discoveryMutex);
    // Discoveries queued and not yet reported. The destructor waits for them
    // before releasing the discoverer: stopping one that is still processing
    // can deadlock inside GStreamer (it changes its pipeline's state under a
    // lock that the pipeline's own callbacks take).
    int pendingDiscoveries LUMIFLUX_GUARDED_BY(discoveryMutex) = 0;
    Internal::ConditionVariable discoveryDone;
    // The source of the discovery under way, or none. Its own lock: the
    // discoverer sets the source up while discoveryMutex is held by the
    // queuing of the URI.
    Internal::Mutex discovererSourceMutex LUMIFLUX_ACQUIRED_AFTER(discoveryMutex);
    Internal::Ref<GstElement> discovererSource LUMIFLUX_GUARDED_BY(discovererSourceMutex);
    // A discovery waits for the pipeline to preroll, and how often it has
    // checked (player thread only).
    std::atomic<bool> discoveryScheduled{false};
    int discoveryWaits = 0;

    // ---- work held back while the pipeline prerolls (player thread only)
    // A selection that waits for the pipeline to preroll, and the check that
    // runs while anything waits.
    struct StreamListFree {
        void operator()(GList* list) const { g_list_free_full(list, g_free); }
    };
    std::unique_ptr<GList, StreamListFree> pendingSelection;
    Internal::Ref<GSource> prerollCheckSource;
    // Bounds the preroll of a local medium (see preroll_wait.cpp).
    Internal::Ref<GSource> prerollWatchdogSource;

    // ---- the task queue (lock group 2)
    Internal::RecursiveMutex taskMutex;
    std::deque<Task> tasks LUMIFLUX_GUARDED_BY(taskMutex);
    // Set first thing by the destructor: tasks still queued are dropped
    // unrun, even those whose idle source the loop dispatches while the
    // destructor lets it finish the discoveries under way.
    std::atomic<bool> shuttingDown{false};
    std::array<std::atomic<int>, Task::Last> taskTypeCounter{};
};

} // namespace Tevara::Lumiflux
