// lumiflux-gst-codecs end to end: the real module loaded by the root codec
// manager, real GStreamer encoders and decoders (and the stand-in hardware
// ones of tests/fixtures/gst_hw_codecs.cpp), frames of a known pattern
// through every encoder and back through every decoder of its format, with
// ffprobe reading every stream.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/codec.h>
#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/video_stream_parser.h>

#include "codec_support.h"
#include "syslog_capture.h"
#include "test_paths.h"
#include <lumiflux/gst_ref.h>

using namespace Tevara::Lumiflux;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int frameCount = 60;
constexpr int framerate = 30;
constexpr PixelFormat nv12 = PixelFormat::YUV420SemiPlanar;

// ---------------------------------------------------------------- the pattern

// Calls visit(sample, expected) for every sample of frame `frame` of the
// pattern: smooth gradients with a bright square that moves 4 pixels per
// frame, easy to compress well, and any misplaced or stale frame shows.
template <typename Visit> void walkPattern(const YCbCrFrame& view, int frame, Visit visit)
{
    const int w = view.width, h = view.height, square = 48;
    const int left = frame * 4 % (w - square), top = frame * 2 % (h - square);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool inSquare = x >= left && x < left + square && y >= top && y < top + square;
            visit(view.y[y * view.yStride + x], inSquare ? 220 : 30 + x * 150 / w + y * 40 / h);
        }
    for (int y = 0; y < h / 2; ++y)
        for (int x = 0; x < w / 2; ++x) {
            visit(view.cb[y * view.cStride + x * view.chromaStep], 70 + x * 2 * 110 / w);
            visit(view.cr[y * view.cStride + x * view.chromaStep], 90 + y * 2 * 60 / h);
        }
}

void writePattern(const YCbCrFrame& view, int frame)
{
    walkPattern(view, frame, [](std::uint8_t& sample, int expected) { sample = static_cast<std::uint8_t>(expected); });
}

// One frame of the pattern as an NV12 or I420 graphic buffer over a GStreamer
// buffer, made the way a camera plug-in makes them.
std::shared_ptr<GraphicBuffer> patternFrame(int frame, int width, int height, PixelFormat format = nv12)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, format == nv12 ? GST_VIDEO_FORMAT_NV12 : GST_VIDEO_FORMAT_I420, width, height);
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
    GstVideoFrame mapped;
    EXPECT_TRUE(gst_video_frame_map(&mapped, &info, buffer, GST_MAP_WRITE));
    YCbCrFrame view{};
    view.y = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&mapped, 0));
    view.cb = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&mapped, 1));
    view.cr = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&mapped, 2));
    view.yStride = static_cast<std::uint16_t>(GST_VIDEO_FRAME_COMP_STRIDE(&mapped, 0));
    view.cStride = static_cast<std::uint16_t>(GST_VIDEO_FRAME_COMP_STRIDE(&mapped, 1));
    view.chromaStep = static_cast<std::uint16_t>(GST_VIDEO_FRAME_COMP_PSTRIDE(&mapped, 1));
    view.width = static_cast<std::uint16_t>(width);
    view.height = static_cast<std::uint16_t>(height);
    writePattern(view, frame);
    gst_video_frame_unmap(&mapped);
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(frame) * GST_SECOND / framerate;
    auto result = GraphicBufferFactory::fromInfo(info)->create(buffer);
    gst_buffer_unref(buffer);
    return result;
}

// A graphic buffer of another implementation: plain NV12 memory behind mapYCbCr().
class PlainNv12Buffer : public Internal::BaseGraphicBuffer {
public:
    PlainNv12Buffer(int w, int h, int frame) : pixels(static_cast<std::size_t>(w * h * 3 / 2))
    {
        width = static_cast<std::uint16_t>(w);
        height = static_cast<std::uint16_t>(h);
        timestamp = static_cast<std::int64_t>(frame) * 1000000 / framerate;
        format = PixelFormat::YCbCrFlexible;
        writePattern(*mapYCbCr(), frame);
    }
    std::shared_ptr<YCbCrFrame> mapYCbCr() override
    {
        auto view = std::make_shared<YCbCrFrame>();
        view->y = pixels.data();
        view->cb = pixels.data() + width * height;
        view->cr = view->cb + 1;
        view->yStride = view->cStride = width;
        view->chromaStep = 2;
        view->width = width;
        view->height = height;
        view->timestamp = static_cast<std::uint64_t>(timestamp);
        return view;
    }

private:
    std::vector<std::uint8_t> pixels;
};

