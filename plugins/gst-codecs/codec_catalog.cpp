#include "codec_catalog.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <map>
#include <set>

#include <gst/app/app.h>
#include <gst/gst.h>

#include "element_families.h"
#include "pipeline_util.h"
#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::GstCodecs {

namespace {

// One compression format: how its caps are recognised, what the encoded
// side of our pipelines carries, and the largest frame its bitstream (at
// its highest level) describes.
struct Format {
    CodecType type;
    const char* name;
    const char* recognised;  ///< caps a codec element of this format shows on its encoded side
    const char* encoderCaps; ///< what an encoder pipeline delivers: whole frames
    const char* decoderCaps; ///< what a decoder pipeline is given
    const char* parser;      ///< frames the decoder's input; may be missing
    bool parseEncoded;       ///< a parser after encoders too (parameter sets before key frames)
    Size largest;
};

const std::vector<Format>& formats()
{
    static const std::vector<Format> list{
        {CodecType::H264,
         "h264",
         "video/x-h264",
         "video/x-h264,stream-format=byte-stream,alignment=au",
         "video/x-h264,stream-format=byte-stream",
         "h264parse",
         true,
         {8192, 4320}},
        {CodecType::H265,
         "h265",
         "video/x-h265",
         "video/x-h265,stream-format=byte-stream,alignment=au",
         "video/x-h265,stream-format=byte-stream",
         "h265parse",
         true,
         {8192, 4320}},
        {CodecType::VP8, "vp8", "video/x-vp8", "video/x-vp8", "video/x-vp8", "", false, {16383, 16383}},
        {CodecType::VP9, "vp9", "video/x-vp9", "video/x-vp9", "video/x-vp9", "vp9parse", false, {16384, 16384}},
        {CodecType::AV1,
         "av1",
         "video/x-av1",
         "video/x-av1,stream-format=obu-stream,alignment=tu",
         "video/x-av1,stream-format=obu-stream,alignment=tu",
         "av1parse",
         false,
         {16384, 16384}},
        {CodecType::MPEG4,
         "mpeg4",
         "video/mpeg,mpegversion=4,systemstream=false",
         "video/mpeg,mpegversion=4,systemstream=false",
         "video/mpeg,mpegversion=4,systemstream=false",
         "mpeg4videoparse",
         false,
         {2048, 2048}},
        {CodecType::H263,
         "h263",
         "video/x-h263,variant=itu",
         "video/x-h263,variant=itu",
         "video/x-h263,variant=itu",
         "h263parse",
         false,
         {2048, 1152}},
    };
    return list;
}

// Every 4:2:0 frame is at least this large in our pipelines.
constexpr Size smallest{16, 16};
// The test frame, when the element takes it: a size every format has.
constexpr Size testSize{176, 144};
constexpr GstClockTime probeTimeout = 10 * GST_SECOND;

bool elementInstalled(const char* name)
{
    auto factory = Internal::Ref<GstElementFactory>::adopt(gst_element_factory_find(name));
    return static_cast<bool>(factory);
}

Internal::Ref<GstCaps> capsOf(const char* text)
{
    return Internal::Ref<GstCaps>::adopt(gst_caps_from_string(text));
}

// The caps of the factory's pad templates in one direction, merged.
Internal::Ref<GstCaps> templateCaps(GstElementFactory* factory, GstPadDirection direction)
{
    auto caps = Internal::Ref<GstCaps>::adopt(gst_caps_new_empty());
    for (const GList* item = gst_element_factory_get_static_pad_templates(factory); item != nullptr;
         item = item->next) {
        auto* padTemplate = static_cast<GstStaticPadTemplate*>(item->data);
        if (padTemplate->direction == direction)
            caps = Internal::Ref<GstCaps>::adopt(
                gst_caps_merge(caps.release(), gst_static_pad_template_get_caps(padTemplate)));
    }
    return caps;
}

const Format* formatOf(GstCaps* encodedSide)
{
    // An element that takes anything says nothing about its format.
    if (gst_caps_is_any(encodedSide))
        return nullptr;
    for (const Format& format : formats())
        if (gst_caps_can_intersect(encodedSide, capsOf(format.recognised).get()))
            return &format;
    return nullptr;
}

// Widens [low, high] to a width or height field's values; `step` takes the
// step of a stepped range.
void widen(const GValue* value, int* low, int* high, int* step)
{
    if (G_VALUE_HOLDS_INT(value)) {
        *low = std::min(*low, g_value_get_int(value));
        *high = std::max(*high, g_value_get_int(value));
    } else if (GST_VALUE_HOLDS_INT_RANGE(value)) {
        *low = std::min(*low, gst_value_get_int_range_min(value));
        *high = std::max(*high, gst_value_get_int_range_max(value));
        *step = std::max(*step, gst_value_get_int_range_step(value));
    } else if (GST_VALUE_HOLDS_LIST(value)) {
        for (guint i = 0; i < gst_value_list_get_size(value); ++i)
            widen(gst_value_list_get_value(value, i), low, high, step);
    } else {
        *low = 0;
        *high = INT_MAX;
    }
}

// The frame sizes and alignment the raw side's caps allow, within what the
// format can describe.
void sizesFromCaps(GstCaps* rawSide, const Format& format, SizeRange* range, Size* alignment)
{
    int low[2] = {INT_MAX, INT_MAX};
    int high[2] = {0, 0};
    int step[2] = {1, 1};
    for (guint i = 0; i < gst_caps_get_size(rawSide); ++i) {
        const GstStructure* structure = gst_caps_get_structure(rawSide, i);
        const char* const fields[2] = {"width", "height"};
        for (int axis = 0; axis < 2; ++axis) {
            const GValue* value = gst_structure_get_value(structure, fields[axis]);
            if (value == nullptr) {
                low[axis] = 0;
                high[axis] = INT_MAX;
            } else {
                widen(value, &low[axis], &high[axis], &step[axis]);
            }
        }
    }
    range->min = {std::max(smallest.width, low[0]), std::max(smallest.height, low[1])};
    range->max = {std::min(format.largest.width, high[0]), std::min(format.largest.height, high[1])};
    // 4:2:0 chroma needs even sizes.
    *alignment = {std::max(2, step[0]), std::max(2, step[1])};
}

int roundUp(int value, int alignment)
{
    return (value + alignment - 1) / alignment * alignment;
}

// The appsrc caps of a probe with frames of `size`.
Internal::Ref<GstCaps> inputCaps(const CodecEntry& entry, Size size)
{
    auto caps = capsOf(entry.encoder ? "video/x-raw,format=I420" : entry.encodedCaps.c_str());
    caps = Internal::Ref<GstCaps>::adopt(gst_caps_make_writable(caps.release()));
    gst_caps_set_simple(caps.get(), "width", G_TYPE_INT, size.width, "height", G_TYPE_INT, size.height, "framerate",
                        GST_TYPE_FRACTION, 30, 1, nullptr);
    return caps;
}

// Runs the entry's pipeline over one buffer (twice for a decoder: some
// give a frame out only when the next comes in); the first buffer it
// delivers, or null with `error` set.
Internal::Ref<GstBuffer> runOnce(const CodecEntry& entry, GstCaps* caps, GstBuffer* input, std::string* error)
{
    PipelineParts parts;
    if (!buildPipeline(entry, &parts, error))
        return {};
    g_object_set(parts.source.get(), "caps", caps, "format", GST_FORMAT_TIME, nullptr);
    // The output is pulled once the stream has ended.
    g_object_set(parts.sink.get(), "wait-on-eos", FALSE, nullptr);
    Internal::Ref<GstBuffer> output;
    if (gst_element_set_state(parts.pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        *error = "the pipeline does not start";
    } else {
        for (int copy = 0; copy < (entry.encoder ? 1 : 2); ++copy) {
            GstBuffer* buffer = gst_buffer_copy(input);
            GST_BUFFER_PTS(buffer) = copy * GST_SECOND / 30;
            gst_app_src_push_buffer(GST_APP_SRC(parts.source.get()), buffer);
        }
        gst_app_src_end_of_stream(GST_APP_SRC(parts.source.get()));
        auto bus = Internal::Ref<GstBus>::adopt(gst_element_get_bus(parts.pipeline.get()));
        auto message = Internal::Ref<GstMessage>::adopt(gst_bus_timed_pop_filtered(
            bus.get(), probeTimeout, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        if (!message) {
            *error = "no answer within 10 s";
        } else if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
            *error = errorText(message.get());
        } else {
            auto sample =
                Internal::Ref<GstSample>::adopt(gst_app_sink_try_pull_sample(GST_APP_SINK(parts.sink.get()), 0));
            if (sample)
                output = Internal::Ref<GstBuffer>::share(gst_sample_get_buffer(sample.get()));
            else
                *error = "nothing came out";
        }
    }
    gst_element_set_state(parts.pipeline.get(), GST_STATE_NULL);
    return output;
}

// A mid-grey I420 frame with a lighter square, for encoder probes.
Internal::Ref<GstBuffer> testFrame(Size size)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420, static_cast<guint>(size.width),
                              static_cast<guint>(size.height));
    auto buffer =
        Internal::Ref<GstBuffer>::adopt(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr));
    GstMapInfo map;
    gst_buffer_map(buffer.get(), &map, GST_MAP_WRITE);
    std::memset(map.data, 128, map.size);
    for (int y = size.height / 4; y < size.height / 2; ++y)
        std::memset(map.data + y * GST_VIDEO_INFO_PLANE_STRIDE(&info, 0) + size.width / 4, 200,
                    static_cast<std::size_t>(size.width / 4));
    gst_buffer_unmap(buffer.get(), &map);
    GST_BUFFER_PTS(buffer.get()) = 0;
    GST_BUFFER_DURATION(buffer.get()) = GST_SECOND / 30;
    return buffer;
}

