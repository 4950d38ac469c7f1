#include <cstdlib>

#include "player/player_impl.h"
#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

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

    Internal::RecursiveMutexLock lock(taskMutex);
    tasks.push_back(std::move(task));
    if (g_main_context_is_owner(mainContext.get())) {
        // Added on the player thread (a listener callback, a task, a timer):
        // drained on the loop's next turn, never nested here. Run inline, a
        // task would report to the listener while the callback that queued
        // it still holds the listener lock, and the thread would wait for
        // itself for good.
        Internal::Ref<GSource> idle = Internal::Ref<GSource>::adopt(g_idle_source_new());
        g_source_set_priority(idle.get(), G_PRIORITY_DEFAULT);
        g_source_set_callback(idle.get(), &Impl::idleCheckTaskQueue, this, nullptr);
        g_source_attach(idle.get(), mainContext.get());
    } else {
        g_main_context_invoke(mainContext.get(), &Impl::idleCheckTaskQueue, this);
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
        Internal::RecursiveMutexLock lock(taskMutex);
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
            Internal::MutexLock lock(mediaMutex);
            mediaInfo.swapHttpHeaders(task.httpHeaders);
        }
        updateHttpHeaders(pipelineElements.httpSource().get());
        updateHttpHeaders(pipelineElements.adaptiveDemuxer().get());
        break;
    }
    case Task::Play:
        play();
        break;
    case Task::Pause:
        pause();
        break;
    case Task::Stop:
        destroyPipeline();
        resetPlaybackSettings();
        break;
    case Task::Seek:
        seek(task.position);
        break;
    case Task::ApplyPlaybackRate:
        applyPlaybackRate();
        break;
    case Task::ApplyMute:
        applyMute();
        break;
    case Task::SelectTracks:
        selectTracks(task.trackIds);
        break;
    default:
        break;
    }
}

} // namespace Tevara::Lumiflux
