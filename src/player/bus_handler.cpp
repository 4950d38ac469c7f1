#include "player/error_mapping.h"
#include "player/player_impl.h"
#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux {

namespace Internal {

PlayerError playerErrorFromGError(const GError* error)
{
    if (!error)
        return PlayerError::Unknown;
    if (error->domain == GST_RESOURCE_ERROR) {
        switch (error->code) {
        case GST_RESOURCE_ERROR_NOT_FOUND:
            return PlayerError::NotFound;
        case GST_RESOURCE_ERROR_BUSY:
            return PlayerError::ResourceBusy;
        case GST_RESOURCE_ERROR_OPEN_READ:
        case GST_RESOURCE_ERROR_READ:
            return PlayerError::ReadFailed;
        case GST_RESOURCE_ERROR_SEEK:
            return PlayerError::SeekFailed;
        default:
            return PlayerError::ResourceFailed;
        }
    }
    if (error->domain == GST_STREAM_ERROR)
        return PlayerError::StreamFailed;
    return PlayerError::Unknown;
}

} // namespace Internal

GstBusSyncReply Player::Impl::handleGstMessage(GstBus*, GstMessage* message, gpointer data)
{
    auto* impl = static_cast<Impl*>(data);
    // Runs on whichever thread posts the message; nothing may escape into C.
    try {
        switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_WARNING: {
            GError* raw = nullptr;
            gchar* debug = nullptr;
            gst_message_parse_warning(message, &raw, &debug);
            Internal::Ref<GError> error = Internal::Ref<GError>::adopt(raw);
            g_autofree gchar* debugText = debug;
            LUMIFLUX_LOG_DIGIT(0, kPlayerLog)
                << "WARNING from element " << GST_OBJECT_NAME(GST_MESSAGE_SRC(message)) << ": " << error->message
                << " / domain: " << g_quark_to_string(error->domain) << " / code: " << error->code << std::endl;
            LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Warning details: " << (debugText ? debugText : "") << std::endl;
            break;
        }
        case GST_MESSAGE_ERROR: {
            GError* raw = nullptr;
            gchar* debug = nullptr;
            gst_message_parse_error(message, &raw, &debug);
            Internal::Ref<GError> error = Internal::Ref<GError>::adopt(raw);
            g_autofree gchar* debugText = debug;
            LUMIFLUX_LOG_DIGIT(0, kPlayerLog)
                << "ERROR from element " << GST_OBJECT_NAME(GST_MESSAGE_SRC(message)) << ": " << error->message
                << " / domain: " << g_quark_to_string(error->domain) << " / code: " << error->code << std::endl;
            LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Error details: " << (debugText ? debugText : "") << std::endl;
            impl->pipelineSourceAnswer.failed(GST_MESSAGE_SRC(message));
            impl->onError(error.get());
            break;
        }
        case GST_MESSAGE_EOS:
            LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "GST_MESSAGE_EOS" << std::endl;
            if (impl->autoRepeat.load()) {
                impl->addTask(Task(Task::Seek));
            } else {
                impl->eosReached.exchange(true);
                impl->addTask(Task(Task::Pause));
            }
            break;
        case GST_MESSAGE_BUFFERING: {
            gint percent = 0;
            gst_message_parse_buffering(message, &percent);
            if (impl->bufferingPercent.exchange(percent) != percent) {
                impl->notifyListener([&](PlayerListener& l) { l.onBufferingChanged(percent); });
            }
            break;
        }
        case GST_MESSAGE_STATE_CHANGED:
            if (GST_MESSAGE_SRC(message) == GST_OBJECT_CAST(impl->pipelineElements.playbin().get()))
                impl->handleStateChanged(message);
            break;
        case GST_MESSAGE_DURATION_CHANGED: {
            gint64 nanoseconds = 0;
            Internal::Ref<GstElement> pipe = impl->pipelineElements.playbin();
            if (pipe && gst_element_query_duration(pipe.get(), GST_FORMAT_TIME, &nanoseconds))
                impl->onDurationChanged(std::chrono::microseconds(nanoseconds / 1000));
            break;
        }
        case GST_MESSAGE_LATENCY:
            LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "GST_MESSAGE_LATENCY" << std::endl;
            break;
        case GST_MESSAGE_STREAM_COLLECTION:
            impl->handleStreamCollection(message);
            break;
        case GST_MESSAGE_STREAMS_SELECTED:
            impl->handleStreamsSelected(message);
            break;
        default:
            break;
        }
    } catch (const std::exception& e) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "exception in the bus handler: " << e.what() << std::endl;
    } catch (...) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "exception in the bus handler" << std::endl;
    }
    return GST_BUS_PASS;
}

