#pragma once

// An encoder on a GStreamer pipeline:
// appsrc ! videoconvert ! <encoder> [! <parser>] ! capsfilter ! appsink.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include <gst/app/app.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/codec_base.h>

#include "codec_catalog.h"
#include "codec_pipeline.h"
#include <lumiflux/gst_ref.h>

namespace Tevara::Lumiflux::GstCodecs {

class PipelineVideoEncoder : public Internal::BaseVideoEncoder,
                             public std::enable_shared_from_this<PipelineVideoEncoder> {
public:
    PipelineVideoEncoder(Internal::BaseCodecManager* owner, const Internal::VideoCodecDesc& codec,
                         const CodecEntry& entry);
    ~PipelineVideoEncoder() override;

    bool configure(const VideoEncoderMetadata& metadata) override;
    bool start() override;
    bool encode(const std::shared_ptr<GraphicBuffer>& frame, bool forceKeyFrame) override;
    bool flush() override;
    bool stop() override;
    bool setParameter(unsigned id, const std::string& value) override;
    std::string getParameter(unsigned id) const override;
    const Internal::ParameterSet& parameters() const override;
    int pendingFrames() const override;
    void eos() override;

    // Streaming threads, from the pipeline's handlers.
    void deliver(GstSample* sample);
    void endOfStream();
    void reportError(const std::string& message);

private:
    // The frame as a buffer of the configured layout: the frame's own
    // GStreamer buffer when it has one in that layout, else a copy.
    GstBuffer* inputBuffer(GraphicBuffer& frame);
    void teardown();

    const CodecEntry& entry;
    VideoEncoderMetadata metadata;
    bool configured = false;
    GstVideoInfo inputInfo;

    CodecPipeline pipeline;

    std::int64_t frameCount = 0;
    std::atomic<int> pending{0};
    // Guards the profile parameter, which the streaming thread learns from
    // the negotiated caps while the application may read it.
    mutable std::mutex parameterMutex;
    bool profileKnown = false;
};

} // namespace Tevara::Lumiflux::GstCodecs