// PSNR of a decoded frame against the pattern, over all three planes.
double psnr(GraphicBuffer& decoded, int frame)
{
    auto view = decoded.mapYCbCr();
    EXPECT_TRUE(view);
    if (!view)
        return 0;
    double squared = 0;
    std::size_t samples = 0;
    walkPattern(*view, frame, [&](std::uint8_t sample, int expected) {
        squared += (sample - expected) * (sample - expected);
        ++samples;
    });
    const double mse = squared / static_cast<double>(samples);
    return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

// ---------------------------------------------------------------- listeners

struct EncodedUnit {
    std::vector<std::uint8_t> bytes;
    std::int64_t timestamp;
    bool keyFrame;
};

class Collector : public VideoEncoderListener, public VideoDecoderListener {
public:
    void onEncodedFrame(const EncodedFrame& frame) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        encoded.push_back({{frame.data, frame.data + frame.size}, frame.timestamp, frame.keyFrame});
    }
    void onDecodedFrame(const std::shared_ptr<GraphicBuffer>& frame) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        decoded.push_back(frame);
    }
    void onEncoderError(const std::string& message) override
    {
        update([&] { errors.push_back(message); });
    }
    void onDecoderError(const std::string& message) override
    {
        update([&] { errors.push_back(message); });
    }
    void onEncoderEos() override
    {
        update([&] { eos = true; });
    }
    void onDecoderEos() override
    {
        update([&] { eos = true; });
    }

    bool waitForError()
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 30s, [&] { return !errors.empty(); });
    }
    // Waits for the end of the stream and expects no error on the way.
    void expectCleanEos(const std::string& id)
    {
        std::unique_lock<std::mutex> lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, 60s, [&] { return eos; })) << id;
        EXPECT_TRUE(errors.empty()) << id << ": " << errors.front();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<EncodedUnit> encoded;
    std::vector<std::shared_ptr<GraphicBuffer>> decoded;
    std::vector<std::string> errors;
    bool eos = false;

private:
    template <typename Change> void update(Change change)
    {
        std::lock_guard<std::mutex> lock(mutex);
        change();
        changed.notify_all();
    }
};

// ---------------------------------------------------------------- helpers

CodecManager* codecs()
{
    static CodecManager* manager = [] {
        const std::string dir = lumiflux_test::freshDirectory("gst-codecs");
        fs::create_symlink(LUMIFLUX_GST_CODECS_MODULE, fs::path(dir) / "lumiflux-gst-codecs.so");
        setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
        gst_init(nullptr, nullptr);
        return LumifluxCodecManager();
    }();
    return manager;
}

bool elementInstalled(const char* name)
{
    GstElementFactory* factory = gst_element_factory_find(name);
    if (factory != nullptr)
        gst_object_unref(factory);
    return factory != nullptr;
}

std::vector<VideoCodecInfo> listed(bool encoder, CodecType type)
{
    std::vector<VideoCodecInfo> result;
    for (const auto& info : codecs()->listCodecs())
        if (info.encoder == encoder && info.type == type)
            result.push_back(info);
    return result;
}

template <typename Metadata> Metadata stream(int width, int height, CodecType type = CodecType::Unknown)
{
    Metadata metadata;
    metadata.codecType = type;
    metadata.width = width;
    metadata.height = height;
    metadata.framerate = framerate;
    return metadata;
}

// A started encoder or decoder of `id` (of the codec's own type) reporting
// to `collector`, or null (and a failure).
template <
    typename Metadata,
    typename Codec = std::conditional_t<std::is_same_v<Metadata, VideoEncoderMetadata>, VideoEncoder, VideoDecoder>,
    typename Listener>
std::shared_ptr<Codec> start(const std::string& id, Listener& collector, Metadata metadata,
                             const std::map<unsigned, std::string>& parameters = {})
{
    std::shared_ptr<Codec> codec;
    if constexpr (std::is_same_v<Codec, VideoEncoder>)
        codec = codecs()->createVideoEncoderById(id);
    else
        codec = codecs()->createVideoDecoderById(id);
    EXPECT_NE(codec, nullptr) << id;
    if (!codec)
        return nullptr;
    codec->lockAndSetListener(&collector);
    metadata.codecType = codec->getInfo().type;
    bool ok = codec->configure(metadata);
    for (const auto& [parameter, value] : parameters)
        ok = codec->setParameter(parameter, value) && ok;
    ok = ok && codec->start();
    EXPECT_TRUE(ok) << id;
    return ok ? codec : nullptr;
}