// Software codecs share the processors: an encoder keeps about one busy, a
// decoder about half of one, so allow that many at once (at least two).
// Hardware blocks serve a few streams each; the device refuses what it
// cannot take when the stream starts.
int maxInstances(bool encoder, bool hw)
{
    if (hw)
        return 4;
    const int processors = static_cast<int>(g_get_num_processors());
    return std::max(2, encoder ? processors : 2 * processors);
}

struct Candidate {
    Internal::Ref<GstElementFactory> factory;
    const Format* format;
    bool encoder;
    bool hw;
    int rank;
    ElementFamily family;
    SizeRange sizeRange;
    Size alignment;
};

// Every registry element that names a video encoder or decoder of a format
// we know, with raw video on its other side; the better ones first.
std::vector<Candidate> candidates()
{
    std::vector<Candidate> found;
    GList* features = gst_registry_get_feature_list(gst_registry_get(), GST_TYPE_ELEMENT_FACTORY);
    for (GList* item = features; item != nullptr; item = item->next) {
        auto* factory = GST_ELEMENT_FACTORY(item->data);
        const std::string klass = gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_KLASS);
        const bool encoder = klass.find("Encoder") != std::string::npos;
        const bool decoder = klass.find("Decoder") != std::string::npos;
        if (klass.find("Video") == std::string::npos || encoder == decoder)
            continue;
        auto encodedSide = templateCaps(factory, encoder ? GST_PAD_SRC : GST_PAD_SINK);
        auto rawSide = templateCaps(factory, encoder ? GST_PAD_SINK : GST_PAD_SRC);
        const Format* format = formatOf(encodedSide.get());
        if (format == nullptr || !gst_caps_can_intersect(rawSide.get(), capsOf("video/x-raw").get()))
            continue;
        const std::string name = GST_OBJECT_NAME(factory);
        GstElement* made = gst_element_factory_create(factory, nullptr);
        if (made == nullptr) {
            LUMIFLUX_LOG_DIGIT(0, "main ") << name << " left out: it cannot be created" << std::endl;
            continue;
        }
        auto element = Internal::Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(made)));
        Candidate candidate{Internal::Ref<GstElementFactory>::share(factory),
                            format,
                            encoder,
                            klass.find("Hardware") != std::string::npos,
                            static_cast<int>(gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(factory))),
                            describeElement(element.get(), name, format->type, encoder),
                            {},
                            {}};
        if (!candidate.family.defect.empty()) {
            LUMIFLUX_LOG_DIGIT(0, "main ") << name << " left out: " << candidate.family.defect << std::endl;
            continue;
        }
        sizesFromCaps(rawSide.get(), *format, &candidate.sizeRange, &candidate.alignment);
        found.push_back(std::move(candidate));
    }
    gst_plugin_feature_list_free(features);
    std::sort(found.begin(), found.end(), [](const Candidate& a, const Candidate& b) {
        if (a.hw != b.hw)
            return a.hw;
        if (a.family.quality != b.family.quality)
            return a.family.quality > b.family.quality;
        if (a.rank != b.rank)
            return a.rank > b.rank;
        return std::strcmp(GST_OBJECT_NAME(a.factory.get()), GST_OBJECT_NAME(b.factory.get())) < 0;
    });
    return found;
}

