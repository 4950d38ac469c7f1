#include "player/player_impl.h"
#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux {

void Player::Impl::handleHandoff(GstElement*, GstBuffer* buffer, GstPad* pad, Impl* impl)
{
    impl->handOff(buffer, pad, false);
}

void Player::Impl::handlePrerollHandoff(GstElement*, GstBuffer* buffer, GstPad* pad, Impl* impl)
{
    impl->handOff(buffer, pad, true);
}

// Runs on the fake sink's streaming thread. The application's sink is called
// with only sinkCallMutex held, never the listener lock.
void Player::Impl::handOff(GstBuffer* buffer, GstPad* pad, bool preroll)
{
    CallbackScope scope(*this, CallbackScope::Sink);
    // Held while the sink runs: setVideoSink waits for the sink it replaces.
    Internal::MutexLock sinkLock(sinkCallMutex);
    VideoSink* sink = videoSink.load();
    if (!sink || !buffer || !pad)
        return;
    try {
        Internal::Ref<GstCaps> caps = Internal::Ref<GstCaps>::adopt(gst_pad_get_current_caps(pad));
        if (!caps)
            return;
        const int track = currentVideoTrack.load();
        std::shared_ptr<SinkEntry> entry;
        {
            Internal::MutexLock lock(mediaMutex);
            if (track >= 0 && static_cast<size_t>(track) < sinkEntries.size())
                entry = sinkEntries[static_cast<size_t>(track)];
            else
                entry = unassignedSinkEntry;
        }
        std::shared_ptr<GraphicBufferFactory> factory;
        {
            Internal::MutexLock lock(entry->mutex);
            if (!entry->factory || !entry->factory->matches(caps.get()))
                entry->factory = GraphicBufferFactory::fromCaps(caps.get());
            factory = entry->factory;
        }
        if (!factory)
            return;
        VideoFrame frame;
        frame.buffer = factory->create(buffer);
        if (!frame.buffer)
            return;
        frame.trackId = track;
        frame.format = fourcc('N', 'V', '1', '2');
        frame.width = frame.buffer->width;
        frame.height = frame.buffer->height;
        frame.timestamp = std::chrono::microseconds(frame.buffer->timestamp);
        sink->onFrame(frame, preroll);
    } catch (const std::exception& e) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "frame hand-off failed: " << e.what() << std::endl;
    } catch (...) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "frame hand-off failed" << std::endl;
    }
}

} // namespace Tevara::Lumiflux