struct Encoded {
    std::vector<EncodedUnit> units;
    std::string profile; // the H.264 profile parameter after the stream
};

// Encodes `frames` frames of the pattern (from PlainNv12Buffer when `foreign`).
Encoded encodeAll(const std::string& id, int width, int height, const std::map<unsigned, std::string>& parameters,
                  PixelFormat format = nv12, int forcedKeyFrame = -1, int frames = frameCount, bool foreign = false)
{
    Collector collector;
    auto metadata = stream<VideoEncoderMetadata>(width, height);
    metadata.format = format;
    auto encoder = start(id, collector, metadata, parameters);
    if (!encoder)
        return {};
    for (int i = 0; i < frames; ++i) {
        auto frame =
            foreign ? std::make_shared<PlainNv12Buffer>(width, height, i) : patternFrame(i, width, height, format);
        EXPECT_TRUE(encoder->encode(frame, i == forcedKeyFrame)) << i;
    }
    encoder->eos();
    collector.expectCleanEos(id);
    EXPECT_EQ(encoder->pendingFrames(), 0);
    return {collector.encoded, encoder->getParameter(CodecParameter::Profile)};
}

std::vector<std::shared_ptr<GraphicBuffer>> decodeAll(const std::string& id, const std::vector<EncodedUnit>& units,
                                                      int width, int height)
{
    Collector collector;
    auto decoder = start(id, collector, stream<VideoDecoderMetadata>(width, height));
    if (!decoder)
        return {};
    for (const auto& unit : units)
        EXPECT_TRUE(decoder->decode(unit.bytes.data(), unit.bytes.size(), unit.timestamp));
    EXPECT_TRUE(decoder->drain());
    collector.expectCleanEos(id);
    return collector.decoded;
}

int profileIdc(const std::string& name)
{
    static const std::map<std::string, int> known{
        {"baseline", 66}, {"constrained-baseline", 66}, {"main", 77}, {"high", 100}, {"constrained-high", 100}};
    const auto it = known.find(name);
    return it != known.end() ? it->second : -1;
}

// ---------------------------------------------------------------- tests

// The last instance of a stand-in hardware element (tests/fixtures/gst_hw_codecs.cpp).
Internal::Ref<GstElement> lastInstance(const char* factoryName)
{
    auto factory = Internal::Ref<GstElementFactory>::adopt(gst_element_factory_find(factoryName));
    if (!factory)
        return {};
    auto* ref = static_cast<GWeakRef*>(g_type_get_qdata(gst_element_factory_get_element_type(factory.get()),
                                                        g_quark_from_static_string("lumiflux-test-last-instance")));
    return Internal::Ref<GstElement>::adopt(ref != nullptr ? static_cast<GstElement*>(g_weak_ref_get(ref)) : nullptr);
}

std::string stringProperty(GstElement* element, const char* name)
{
    GValue value = G_VALUE_INIT;
    g_value_init(&value, g_object_class_find_property(G_OBJECT_GET_CLASS(element), name)->value_type);
    g_object_get_property(G_OBJECT(element), name, &value);
    gchar* text = nullptr;
    if (G_VALUE_HOLDS_ENUM(&value))
        text = g_strdup(g_enum_get_value(static_cast<GEnumClass*>(g_type_class_peek(G_VALUE_TYPE(&value))),
                                         g_value_get_enum(&value))
                            ->value_nick);
    else if (G_VALUE_HOLDS(&value, GST_TYPE_STRUCTURE))
        text = gst_structure_to_string(gst_value_get_structure(&value));
    else
        text = gst_value_serialize(&value);
    std::string result = text != nullptr ? text : "";
    g_free(text);
    g_value_unset(&value);
    return result;
}

constexpr const char* v4l2Encoder = "gst.h264.lumifluxtestv4l2.enc";
constexpr const char* vaEncoder = "gst.vp8.lumifluxtestva.enc";

// ---------------------------------------------------------------- tests