CodecEntry makeEntry(const Candidate& candidate, std::set<std::string>* ids)
{
    const std::string element = GST_OBJECT_NAME(candidate.factory.get());
    CodecEntry entry;
    const std::string direction = candidate.encoder ? ".enc" : ".dec";
    entry.id = std::string("gst.") + candidate.format->name + "." + candidate.family.name + direction;
    // Two elements of one family and format: the better keeps the short id.
    if (ids->count(entry.id) != 0)
        entry.id = std::string("gst.") + candidate.format->name + "." + element + direction;
    ids->insert(entry.id);
    entry.type = candidate.format->type;
    entry.encoder = candidate.encoder;
    entry.hw = candidate.hw;
    entry.element = element;
    const char* parser = candidate.encoder && !candidate.format->parseEncoded ? "" : candidate.format->parser;
    if (*parser != '\0' && elementInstalled(parser))
        entry.parser = parser;
    entry.encodedCaps = candidate.encoder ? candidate.format->encoderCaps : candidate.format->decoderCaps;
    // Hardware above every software codec, then the quality order, then
    // the registry's rank.
    const int withinGroup = candidate.family.quality * 10 + std::min(candidate.rank / 32, 9);
    entry.priority = candidate.hw ? withinGroup : withinGroup - 100;
    entry.maxInstances = maxInstances(candidate.encoder, candidate.hw);
    entry.sizeRange = candidate.sizeRange;
    entry.alignment = candidate.alignment;
    entry.fixedProperties = candidate.family.fixedProperties;
    entry.parameters = candidate.family.parameters;
    // The profile is read from the encoded caps: the parsers always put it
    // there, some encoders do it themselves.
    auto encodedSide = templateCaps(candidate.factory.get(), candidate.encoder ? GST_PAD_SRC : GST_PAD_SINK);
    bool profileInCaps = !entry.parser.empty();
    for (guint i = 0; i < gst_caps_get_size(encodedSide.get()); ++i)
        profileInCaps =
            profileInCaps || gst_structure_has_field(gst_caps_get_structure(encodedSide.get(), i), "profile");
    if (profileInCaps)
        entry.parameters.push_back(
            {CodecParameter::Profile, ParameterBinding::Kind::ReadOnly, "", {}, 0, 0, 1, "unknown", {}});
    entry.endAroundElement = candidate.family.endAroundElement;
    return entry;
}

