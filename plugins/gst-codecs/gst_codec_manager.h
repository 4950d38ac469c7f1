#pragma once

#include <lumiflux/codec_base.h>

namespace Tevara::Lumiflux::GstCodecs {

/**
 * The module's codec manager: one codec per catalog entry whose GStreamer
 * elements are installed on this machine.
 */
class GstCodecManager : public Internal::BaseCodecManager {
public:
    /** Initialises GStreamer if the application has not; false when it cannot. */
    bool init() override;
    std::shared_ptr<VideoEncoder> instantiateVideoEncoder(const Internal::VideoCodecDesc& desc) override;
    std::shared_ptr<VideoDecoder> instantiateVideoDecoder(const Internal::VideoCodecDesc& desc) override;
};

} // namespace Tevara::Lumiflux::GstCodecs