TEST(GstCodecs, TheRegistryGivesEveryCodecHardwareFirst)
{
    CodecManager* manager = codecs(); // initialises GStreamer too
    // What scripts/install-deps provides must be there: these fail, not skip.
    for (const char* required : {"x264enc", "openh264enc", "openh264dec", "avdec_h264", "x265enc", "avdec_h265",
                                 "libde265dec", "vp8enc", "vp8dec", "vp9enc", "vp9dec", "av1enc", "av1dec", "h264parse",
                                 "h265parse", "lumifluxtestv4l2h264enc", "avenc_h264_omx"})
        ASSERT_TRUE(elementInstalled(required)) << required << " is missing: run scripts/install-deps";

    const auto list = manager->listCodecs();
    std::map<std::string, VideoCodecInfo> byId;
    bool softwareSeen = false;
    for (const auto& info : list) {
        EXPECT_EQ(byId.count(info.id), 0u) << info.id << " twice";
        byId[info.id] = info;
        EXPECT_FALSE(info.hw && softwareSeen) << info.id << ": hardware after software";
        softwareSeen = softwareSeen || !info.hw;
        EXPECT_EQ(info.hw, info.id.find("lumifluxtest") != std::string::npos) << info.id;
        EXPECT_GE(info.maxInstances, 2) << info.id;
    }
    // Today's ids, the new formats, the stand-in hardware; an element that is
    // registered but cannot encode a test frame (no OMX library) is not, nor
    // one known to crash in real use.
    for (const char* id :
         {"gst.h264.x264.enc", "gst.h264.openh264.enc", "gst.vp8.vpx.enc", "gst.h264.avdec.dec",
          "gst.h264.openh264.dec", "gst.vp8.vpx.dec", "gst.h265.avdec.dec", "gst.h265.x265.enc", "gst.vp9.vpx.enc",
          "gst.vp9.vpx.dec", "gst.vp9.avdec.dec", "gst.av1.aom.enc", "gst.av1.aom.dec", v4l2Encoder,
          "gst.h264.lumifluxtestv4l2.dec", vaEncoder, "gst.vp8.lumifluxtestva.dec"})
        EXPECT_EQ(byId.count(id), 1u) << id;
    EXPECT_EQ(byId.count("gst.h264.avenc.enc"), 0u);
    EXPECT_EQ(byId.count("gst.h265.libde265.dec"), 0u);
    EXPECT_GT(byId["gst.h264.x264.enc"].priority, byId["gst.h264.openh264.enc"].priority);
    EXPECT_GT(byId["gst.h264.avdec.dec"].priority, byId["gst.h264.openh264.dec"].priority);

    auto hardware = manager->createVideoEncoder(CodecType::H264, true);
    ASSERT_NE(hardware, nullptr);
    EXPECT_EQ(hardware->getInfo().id, v4l2Encoder);
    EXPECT_EQ(manager->createVideoEncoder(CodecType::H265, true), nullptr);
    EXPECT_EQ(manager->createVideoDecoder(CodecType::VP8, true)->getInfo().id, "gst.vp8.lumifluxtestva.dec");

    // Sizes and alignment from each element's caps.
    const std::vector<std::tuple<std::string, int, int, int>> geometry{
        {v4l2Encoder, 64, 1920, 16}, {"gst.h264.x264.enc", 16, 8192, 2}, {"gst.vp9.vpx.dec", 16, 16384, 2}};
    for (const auto& [id, min, max, alignment] : geometry) {
        auto extended = manager->getVideoCodecExtendedInfo(id);
        ASSERT_NE(extended, nullptr) << id;
        EXPECT_EQ(extended->getSizeRange().min.width, min) << id;
        EXPECT_EQ(extended->getSizeRange().max.width, max) << id;
        EXPECT_EQ(extended->getAlignment().height, alignment) << id;
    }
}

