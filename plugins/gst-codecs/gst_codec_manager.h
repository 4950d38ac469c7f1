#pragma once

#include <mutex>
#include <vector>

#include <lumiflux/codec_base.h>

#include "codec_catalog.h"

namespace Tevara::Lumiflux::GstCodecs {

/**
 * The module's codec manager: one codec per encoder or decoder element of
 * the GStreamer registry that runs on this machine, hardware ones first.
 */
class GstCodecManager : public Internal::BaseCodecManager {
public:
    /** Initialises GStreamer if the application has not and reads the registry once; false when GStreamer cannot start.
     */
    bool init() override;
    std::shared_ptr<VideoEncoder> instantiateVideoEncoder(const Internal::VideoCodecDesc& desc) override;
    std::shared_ptr<VideoDecoder> instantiateVideoDecoder(const Internal::VideoCodecDesc& desc) override;

private:
    const CodecEntry* findEntry(const std::string& id) const;

    std::once_flag discovered;
    // Filled once, then only read: the codec objects keep references into it.
    std::vector<CodecEntry> entries;
};

} // namespace Tevara::Lumiflux::GstCodecs
