#include "gst_codec_manager.h"

#include <algorithm>

#include <gst/gst.h>

#include "codec_catalog.h"
#include "core/log_macros.h"
#include "pipeline_video_decoder.h"
#include "pipeline_video_encoder.h"

namespace Tevara::Lumiflux::GstCodecs {

namespace {

// Software codecs share the processors: an encoder keeps about one busy, a
// decoder about half of one, so allow that many at once (at least two).
int maxInstances(bool encoder)
{
    const int processors = static_cast<int>(g_get_num_processors());
    return std::max(2, encoder ? processors : 2 * processors);
}

} // namespace

bool GstCodecManager::init()
{
    GError* error = nullptr;
    if (!gst_init_check(nullptr, nullptr, &error)) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << "GStreamer cannot start: " << (error != nullptr ? error->message : "")
                                       << std::endl;
        if (error != nullptr)
            g_error_free(error);
        return false;
    }
    for (const CodecEntry& entry : codecCatalog()) {
        if (!elementsAvailable(entry)) {
            LUMIFLUX_LOG_DIGIT(0, "main ")
                << entry.id << " left out: GStreamer element " << entry.element << " is not installed" << std::endl;
            continue;
        }
        VideoCodecInfo info;
        info.type = entry.type;
        info.encoder = entry.encoder;
        info.id = entry.id;
        info.priority = entry.priority;
        info.maxInstances = maxInstances(entry.encoder);
        info.hw = false;
        addCodec(Internal::VideoCodecDesc(info, entry.sizeRange, Size{2, 2}));
    }
    return true;
}

std::shared_ptr<VideoEncoder> GstCodecManager::instantiateVideoEncoder(const Internal::VideoCodecDesc& desc)
{
    // A decoder's id may arrive here too (the geometry and support queries
    // ask an encoder): the object then answers those queries and refuses to
    // be configured.
    const CodecEntry* entry = findCodec(desc.getInfo().id);
    if (entry == nullptr)
        return nullptr;
    return std::make_shared<PipelineVideoEncoder>(this, desc, *entry);
}

std::shared_ptr<VideoDecoder> GstCodecManager::instantiateVideoDecoder(const Internal::VideoCodecDesc& desc)
{
    const CodecEntry* entry = findCodec(desc.getInfo().id);
    if (entry == nullptr)
        return nullptr;
    return std::make_shared<PipelineVideoDecoder>(this, desc, *entry);
}

} // namespace Tevara::Lumiflux::GstCodecs