void Player::Impl::handleStateChanged(GstMessage* message)
{
    GstState oldState = GST_STATE_VOID_PENDING;
    GstState newState = GST_STATE_VOID_PENDING;
    gst_message_parse_state_changed(message, &oldState, &newState, nullptr);
    if (oldState == newState)
        return;
    LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "State changed from " << static_cast<int>(oldState) << " to "
                                      << static_cast<int>(newState) << std::endl;

    if (newState == GST_STATE_PAUSED) {
        gint64 nanoseconds = 0;
        Internal::Ref<GstElement> pipe = pipelineElements.playbin();
        if (pipe && gst_element_query_position(pipe.get(), GST_FORMAT_TIME, &nanoseconds))
            onPositionChanged(std::chrono::microseconds(nanoseconds / 1000));
        onStateChanged(eosReached.load() ? PlayerState::EOS : PlayerState::Paused);
    } else if (newState == GST_STATE_PLAYING) {
        if (shouldApplyPlaybackRate.load()) {
            LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "shouldApplyPlaybackRate" << std::endl;
            addTask(Task(Task::ApplyPlaybackRate));
            shouldApplyPlaybackRate.exchange(false);
        }
        onStateChanged(PlayerState::Playing);
    } else {
        onStateChanged(PlayerState::Empty);
    }
}

void Player::Impl::onStateChanged(PlayerState newState)
{
    if (state.load() == newState)
        return;
    const PlayerState oldState = state.exchange(newState);
    if (oldState == newState)
        return;
    notifyListener([&](PlayerListener& l) { l.onStateChanged(oldState, newState); });
}

void Player::Impl::onDurationChanged(std::chrono::microseconds value)
{
    if (duration.exchange(value.count()) == value.count())
        return;
    notifyListener([&](PlayerListener& l) { l.onDurationChanged(value); });
}

void Player::Impl::onPositionChanged(std::chrono::microseconds value)
{
    if (position.exchange(value.count()) == value.count())
        return;
    notifyListener([&](PlayerListener& l) { l.onPositionChanged(value); });
}

gboolean Player::Impl::durationSourceCallback(gpointer data)
{
    auto* impl = static_cast<Impl*>(data);
    Internal::Ref<GstElement> pipe = impl->pipelineElements.playbin();
    gint64 nanoseconds = 0;
    if (pipe && gst_element_query_duration(pipe.get(), GST_FORMAT_TIME, &nanoseconds))
        impl->onDurationChanged(std::chrono::microseconds(nanoseconds / 1000));
    return G_SOURCE_CONTINUE;
}

gboolean Player::Impl::positionSourceCallback(gpointer data)
{
    auto* impl = static_cast<Impl*>(data);
    // Not polled while paused: the PAUSED transition reports the position once.
    if (impl->state.load() != PlayerState::Playing)
        return G_SOURCE_CONTINUE;
    Internal::Ref<GstElement> pipe = impl->pipelineElements.playbin();
    gint64 nanoseconds = 0;
    if (pipe && gst_element_query_position(pipe.get(), GST_FORMAT_TIME, &nanoseconds))
        impl->onPositionChanged(std::chrono::microseconds(nanoseconds / 1000));
    return G_SOURCE_CONTINUE;
}

void Player::Impl::onError(const GError* error)
{
    onError(Internal::playerErrorFromGError(error), error->message ? error->message : "");
}

} // namespace Tevara::Lumiflux
