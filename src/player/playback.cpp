#include <cmath>

#include "player/player_impl.h"
#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

// The tasks that move the pipeline: play, pause, seek, the rate and muting.
// All run on the player thread; failures reach the listener with an empty
// message, as the operation's name says all there is.

namespace Tevara::Lumiflux {

void Player::Impl::play()
{
    Internal::Ref<GstElement> pipe = pipelineElements.playbin();
    if (!pipe)
        return;
    const GstStateChangeReturn result = gst_element_set_state(pipe.get(), GST_STATE_PLAYING);
    descriptorSourceHold.release(); // see pause()
    watchLocalPreroll(result);
    if (result == GST_STATE_CHANGE_FAILURE) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Failed to change the state to PLAYING" << std::endl;
        onError(PlayerError::PlayFailed, "");
    } else {
        eosReached.exchange(false);
        shouldApplyPlaybackRate.exchange(true);
    }
}

void Player::Impl::pause()
{
    Internal::Ref<GstElement> pipe = pipelineElements.playbin();
    if (!pipe)
        return;
    const GstStateChangeReturn result = gst_element_set_state(pipe.get(), GST_STATE_PAUSED);
    // Every element has been moved: a held descriptor source may push now.
    descriptorSourceHold.release();
    watchLocalPreroll(result);
    if (result == GST_STATE_CHANGE_FAILURE) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Failed to change the state to PAUSED" << std::endl;
        onError(PlayerError::PauseFailed, "");
    }
}

void Player::Impl::seek(std::int64_t positionUs)
{
    Internal::Ref<GstElement> pipe = pipelineElements.playbin();
    if (!pipe)
        return;
    waitForHttpAnswer(pipelineSourceAnswer, answerDeadlineFromNow());
    if (!gst_element_seek(pipe.get(), playbackRate.load(), GST_FORMAT_TIME,
                          static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE), GST_SEEK_TYPE_SET,
                          positionUs * 1000, GST_SEEK_TYPE_SET, -1)) {
        // "ms" after a microsecond value: applications match this text as it is.
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Failed to seek / position: " << positionUs << "ms" << std::endl;
        onError(PlayerError::SeekFailed, "");
    }
}

void Player::Impl::applyPlaybackRate()
{
    Internal::Ref<GstElement> pipe = pipelineElements.playbin();
    const double requested = playbackRate.load();
    if (!pipe || appliedPlaybackRate.load() == requested)
        return;
    // Deliberately an on/off rate: the pipeline either plays at normal speed
    // or holds still; only Seek passes the requested rate itself.
    const double rate = (requested != 0.0 || std::isnan(requested)) ? 1.0 : 0.0;
    waitForHttpAnswer(pipelineSourceAnswer, answerDeadlineFromNow());
    if (gst_element_seek(pipe.get(), rate, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SEEK_TYPE_SET,
                         position.load() * 1000, GST_SEEK_TYPE_SET, -1)) {
        appliedPlaybackRate.exchange(rate);
    } else {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Failed to set playback rate" << std::endl;
        onError(PlayerError::ApplyPlaybackRateFailed, "");
    }
}

void Player::Impl::applyMute()
{
    // The PulseAudio sink the audio sink chose, if any: held with a reference,
    // as the audio sink may drop a sink it tried and could not open.
    if (Internal::Ref<GstElement> element = pipelineElements.audioMuteElement())
        g_object_set(element.get(), "mute", mute.load() ? TRUE : FALSE, nullptr);
}

} // namespace Tevara::Lumiflux
