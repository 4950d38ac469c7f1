// A minimal codec plug-in on the library's base classes: one VP8 encoder,
// "example.vp8.enc", for I420 frames from 64x64 to 1920x1080, with a bit-rate
// parameter. It encodes through a small GStreamer pipeline
// (appsrc ! vp8enc ! appsink), one frame in, one frame out.
//
// The base classes keep the codec list, the instance count, size checks and
// the parameter set; a plug-in adds its codecs in init() and makes instances
// in instantiateVideoEncoder()/instantiateVideoDecoder().

#include <cstring>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/codec_base.h>
#include <lumiflux/graphic_buffer.h>
#include <lumiflux/gst_ref.h>
#include <lumiflux/plugin.h>

namespace {

using namespace Tevara::Lumiflux;
// Every GStreamer reference is held by a Ref, which drops it when it goes.
using Internal::Ref;

class ExampleEncoder : public Internal::BaseVideoEncoder {
public:
    ExampleEncoder(Internal::BaseCodecManager* owner, const Internal::VideoCodecDesc& codec)
        : BaseVideoEncoder(owner, codec)
    {
        // The set owns its parameters.
        parameterSet.registerParameter(CodecParameter::BitRate, new Internal::IntParameter("1000000", 10000, 20000000));
    }
    ~ExampleEncoder() override { stop(); }

    bool configure(const VideoEncoderMetadata& wanted) override
    {
        if (pipeline || !supports(wanted) || wanted.format != PixelFormat::YUV420Planar)
            return false;
        metadata = wanted;
        return true;
    }
    bool start() override
    {
        if (pipeline || metadata.width == 0)
            return false;
        pipeline = Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(gst_parse_launch(
            "appsrc name=in format=time ! vp8enc name=enc deadline=1 lag-in-frames=0 ! appsink name=out sync=false",
            nullptr))));
        if (!pipeline)
            return false;
        const auto caps = Ref<GstCaps>::adopt(gst_caps_new_simple(
            "video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT, metadata.width, "height", G_TYPE_INT,
            metadata.height, "framerate", GST_TYPE_FRACTION, metadata.framerate, 1, nullptr));
        source = Ref<GstElement>::adopt(gst_bin_get_by_name(GST_BIN(pipeline.get()), "in"));
        sink = Ref<GstElement>::adopt(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out"));
        const auto encoder = Ref<GstElement>::adopt(gst_bin_get_by_name(GST_BIN(pipeline.get()), "enc"));
        g_object_set(source.get(), "caps", caps.get(), nullptr);
        g_object_set(encoder.get(), "target-bitrate", std::stoi(parameterSet.get(CodecParameter::BitRate)), nullptr);
        return gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
    }
    bool encode(const std::shared_ptr<GraphicBuffer>& frame, bool forceKeyFrame) override
    {
        const auto view = frame ? frame->mapYCbCr() : nullptr;
        if (!pipeline || !view || view->width != metadata.width || view->height != metadata.height)
            return false;
        // Copied into a tightly packed I420 buffer, the layout the caps promise.
        const std::size_t w = view->width, h = view->height, cw = (w + 1) / 2, ch = (h + 1) / 2;
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, w * h + 2 * cw * ch, nullptr);
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_WRITE);
        for (std::size_t row = 0; row < h; ++row)
            std::memcpy(map.data + row * w, view->y + row * view->yStride, w);
        std::uint8_t* cb = map.data + w * h;
        std::uint8_t* cr = cb + cw * ch;
        for (std::size_t row = 0; row < ch; ++row)
            for (std::size_t x = 0; x < cw; ++x) {
                cb[row * cw + x] = view->cb[row * view->cStride + x * view->chromaStep];
                cr[row * cw + x] = view->cr[row * view->cStride + x * view->chromaStep];
            }
        gst_buffer_unmap(buffer, &map);
        GST_BUFFER_PTS(buffer) = view->timestamp * GST_USECOND;
        if (forceKeyFrame) {
            const auto pad = Ref<GstPad>::adopt(gst_element_get_static_pad(sink.get(), "sink"));
            gst_pad_send_event(pad.get(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
        }
        // The source takes the buffer over.
        if (gst_app_src_push_buffer(GST_APP_SRC(source.get()), buffer) != GST_FLOW_OK)
            return false;
        // One frame in, one frame out (no look-ahead).
        deliver(Ref<GstSample>::adopt(gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), 5 * GST_SECOND)));
        return true;
    }
    int pendingFrames() const override { return 0; }
    void eos() override
    {
        if (pipeline) {
            gst_app_src_end_of_stream(GST_APP_SRC(source.get()));
            while (auto sample =
                       Ref<GstSample>::adopt(gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), 5 * GST_SECOND)))
                deliver(sample);
        }
        std::lock_guard<std::recursive_mutex> lock(listenerMutex);
        if (listener != nullptr)
            listener->onEncoderEos();
    }
    bool flush() override { return static_cast<bool>(pipeline); }
    bool stop() override
    {
        if (!pipeline)
            return false;
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        source.reset();
        sink.reset();
        pipeline.reset();
        return true;
    }
    bool setParameter(unsigned id, const std::string& value) override
    {
        return !pipeline && parameterSet.set(id, value);
    }
    std::string getParameter(unsigned id) const override { return parameterSet.get(id); }
    const Internal::ParameterSet& parameters() const override { return parameterSet; }

