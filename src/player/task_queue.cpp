#include <cstdlib>

#include "core/glib_ref.h"
#include "core/log_macros.h"
#include "player/player_impl.h"

namespace Tevara::Lumiflux {

const char* Player::Impl::taskName(std::uint32_t type)
{
    switch (type) {
    case Task::Init:
        return "Init";
    case Task::Modify:
        return "Modify";
    case Task::Play:
        return "Play";
    case Task::Pause:
        return "Pause";
    case Task::Stop:
        return "Stop";
    case Task::Seek:
        return "Seek";
    case Task::ApplyPlaybackRate:
        return "ApplyPlaybackRate";
    case Task::ApplyMute:
        return "ApplyMute";
    case Task::SelectTracks:
        return "SelectTracks";
    case Task::Last:
        return "Last";
    default:
        return "";
    }
}

void Player::Impl::addTask(Task&& task, bool unique)
{
    LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << taskName(task.type) << std::endl;
    // Only the facade makes tasks, never of type Last: anything else is a bug
    // in this file's callers, not something an application can cause.
    if (task.type >= Task::Last)
        std::abort();
    auto& counter = taskTypeCounter[task.type];
    // A queued task of a coalescable type reads the newest value from the
    // shared state when it runs, so a second one would do nothing new.
    if (unique && counter.load() > 0)
        return;
    ++counter;

    std::lock_guard<std::recursive_mutex> lock(taskMutex);
    tasks.push_back(std::move(task));
    if (g_main_context_is_owner(mainContext)) {
        // Added on the player thread (a listener callback, a task, a timer):
        // drained on the loop's next turn, never nested here. Run inline, a
        // task would report to the listener while the callback that queued
        // it still holds the listener lock, and the thread would wait for
        // itself for good.
        Internal::Ref<GSource> idle = Internal::Ref<GSource>::adopt(g_idle_source_new());
        g_source_set_priority(idle.get(), G_PRIORITY_DEFAULT);
        g_source_set_callback(idle.get(), &Impl::idleCheckTaskQueue, this, nullptr);
        g_source_attach(idle.get(), mainContext);
    } else {
        g_main_context_invoke(mainContext, &Impl::idleCheckTaskQueue, this);
    }
}

gboolean Player::Impl::idleCheckTaskQueue(gpointer data)
{
    static_cast<Impl*>(data)->checkTaskQueue();
    return G_SOURCE_REMOVE;
}

void Player::Impl::checkTaskQueue()
{
    std::deque<Task> local;
    {
        std::lock_guard<std::recursive_mutex> lock(taskMutex);
        local.swap(tasks);
    }
    while (!local.empty()) {
        Task task = std::move(local.front());
        local.pop_front();
        if (shuttingDown.load()) {
            --taskTypeCounter[task.type];
            continue;
        }
        auto& counter = taskTypeCounter[task.type];
        if (counter.load() <= 0) {
            LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "taskTypeCounter[taskTypeIndex] > 0" << std::endl;
            std::abort();
        }
        --counter;
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "BEFORE task: " << taskName(task.type) << std::endl;
        runTask(task);
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "AFTER task: " << taskName(task.type) << std::endl;
    }
}

void Player::Impl::runTask(Task& task)
{
    GstElement* pipe = pipeline.load();
    switch (task.type) {
    case Task::Init: {
        eosReached.exchange(false);
        duration.exchange(0);
        position.exchange(0);
        bufferingPercent.exchange(0);
        onStateChanged(PlayerState::Empty);
        resetPlaybackSettings();
        createPipeline(std::move(task.uri), std::move(task.httpHeaders));
        break;
    }
    case Task::Modify: {
        {
            std::lock_guard<std::mutex> lock(mediaMutex);
            mediaInfo.swapHttpHeaders(task.httpHeaders);
        }
        updateHttpHeaders(httpSource.load());
        updateHttpHeaders(adaptiveDemuxer.load());
        break;
    }
    case Task::Play: {
        if (!pipe)
            break;
        const GstStateChangeReturn result = gst_element_set_state(pipe, GST_STATE_PLAYING);
        descriptorSourceHold.release(); // see pause()
        watchLocalPreroll(result);
        if (result == GST_STATE_CHANGE_FAILURE) {
            LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Failed to change the state to PLAYING" << std::endl;
            onError(PlayerError::PlayFailed, "");
        } else {
            eosReached.exchange(false);
            shouldApplyPlaybackRate.exchange(true);
        }
        break;
    }
    case Task::Pause:
        pause();
        break;
    case Task::Stop:
        destroyPipeline();
        resetPlaybackSettings();
        break;
    case Task::Seek:
        if (!pipe)
            break;
        waitForHttpAnswer(pipelineSourceAnswer);
        if (!gst_element_seek(pipe, playbackRate.load(), GST_FORMAT_TIME,
                              static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
                              GST_SEEK_TYPE_SET, task.position * 1000, GST_SEEK_TYPE_SET, -1)) {
            // "ms" after a microsecond value: applications match this text as it is.
            LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Failed to seek / position: " << task.position << "ms" << std::endl;
            onError(PlayerError::SeekFailed, "");
        }
        break;
    case Task::ApplyPlaybackRate:
        applyPlaybackRate();
        break;
    case Task::ApplyMute: {
        Internal::Ref<GstElement> element;
        {
            std::lock_guard<std::mutex> lock(audioMuteMutex);
            element = audioMuteElement;
        }
        if (element)
            g_object_set(element.get(), "mute", mute.load() ? TRUE : FALSE, nullptr);
        break;
    }
    case Task::SelectTracks:
        selectTracks(task.trackIds);
        break;
    default:
        break;
    }
}

} // namespace Tevara::Lumiflux
