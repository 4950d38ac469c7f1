#pragma once

// A decoder on a GStreamer pipeline:
// appsrc [! <parser>] ! <decoder> ! videoconvert ! capsfilter(NV12) ! appsink.
// Decoded frames are handed out as graphic buffers over the sink's buffers,
// without copying.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include <gst/app/app.h>
#include <gst/gst.h>

#include <lumiflux/codec_base.h>
#include <lumiflux/gst_graphic_buffer.h>

#include "codec_catalog.h"
#include "codec_pipeline.h"
#include <lumiflux/gst_ref.h>

namespace Tevara::Lumiflux::GstCodecs {

class PipelineVideoDecoder : public Internal::BaseVideoDecoder,
                             public std::enable_shared_from_this<PipelineVideoDecoder> {
public:
    PipelineVideoDecoder(Internal::BaseCodecManager* owner, const Internal::VideoCodecDesc& codec,
                         const CodecEntry& entry);
    ~PipelineVideoDecoder() override;

    bool configure(const VideoDecoderMetadata& metadata) override;
    bool start() override;
    bool decode(const std::uint8_t* data, std::size_t size, std::int64_t timestamp) override;
    bool drain() override;
    bool flush() override;
    bool stop() override;
    bool setParameter(unsigned id, const std::string& value) override;
    std::string getParameter(unsigned id) const override;
    const Internal::ParameterSet& parameters() const override;

    // Streaming threads, from the pipeline's handlers.
    void deliver(GstSample* sample);
    void endOfStream();
    void reportError(const std::string& message);

private:
    void teardown();

    const CodecEntry& entry;
    VideoDecoderMetadata metadata;
    bool configured = false;

    CodecPipeline pipeline;

    // Streaming thread only: the factory follows the negotiated caps.
    Internal::Ref<GstCaps> factoryCaps;
    std::shared_ptr<GraphicBufferFactory> factory;

    std::atomic<std::uint64_t> unitsGiven{0};
    std::atomic<std::uint64_t> framesDelivered{0};
    std::atomic<bool> failed{false};
    mutable std::mutex parameterMutex;
    bool profileKnown = false;
};

} // namespace Tevara::Lumiflux::GstCodecs