TEST(GstCodecs, EncoderParametersAreValidatedAgainstTheirRanges)
{
    for (const auto& info : listed(true, CodecType::H264)) {
        SCOPED_TRACE(info.id);
        auto encoder = codecs()->createVideoEncoderById(info.id);
        ASSERT_NE(encoder, nullptr);
        const auto& set = encoder->parameters();
        EXPECT_EQ(set.ids(), (std::vector<unsigned>{CodecParameter::BitRate, CodecParameter::KeyFrameInterval,
                                                    CodecParameter::RateControl, CodecParameter::Profile}));
        EXPECT_EQ(set.range(CodecParameter::BitRate), "16000-100000000");
        EXPECT_EQ(set.range(CodecParameter::KeyFrameInterval), "1-3000");
        const std::string modes = set.range(CodecParameter::RateControl);
        ASSERT_NE(modes.find(','), std::string::npos) << "a list of choices";
        EXPECT_EQ(set.range(CodecParameter::Profile), "-");

        const std::vector<std::tuple<unsigned, std::string, bool>> cases{
            {CodecParameter::BitRate, "0x100000", true},
            {CodecParameter::BitRate, "15999", false},
            {CodecParameter::BitRate, "fast", false},
            {CodecParameter::KeyFrameInterval, "0", false},
            {CodecParameter::RateControl, "no-such-mode", false},
            {CodecParameter::RateControl, modes.substr(0, modes.find(',')), true},
            {CodecParameter::Profile, "high", false}, // read-only
            {99, "1", false}};
        for (const auto& [id, value, accepted] : cases)
            EXPECT_EQ(encoder->setParameter(id, value), accepted) << id << "=" << value;
        EXPECT_EQ(encoder->getParameter(CodecParameter::BitRate), "0x100000");
        EXPECT_EQ(encoder->getParameter(99), "");
    }
    // A parameter is offered only where a property takes it, within the
    // property's own range: x265 has no rate control, VA's key-frame
    // interval stops at 1024.
    auto x265 = codecs()->createVideoEncoderById("gst.h265.x265.enc");
    ASSERT_NE(x265, nullptr);
    EXPECT_EQ(
        x265->parameters().ids(),
        (std::vector<unsigned>{CodecParameter::BitRate, CodecParameter::KeyFrameInterval, CodecParameter::Profile}));
    auto va = codecs()->createVideoEncoderById(vaEncoder);
    ASSERT_NE(va, nullptr);
    EXPECT_EQ(va->parameters().range(CodecParameter::KeyFrameInterval), "1-1024");
    EXPECT_EQ(va->parameters().range(CodecParameter::RateControl), "cbr,vbr,cqp");
}

TEST(GstCodecs, HardwareParametersReachTheElementInItsUnits)
{
    const std::map<unsigned, std::string> settings{{CodecParameter::BitRate, "1500000"},
                                                   {CodecParameter::KeyFrameInterval, "45"},
                                                   {CodecParameter::RateControl, "vbr"}};
    // What each stand-in element's properties read, and what its wrapped
    // software encoder was given from them.
    const std::vector<
        std::tuple<std::string, const char*, std::vector<std::pair<const char*, std::string>>, std::string>>
        cases{
            {v4l2Encoder,
             "lumifluxtestv4l2h264enc",
             {{"extra-controls", "controls, video_bitrate=(int)1500000, video_gop_size=(int)45, "
                                 "h264_i_frame_period=(int)45, video_bitrate_mode=(int)0;"}},
             "1500"},
            {vaEncoder,
             "lumifluxtestvavp8enc",
             {{"bitrate", "1500"}, {"key-int-max", "45"}, {"rate-control", "vbr"}},
             "1500000"},
        };
    for (const auto& [id, factory, properties, innerBitRate] : cases) {
        SCOPED_TRACE(id);
        Collector collector;
        auto encoder = start(id, collector, stream<VideoEncoderMetadata>(640, 480), settings);
        ASSERT_NE(encoder, nullptr);
        auto element = lastInstance(factory);
        ASSERT_TRUE(element);
        for (const auto& [property, expected] : properties)
            EXPECT_EQ(stringProperty(element.get(), property), expected) << property;
        auto inner = Internal::Ref<GstElement>::adopt(gst_bin_get_by_name(GST_BIN(element.get()), "codec"));
        ASSERT_TRUE(inner);
        const char* bitRateProperty =
            std::string(factory).find("vp8") != std::string::npos ? "target-bitrate" : "bitrate";
        EXPECT_EQ(stringProperty(inner.get(), bitRateProperty), innerBitRate);
        // Changed while encoding, where the element allows it.
        for (int i = 0; i < 5; ++i)
            EXPECT_TRUE(encoder->encode(patternFrame(i, 640, 480), false));
        encoder->eos();
        collector.expectCleanEos(id);
        EXPECT_EQ(collector.encoded.size(), 5u);
    }
}

