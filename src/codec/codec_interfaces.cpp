// Out-of-line destructors give each interface one home for its vtable and
// type information, so dynamic_cast works across the plug-in boundary.

#include <lumiflux/codec.h>

namespace Tevara::Lumiflux {

VideoCodecExtendedInfo::~VideoCodecExtendedInfo() = default;
VideoEncoderListener::~VideoEncoderListener() = default;
VideoDecoderListener::~VideoDecoderListener() = default;
CodecManager::~CodecManager() = default;

VideoEncoder::VideoEncoder() = default;
VideoEncoder::~VideoEncoder() = default;

void VideoEncoder::lockAndSetListener(VideoEncoderListener* newListener)
{
    // Recursive: a listener call running on this thread may replace itself.
    std::lock_guard<std::recursive_mutex> lock(listenerMutex);
    listener = newListener;
}

VideoDecoder::VideoDecoder() = default;
VideoDecoder::~VideoDecoder() = default;

void VideoDecoder::lockAndSetListener(VideoDecoderListener* newListener)
{
    std::lock_guard<std::recursive_mutex> lock(listenerMutex);
    listener = newListener;
}

} // namespace Tevara::Lumiflux
