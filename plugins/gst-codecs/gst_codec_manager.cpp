#include "gst_codec_manager.h"

#include <gst/gst.h>

#include "pipeline_video_decoder.h"
#include "pipeline_video_encoder.h"
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::GstCodecs {

namespace {

// What the application gets: its references share one owner of the codec.
// When the last of them goes, the codec stops first: on an application
// thread that waits for the streaming threads, so no listener call runs
// afterwards; on the codec's own streaming thread (dropped from a listener
// call) without waiting for itself. The object goes with the last
// reference of any kind, which a streaming thread may hold for the length
// of one call.
template <typename Interface, typename Codec> std::shared_ptr<Interface> handOut(std::shared_ptr<Codec> codec)
{
    Interface* object = codec.get();
    return std::shared_ptr<Interface>(object, [owner = std::move(codec)](Interface*) mutable {
        owner->stop();
        owner.reset();
    });
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
    // The registry is read and tried once per process: the list of codecs
    // must not change once the root has it.
    std::call_once(discovered, [this] {
        entries = discoverCodecs();
        for (const CodecEntry& entry : entries) {
            VideoCodecInfo info;
            info.type = entry.type;
            info.encoder = entry.encoder;
            info.id = entry.id;
            info.priority = entry.priority;
            info.maxInstances = entry.maxInstances;
            info.hw = entry.hw;
            addCodec(Internal::VideoCodecDesc(info, entry.sizeRange, entry.alignment));
        }
    });
    return true;
}

const CodecEntry* GstCodecManager::findEntry(const std::string& id) const
{
    for (const auto& entry : entries)
        if (entry.id == id)
            return &entry;
    return nullptr;
}

std::shared_ptr<VideoEncoder> GstCodecManager::instantiateVideoEncoder(const Internal::VideoCodecDesc& desc)
{
    // A decoder's id may arrive here too (the geometry and support queries
    // ask an encoder): the object then answers those queries and refuses to
    // be configured.
    const CodecEntry* entry = findEntry(desc.getInfo().id);
    if (entry == nullptr)
        return nullptr;
    return handOut<VideoEncoder>(std::make_shared<PipelineVideoEncoder>(this, desc, *entry));
}

std::shared_ptr<VideoDecoder> GstCodecManager::instantiateVideoDecoder(const Internal::VideoCodecDesc& desc)
{
    const CodecEntry* entry = findEntry(desc.getInfo().id);
    if (entry == nullptr)
        return nullptr;
    return handOut<VideoDecoder>(std::make_shared<PipelineVideoDecoder>(this, desc, *entry));
}

} // namespace Tevara::Lumiflux::GstCodecs