// The units as a file ffprobe reads: IVF for VP8, VP9 and AV1, the byte
// stream itself for H.264 and H.265.
std::string writeStream(const std::string& name, CodecType type, const std::vector<EncodedUnit>& units, int width,
                        int height)
{
    const char* fourcc = lumiflux_tool::ivfFourcc(type);
    const std::string path = lumiflux_test::freshDirectory("round-trip") + "/" + name + (fourcc ? ".ivf" : ".bin");
    std::FILE* file = std::fopen(path.c_str(), "wb");
    std::unique_ptr<lumiflux_tool::IvfWriter> ivf;
    if (fourcc != nullptr)
        ivf = std::make_unique<lumiflux_tool::IvfWriter>(file, fourcc, width, height, framerate);
    for (const auto& unit : units) {
        if (ivf)
            ivf->writeFrame(unit.bytes.data(), unit.bytes.size(), unit.timestamp);
        else
            std::fwrite(unit.bytes.data(), 1, unit.bytes.size(), file);
    }
    if (ivf)
        ivf->finish();
    std::fclose(file);
    return path;
}

class GstCodecsRoundTrip : public ::testing::TestWithParam<CodecType> {};

TEST_P(GstCodecsRoundTrip, EveryEncoderThroughEveryDecoderOfItsType)
{
    const CodecType type = GetParam();
    const int width = 640, height = 480;
    const int bitRate = width * height * 8; // about 0.27 bit per pixel at 30 frames per second
    const auto encoders = listed(true, type);
    const auto decoders = listed(false, type);
    ASSERT_FALSE(encoders.empty());
    ASSERT_FALSE(decoders.empty());
    static const std::map<CodecType, std::string> probed{{CodecType::H264, "h264"},
                                                         {CodecType::H265, "hevc"},
                                                         {CodecType::VP8, "vp8"},
                                                         {CodecType::VP9, "vp9"},
                                                         {CodecType::AV1, "av1"}};
    for (const auto& encoderInfo : encoders) {
        SCOPED_TRACE(encoderInfo.id);
        const auto encoded =
            encodeAll(encoderInfo.id, width, height, {{CodecParameter::BitRate, std::to_string(bitRate)}});
        const auto& units = encoded.units;
        ASSERT_EQ(units.size(), static_cast<std::size_t>(frameCount));
        EXPECT_TRUE(units.front().keyFrame);
        for (int i = 0; i < frameCount; ++i)
            EXPECT_EQ(units[static_cast<std::size_t>(i)].timestamp, static_cast<std::int64_t>(i) * 1000000 / 30);
        EXPECT_EQ(lumiflux_test::probeVideo(writeStream(encoderInfo.id, type, units, width, height)),
                  probed.at(type) + "," + std::to_string(frameCount) + "\n");

        if (type == CodecType::H264) {
            std::vector<std::uint8_t> bytes;
            for (const auto& unit : units)
                bytes.insert(bytes.end(), unit.bytes.begin(), unit.bytes.end());
            VideoStreamParser parser;
            ASSERT_TRUE(parser.parse(bytes.data(), bytes.size())) << parser.errorMessage();
            EXPECT_EQ(parser.metadata().displayWidth(), width);
            EXPECT_EQ(parser.accessUnits().size(), static_cast<std::size_t>(frameCount));
            // The profile parameter is learnt from the stream the encoder made.
            EXPECT_EQ(profileIdc(encoded.profile), parser.metadata().profile()) << encoded.profile;
        }

        for (const auto& decoderInfo : decoders) {
            SCOPED_TRACE(decoderInfo.id);
            const auto frames = decodeAll(decoderInfo.id, units, width, height);
            ASSERT_EQ(frames.size(), static_cast<std::size_t>(frameCount));
            double worst = 99;
            for (int i = 0; i < frameCount; ++i) {
                const auto& frame = frames[static_cast<std::size_t>(i)];
                ASSERT_EQ(frame->width, width);
                ASSERT_EQ(frame->height, height);
                EXPECT_EQ(frame->timestamp, units[static_cast<std::size_t>(i)].timestamp);
                worst = std::min(worst, psnr(*frame, i));
            }
            EXPECT_GE(worst, 30.0);
            // Zero copy: the frames are graphic buffers over the sink's buffers.
            EXPECT_NE(dynamic_cast<GstGraphicBuffer*>(frames.front().get()), nullptr);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Types, GstCodecsRoundTrip,
                         ::testing::Values(CodecType::H264, CodecType::H265, CodecType::VP8, CodecType::VP9,
                                           CodecType::AV1),
                         [](const ::testing::TestParamInfo<CodecType>& type) {
                             return lumiflux_tool::codecTypeName(type.param);
                         });

// Drops the last reference to its codec from inside the first frame's
// call, once the test has let go of its own.
template <typename Codec> class DroppingListener : public VideoEncoderListener, public VideoDecoderListener {
public:
    void onEncodedFrame(const EncodedFrame&) override { drop(); }
    void onDecodedFrame(const std::shared_ptr<GraphicBuffer>&) override { drop(); }
    void onEncoderError(const std::string&) override {}
    void onDecoderError(const std::string&) override {}
    void onEncoderEos() override {}
    void onDecoderEos() override {}

    void handOver(std::shared_ptr<Codec> last)
    {
        std::lock_guard<std::mutex> lock(mutex);
        codec = std::move(last);
        changed.notify_all();
    }

private:
    void drop()
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (changed.wait_for(lock, 30s, [this] { return codec != nullptr; }))
            codec.reset();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::shared_ptr<Codec> codec;
};

// A hang would block the whole run: past the time limit the process ends
// with a failure instead.
template <typename Condition> void waitOrFail(Condition condition, const std::string& what)
{
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            std::fprintf(stderr, "FAILED: %s did not finish within 30 s\n", what.c_str());
            std::_Exit(1);
        }
        std::this_thread::sleep_for(10ms);
    }
}