private:
    // Hands one encoded frame to the listener, under the listener lock.
    void deliver(const Ref<GstSample>& sample)
    {
        if (!sample)
            return;
        GstBuffer* buffer = gst_sample_get_buffer(sample.get()); // lent by the sample
        GstMapInfo map;
        if (buffer != nullptr && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
            EncodedFrame frame;
            frame.data = map.data;
            frame.size = map.size;
            frame.timestamp = GST_BUFFER_PTS_IS_VALID(buffer) ? GST_BUFFER_PTS(buffer) / GST_USECOND : -1;
            frame.keyFrame = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
            {
                std::lock_guard<std::recursive_mutex> lock(listenerMutex);
                if (listener != nullptr)
                    listener->onEncodedFrame(frame);
            }
            gst_buffer_unmap(buffer, &map);
        }
    }

    VideoEncoderMetadata metadata;
    Ref<GstElement> pipeline;
    Ref<GstElement> source;
    Ref<GstElement> sink;
};

class ExampleCodecManager : public Internal::BaseCodecManager {
public:
    bool init() override
    {
        gst_init(nullptr, nullptr);
        if (!Ref<GstElementFactory>::adopt(gst_element_factory_find("vp8enc")))
            return false; // nothing to offer on this machine
        VideoCodecInfo info;
        info.id = "example.vp8.enc";
        info.type = CodecType::VP8;
        info.encoder = true;
        info.hw = false;
        info.priority = 0;
        info.maxInstances = 2;
        addCodec(Internal::VideoCodecDesc(info, SizeRange{{64, 64}, {1920, 1080}}, Size{2, 2}));
        return true;
    }
    std::shared_ptr<VideoEncoder> instantiateVideoEncoder(const Internal::VideoCodecDesc& desc) override
    {
        return std::make_shared<ExampleEncoder>(this, desc);
    }
    std::shared_ptr<VideoDecoder> instantiateVideoDecoder(const Internal::VideoCodecDesc&) override { return nullptr; }
};

class ExampleModule : public PluginModule {
public:
    int getPriority() override { return 0; }
    std::shared_ptr<CameraManager> getCameraManager() override { return {}; }
    std::shared_ptr<CodecManager> getCodecManager() override { return manager; }

private:
    std::shared_ptr<CodecManager> manager = std::make_shared<ExampleCodecManager>();
};

} // namespace

// The library calls this once, after loading the module, and never deletes
// the object it returns.
LUMIFLUX_DEFINE_MODULE(globals)
{
    (void)globals;
    static ExampleModule module;
    return &module;
}