Size probeSize(const CodecEntry& entry)
{
    const SizeRange& range = entry.sizeRange;
    Size size{std::clamp(testSize.width, range.min.width, range.max.width),
              std::clamp(testSize.height, range.min.height, range.max.height)};
    return {roundUp(size.width, entry.alignment.width), roundUp(size.height, entry.alignment.height)};
}

} // namespace

std::vector<CodecEntry> discoverCodecs()
{
    for (const char* common : {"appsrc", "appsink", "videoconvert", "capsfilter"})
        if (!elementInstalled(common)) {
            LUMIFLUX_LOG_DIGIT(2, "main ") << "GStreamer element " << common << " is missing: no codecs" << std::endl;
            return {};
        }
    std::set<std::string> ids;
    std::vector<CodecEntry> entries;
    for (const Candidate& candidate : candidates())
        entries.push_back(makeEntry(candidate, &ids));

    // Encoders first: the first frame each format's encoders make is what
    // its decoders are tried with.
    std::map<CodecType, std::pair<Internal::Ref<GstBuffer>, Size>> encodedFrames;
    std::vector<CodecEntry> usable;
    for (int pass = 0; pass < 2; ++pass) {
        for (CodecEntry& entry : entries) {
            if (entry.encoder != (pass == 0))
                continue;
            std::string error;
            const Size size = probeSize(entry);
            if (entry.encoder) {
                auto output = runOnce(entry, inputCaps(entry, size).get(), testFrame(size).get(), &error);
                if (output && encodedFrames.count(entry.type) == 0)
                    encodedFrames[entry.type] = {output, size};
            } else if (const auto frame = encodedFrames.find(entry.type); frame != encodedFrames.end()) {
                runOnce(entry, inputCaps(entry, frame->second.second).get(), frame->second.first.get(), &error);
            }
            // A decoder of a format no encoder here makes was created and
            // matched by its caps; that is all that can be tried.
            if (!error.empty()) {
                LUMIFLUX_LOG_DIGIT(0, "main ")
                    << entry.id << " (" << entry.element << ") left out: " << error << std::endl;
                continue;
            }
            usable.push_back(std::move(entry));
        }
    }
    return usable;
}

} // namespace Tevara::Lumiflux::GstCodecs