template <typename Codec, typename Feed> void dropInsideListener(const std::string& id, Feed feed)
{
    SCOPED_TRACE(id);
    constexpr bool encoder = std::is_same_v<Codec, VideoEncoder>;
    // Every other instance is taken, so the id is available again only once
    // the dropped instance is entirely gone.
    std::vector<std::shared_ptr<Codec>> others;
    while (codecs()->isCodecIdAvailable(id)) {
        if constexpr (encoder)
            others.push_back(codecs()->createVideoEncoderById(id));
        else
            others.push_back(codecs()->createVideoDecoderById(id));
    }
    ASSERT_FALSE(others.empty());
    others.pop_back();
    DroppingListener<Codec> listener;
    auto codec =
        start(id, listener, stream<std::conditional_t<encoder, VideoEncoderMetadata, VideoDecoderMetadata>>(320, 240));
    ASSERT_NE(codec, nullptr);
    feed(*codec);
    listener.handOver(std::move(codec));
    waitOrFail([&] { return codecs()->isCodecIdAvailable(id); }, "dropping " + id + " inside its listener");
}

TEST(GstCodecs, DroppingTheLastReferenceInsideTheListenerReturns)
{
    const auto units = encodeAll("gst.vp8.vpx.enc", 320, 240, {}, nv12, -1, 10).units;
    ASSERT_EQ(units.size(), 10u);
    dropInsideListener<VideoEncoder>("gst.h264.openh264.enc",
                                     [](VideoEncoder& codec) { codec.encode(patternFrame(0, 320, 240), false); });
    dropInsideListener<VideoDecoder>("gst.vp8.vpx.dec", [&](VideoDecoder& codec) {
        for (std::size_t i = 0; i < 3; ++i)
            codec.decode(units[i].bytes.data(), units[i].bytes.size(), units[i].timestamp);
    });
}

TEST(GstCodecs, I420AndForeignBuffersAndForcedKeyFrames)
{
    // I420 frames, and a key frame forced in the middle of a long interval.
    const auto units = encodeAll("gst.h264.openh264.enc", 320, 240,
                                 {{CodecParameter::BitRate, "600000"}, {CodecParameter::KeyFrameInterval, "1000"}},
                                 PixelFormat::YUV420Planar, 30)
                           .units;
    ASSERT_EQ(units.size(), static_cast<std::size_t>(frameCount));
    EXPECT_TRUE(units[30].keyFrame);
    EXPECT_FALSE(units[29].keyFrame);
    EXPECT_FALSE(units[31].keyFrame);
    const auto frames = decodeAll("gst.h264.avdec.dec", units, 320, 240);
    ASSERT_EQ(frames.size(), static_cast<std::size_t>(frameCount));
    EXPECT_GT(psnr(*frames[45], 45), 30.0);

    // A graphic buffer of another kind is copied in through its YCbCr view.
    const auto foreign = encodeAll("gst.vp8.vpx.enc", 320, 240, {}, nv12, -1, 10, true).units;
    ASSERT_EQ(foreign.size(), 10u);
    const auto decoded = decodeAll("gst.vp8.vpx.dec", foreign, 320, 240);
    ASSERT_EQ(decoded.size(), 10u);
    EXPECT_GT(psnr(*decoded[9], 9), 30.0);
}

