#include "pipeline_util.h"

#include <cstring>

namespace Tevara::Lumiflux::GstCodecs {

namespace {

Internal::Ref<GstElement> make(const std::string& factory, std::string* error)
{
    GstElement* element = gst_element_factory_make(factory.c_str(), nullptr);
    if (element == nullptr) {
        *error = "GStreamer element " + factory + " is not installed";
        return {};
    }
    // Sunk so that we hold a full reference next to the bin's.
    return Internal::Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(element)));
}

// Sends the end of the stream past the element whose sink pad this is,
// straight from its source pad. Only for elements that hold no frames, so
// nothing is left behind; runs on the streaming thread, in stream order.
GstPadProbeReturn sendEndAround(GstPad* pad, GstPadProbeInfo* info, gpointer)
{
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) != GST_EVENT_EOS)
        return GST_PAD_PROBE_OK;
    auto element = Internal::Ref<GstElement>::adopt(gst_pad_get_parent_element(pad));
    auto source = Internal::Ref<GstPad>::adopt(element ? gst_element_get_static_pad(element.get(), "src") : nullptr);
    if (!source)
        return GST_PAD_PROBE_OK;
    gst_pad_push_event(source.get(), gst_event_ref(event));
    return GST_PAD_PROBE_DROP;
}

} // namespace

bool buildPipeline(const CodecEntry& entry, PipelineParts* parts, std::string* error)
{
    auto pipeline = Internal::Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
    auto source = make("appsrc", error);
    auto convert = make("videoconvert", error);
    auto codec = make(entry.element, error);
    auto filter = make("capsfilter", error);
    auto sink = make("appsink", error);
    Internal::Ref<GstElement> parser;
    if (!entry.parser.empty())
        parser = make(entry.parser, error);
    if (!source || !convert || !codec || !filter || !sink || (!entry.parser.empty() && !parser))
        return false;

    std::vector<GstElement*> chain;
    Internal::Ref<GstCaps> caps;
    if (entry.encoder) {
        caps = Internal::Ref<GstCaps>::adopt(gst_caps_from_string(entry.encodedCaps.c_str()));
        chain = {source.get(), convert.get(), codec.get()};
        if (parser) {
            // Parameter sets before every key frame, so the stream can be
            // joined at any key frame.
            g_object_set(parser.get(), "config-interval", -1, nullptr);
            chain.push_back(parser.get());
        }
        chain.insert(chain.end(), {filter.get(), sink.get()});
    } else {
        caps = Internal::Ref<GstCaps>::adopt(gst_caps_from_string("video/x-raw,format=NV12"));
        chain = {source.get()};
        if (parser)
            chain.push_back(parser.get());
        chain.insert(chain.end(), {codec.get(), convert.get(), filter.get(), sink.get()});
    }
    for (const auto& property : entry.fixedProperties)
        gst_util_set_object_arg(G_OBJECT(codec.get()), property.first.c_str(), property.second.c_str());
    if (entry.endAroundElement) {
        // The probe lives as long as the pad.
        auto pad = Internal::Ref<GstPad>::adopt(gst_element_get_static_pad(codec.get(), "sink"));
        if (pad)
            gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, &sendEndAround, nullptr, nullptr);
    }
    g_object_set(filter.get(), "caps", caps.get(), nullptr);
    g_object_set(sink.get(), "sync", FALSE, "emit-signals", FALSE, nullptr);

    for (GstElement* element : chain)
        gst_bin_add(GST_BIN(pipeline.get()), element);
    for (std::size_t i = 0; i + 1 < chain.size(); ++i) {
        if (!gst_element_link(chain[i], chain[i + 1])) {
            *error = std::string("cannot link ") + GST_ELEMENT_NAME(chain[i]) + " to " + GST_ELEMENT_NAME(chain[i + 1]);
            return false;
        }
    }
    parts->pipeline = std::move(pipeline);
    parts->source = std::move(source);
    parts->codec = std::move(codec);
    parts->sink = std::move(sink);
    return true;
}

void unwatchBus(GstElement* pipeline)
{
    auto bus = Internal::Ref<GstBus>::adopt(gst_element_get_bus(pipeline));
    gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
}

std::string errorText(GstMessage* message)
{
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    std::string text = GST_MESSAGE_SRC_NAME(message) != nullptr ? GST_MESSAGE_SRC_NAME(message) : "pipeline";
    text += ": ";
    text += error != nullptr ? error->message : "unknown error";
    if (debug != nullptr)
        text += std::string(" (") + debug + ")";
    if (error != nullptr)
        g_error_free(error);
    g_free(debug);
    return text;
}

std::string capsField(const GstCaps* caps, const char* field)
{
    if (caps == nullptr || gst_caps_get_size(caps) == 0)
        return {};
    const gchar* value = gst_structure_get_string(gst_caps_get_structure(caps, 0), field);
    return value != nullptr ? value : "";
}

void copyYCbCr(const YCbCrFrame& in, GstVideoFrame* out)
{
    const int width = GST_VIDEO_FRAME_WIDTH(out);
    const int height = GST_VIDEO_FRAME_HEIGHT(out);
    auto* y = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(out, 0));
    const int yStride = GST_VIDEO_FRAME_PLANE_STRIDE(out, 0);
    for (int row = 0; row < height; ++row)
        std::memcpy(y + row * yStride, in.y + row * in.yStride, static_cast<std::size_t>(width));

    const int chromaWidth = (width + 1) / 2;
    const int chromaHeight = (height + 1) / 2;
    const bool outNv12 = GST_VIDEO_FRAME_FORMAT(out) == GST_VIDEO_FORMAT_NV12;
    for (int row = 0; row < chromaHeight; ++row) {
        const std::uint8_t* cb = in.cb + row * in.cStride;
        const std::uint8_t* cr = in.cr + row * in.cStride;
        if (outNv12) {
            auto* uv = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(out, 1)) +
                       row * GST_VIDEO_FRAME_PLANE_STRIDE(out, 1);
            if (in.chromaStep == 2 && cr == cb + 1) {
                std::memcpy(uv, cb, static_cast<std::size_t>(chromaWidth) * 2);
            } else {
                for (int x = 0; x < chromaWidth; ++x) {
                    uv[2 * x] = cb[x * in.chromaStep];
                    uv[2 * x + 1] = cr[x * in.chromaStep];
                }
            }
        } else {
            auto* u = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(out, 1)) +
                      row * GST_VIDEO_FRAME_PLANE_STRIDE(out, 1);
            auto* v = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(out, 2)) +
                      row * GST_VIDEO_FRAME_PLANE_STRIDE(out, 2);
            if (in.chromaStep == 1) {
                std::memcpy(u, cb, static_cast<std::size_t>(chromaWidth));
                std::memcpy(v, cr, static_cast<std::size_t>(chromaWidth));
            } else {
                for (int x = 0; x < chromaWidth; ++x) {
                    u[x] = cb[x * in.chromaStep];
                    v[x] = cr[x * in.chromaStep];
                }
            }
        }
    }
}

} // namespace Tevara::Lumiflux::GstCodecs