TEST(GstCodecs, GarbageGivesEveryDecoderAnErrorNotACrash)
{
    std::vector<std::uint8_t> garbage(20000);
    std::uint32_t state = 12345;
    for (std::size_t i = 0; i < garbage.size(); ++i) {
        state = state * 1103515245u + 12345u;
        // Some start codes in the noise, so that parsers pass pieces on.
        const std::size_t inCode = i % 997;
        garbage[i] = inCode < 2 ? 0 : inCode == 2 ? 1 : static_cast<std::uint8_t>(state >> 16);
    }
    for (const auto& info : codecs()->listCodecs()) {
        if (info.encoder)
            continue;
        SCOPED_TRACE(info.id);
        Collector collector;
        auto decoder = start(info.id, collector, stream<VideoDecoderMetadata>(320, 240));
        ASSERT_NE(decoder, nullptr);
        for (std::size_t offset = 0; offset < garbage.size(); offset += 2000)
            decoder->decode(garbage.data() + offset, 2000, static_cast<std::int64_t>(offset) * 10);
        decoder->drain();
        EXPECT_TRUE(collector.waitForError()) << "no error reported";
    }
}

TEST(GstCodecs, WrongSizedFrameIsRefusedWithAClearMessage)
{
    lumiflux_test::clearSyslog();
    auto encoder = codecs()->createVideoEncoderById("gst.h264.openh264.enc");
    auto metadata = stream<VideoEncoderMetadata>(320, 240, CodecType::H264);
    ASSERT_TRUE(encoder->configure(metadata));
    EXPECT_FALSE(encoder->encode(patternFrame(0, 320, 240), false)) << "before start";
    ASSERT_TRUE(encoder->start());
    EXPECT_FALSE(encoder->encode(patternFrame(0, 640, 480), false));
    const auto lines = lumiflux_test::syslogRecordsContaining("given to an encoder configured for");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].text.find("frame of 640x480 given to an encoder configured for 320x240"), std::string::npos)
        << lines[0].text;
    EXPECT_TRUE(encoder->encode(patternFrame(0, 320, 240), false));
    EXPECT_FALSE(encoder->encode(nullptr, false));
    // Unsupported streams are refused at configure time.
    EXPECT_TRUE(encoder->stop());
    metadata.width = 8;
    EXPECT_FALSE(encoder->configure(metadata));
    metadata.width = 320;
    metadata.codecType = CodecType::VP8;
    EXPECT_FALSE(encoder->configure(metadata));
}

TEST(GstCodecs, DestroyingInstancesMidStreamReturnsThem)
{
    const auto units = encodeAll("gst.h264.openh264.enc", 320, 240, {{CodecParameter::BitRate, "500000"}}).units;
    ASSERT_GE(units.size(), 20u);
    for (const std::string id : {"gst.h264.openh264.enc", "gst.h264.avdec.dec"}) {
        SCOPED_TRACE(id);
        int maxInstances = 0;
        for (const auto& info : codecs()->listCodecs())
            if (info.id == id)
                maxInstances = info.maxInstances;
        ASSERT_GT(maxInstances, 0);
        for (int round = 0; round < 2; ++round) {
            std::vector<Collector> collectors(static_cast<std::size_t>(maxInstances));
            std::vector<std::shared_ptr<void>> instances;
            for (auto& collector : collectors) {
                if (id.find(".enc") != std::string::npos) {
                    auto encoder = start(id, collector, stream<VideoEncoderMetadata>(320, 240));
                    ASSERT_NE(encoder, nullptr) << "round " << round;
                    for (int f = 0; f < 8; ++f)
                        ASSERT_TRUE(encoder->encode(patternFrame(f, 320, 240), false));
                    instances.push_back(encoder);
                } else {
                    // No size given: the decoder learns it from the stream.
                    auto decoder = start(id, collector, stream<VideoDecoderMetadata>(0, 0));
                    ASSERT_NE(decoder, nullptr) << "round " << round;
                    for (std::size_t f = 0; f < 20; ++f)
                        decoder->decode(units[f].bytes.data(), units[f].bytes.size(), units[f].timestamp);
                    instances.push_back(decoder);
                }
            }
            EXPECT_FALSE(codecs()->isCodecIdAvailable(id));
            // Dropped while frames are still in flight.
            instances.clear();
            EXPECT_TRUE(codecs()->isCodecIdAvailable(id));
        }
    }
}

} // namespace
