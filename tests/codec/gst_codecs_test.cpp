// lumiflux-gst-codecs over real GStreamer codecs and the stand-in hardware ones; ffprobe and PSNR as oracles.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/codec.h>
#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/video_stream_parser.h>

#include "codec_support.h"
#include "recorder.h"
#include "syslog_capture.h"
#include "test_paths.h"
#include "watchdog.h"

using namespace Tevara::Lumiflux;
using namespace std::chrono_literals;

namespace {

constexpr int frameCount = 60, framerate = 30;
constexpr PixelFormat nv12 = PixelFormat::YUV420SemiPlanar, i420 = PixelFormat::YUV420Planar;
constexpr const char* v4l2Encoder = "gst.h264.lumifluxtestv4l2.enc";
constexpr const char* vaEncoder = "gst.vp8.lumifluxtestva.enc";
constexpr unsigned bitRate = CodecParameter::BitRate, keyInterval = CodecParameter::KeyFrameInterval,
                   rateControl = CodecParameter::RateControl, profile = CodecParameter::Profile;

// visit(sample, expected) over frame `frame`: gradients and a moving square show a misplaced or stale row.
template <typename Visit> void walkPattern(const YCbCrFrame& view, int frame, Visit visit)
{
    const int w = view.width, h = view.height, square = 48, shade = frame * 7 % 32;
    const int left = frame * 4 % (w - square), top = frame * 2 % (h - square);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool inSquare = x >= left && x < left + square && y >= top && y < top + square;
            visit(view.y[y * view.yStride + x], inSquare ? 220 : 30 + shade + x * 150 / w + y * 40 / h);
        }
    for (int y = 0; y < h / 2; ++y)
        for (int x = 0; x < w / 2; ++x) {
            visit(view.cb[y * view.cStride + x * view.chromaStep], 70 + x * 2 * 110 / w);
            visit(view.cr[y * view.cStride + x * view.chromaStep], 90 + y * 2 * 60 / h);
        }
}

std::shared_ptr<GraphicBuffer> patternFrame(int frame, int width, int height, PixelFormat format = nv12)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, format == nv12 ? GST_VIDEO_FORMAT_NV12 : GST_VIDEO_FORMAT_I420, width, height);
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(frame) * GST_SECOND / framerate;
    auto result = GraphicBufferFactory::fromInfo(info)->create(buffer);
    gst_buffer_unref(buffer);
    walkPattern(*result->mapYCbCr(), frame, [](std::uint8_t& sample, int value) { sample = std::uint8_t(value); });
    return result;
}

// A graphic buffer of another implementation, lending out the view of the one it wraps.
struct ForeignBuffer : Internal::BaseGraphicBuffer {
    explicit ForeignBuffer(std::shared_ptr<GraphicBuffer> frame) : inner(std::move(frame))
    {
        width = inner->width;
        height = inner->height;
        timestamp = inner->timestamp;
        format = PixelFormat::YCbCrFlexible;
    }
    std::shared_ptr<YCbCrFrame> mapYCbCr() override { return inner->mapYCbCr(); }
    std::shared_ptr<GraphicBuffer> inner;
};

struct EncodedUnit {
    std::vector<std::uint8_t> bytes;
    std::int64_t timestamp;
    bool keyFrame;
    bool operator==(const EncodedUnit& o) const { return bytes == o.bytes && timestamp == o.timestamp; }
};

struct Collector : VideoEncoderListener, VideoDecoderListener, lumiflux_test::Recorder {
    void onEncodedFrame(const EncodedFrame& f) override
    {
        add(encoded, EncodedUnit{{f.data, f.data + f.size}, f.timestamp, f.keyFrame});
    }
    void onDecodedFrame(const std::shared_ptr<GraphicBuffer>& frame) override { add(decoded, frame); }
    void onEncoderError(const std::string& message) override { add(errors, message); }
    void onDecoderError(const std::string& message) override { add(errors, message); }
    void onEncoderEos() override { add(ends, 1); }
    void onDecoderEos() override { add(ends, 1); }
    void expectCleanEos(const std::string& id)
    {
        EXPECT_TRUE(waitFor([&] { return !ends.empty(); }, 60s)) << id;
        EXPECT_TRUE(errors.empty()) << id << ": " << errors.front();
    }
    std::vector<EncodedUnit> encoded;
    std::vector<std::shared_ptr<GraphicBuffer>> decoded;
    std::vector<std::string> errors;
    std::vector<int> ends;
};

CodecManager* codecs()
{
    static CodecManager* manager = [] {
        const std::string dir = lumiflux_test::freshDirectory("gst-codecs");
        std::filesystem::create_symlink(LUMIFLUX_GST_CODECS_MODULE, dir + "/lumiflux-gst-codecs.so");
        setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
        gst_init(nullptr, nullptr);
        return LumifluxCodecManager();
    }();
    return manager;
}

std::vector<VideoCodecInfo> listed(bool encoder, CodecType type)
{
    std::vector<VideoCodecInfo> result;
    for (const auto& info : codecs()->listCodecs())
        if (info.encoder == encoder && info.type == type)
            result.push_back(info);
    return result;
}

template <typename Metadata>
using CodecOf = std::conditional_t<std::is_same_v<Metadata, VideoEncoderMetadata>, VideoEncoder, VideoDecoder>;

template <typename Metadata>
std::shared_ptr<CodecOf<Metadata>> start(const std::string& id, Collector& listener, Metadata metadata,
                                         const std::map<unsigned, std::string>& parameters = {})
{
    std::shared_ptr<CodecOf<Metadata>> codec;
    if constexpr (std::is_same_v<Metadata, VideoEncoderMetadata>)
        codec = codecs()->createVideoEncoderById(id);
    else
        codec = codecs()->createVideoDecoderById(id);
    EXPECT_NE(codec, nullptr) << id;
    if (!codec)
        return nullptr;
    codec->lockAndSetListener(&listener);
    metadata.codecType = codec->getInfo().type;
    bool ok = codec->configure(metadata);
    for (const auto& [parameter, value] : parameters)
        ok = codec->setParameter(parameter, value) && ok;
    ok = ok && codec->start();
    EXPECT_TRUE(ok) << id;
    return ok ? codec : nullptr;
}

using FrameSource = std::function<std::shared_ptr<GraphicBuffer>(int frame, int width, int height)>;

struct Encoded {
    std::vector<EncodedUnit> units;
    std::string profile; // the profile parameter after the stream
};

Encoded encodeAll(const std::string& id, int width, int height, const std::map<unsigned, std::string>& parameters,
                  int frames = frameCount, PixelFormat format = nv12, const FrameSource& source = {},
                  int forcedKeyFrame = -1)
{
    Collector collector;
    auto encoder = start(id, collector, VideoEncoderMetadata{{}, width, height, 0, format}, parameters);
    if (!encoder)
        return {};
    for (int i = 0; i < frames; ++i)
        EXPECT_TRUE(encoder->encode(source ? source(i, width, height) : patternFrame(i, width, height, format),
                                    i == forcedKeyFrame))
            << i;
    encoder->eos();
    collector.expectCleanEos(id);
    EXPECT_EQ(encoder->pendingFrames(), 0);
    return {collector.encoded, encoder->getParameter(profile)};
}

TEST(GstCodecs, TheRegistryGivesEveryCodecHardwareFirstWithItsGeometryAndParameters)
{
    CodecManager* manager = codecs();
    std::map<std::string, VideoCodecInfo> byId;
    bool softwareSeen = false;
    for (const auto& info : manager->listCodecs()) {
        EXPECT_TRUE(byId.emplace(info.id, info).second) << info.id << " twice";
        EXPECT_FALSE(info.hw && softwareSeen) << info.id << ": hardware after software";
        softwareSeen = softwareSeen || !info.hw;
        EXPECT_EQ(info.hw, info.id.find("lumifluxtest") != std::string::npos) << info.id;
        EXPECT_GE(info.maxInstances, 2) << info.id;
    }
    for (const char* id :
         {"gst.h264.x264.enc", "gst.h264.openh264.enc", "gst.vp8.vpx.enc", "gst.h264.avdec.dec",
          "gst.h264.openh264.dec", "gst.vp8.vpx.dec", "gst.h265.avdec.dec", "gst.h265.x265.enc", "gst.vp9.vpx.enc",
          "gst.vp9.vpx.dec", "gst.vp9.avdec.dec", "gst.av1.aom.enc", "gst.av1.aom.dec", v4l2Encoder,
          "gst.h264.lumifluxtestv4l2.dec", vaEncoder, "gst.vp8.lumifluxtestva.dec"})
        EXPECT_EQ(byId.count(id), 1u) << id << " is missing: run scripts/install-deps";
    // Left out: an encoder that cannot encode without its OMX library, a
    // decoder that decodes nothing of a test stream, one known to crash.
    for (const char* id : {"gst.h264.avenc.enc", "gst.vp8.alphadecodebin.dec", "gst.h265.libde265.dec"})
        EXPECT_EQ(byId.count(id), 0u) << id;
    EXPECT_GT(byId["gst.h264.x264.enc"].priority, byId["gst.h264.openh264.enc"].priority);
    EXPECT_GT(byId["gst.h264.avdec.dec"].priority, byId["gst.h264.openh264.dec"].priority);
    EXPECT_EQ(manager->createVideoEncoder(CodecType::H264, true)->getInfo().id, v4l2Encoder);
    EXPECT_EQ(manager->createVideoEncoder(CodecType::H265, true), nullptr);
    EXPECT_EQ(manager->createVideoDecoder(CodecType::VP8, true)->getInfo().id, "gst.vp8.lumifluxtestva.dec");
    for (const auto& [id, min, max, alignment] : std::vector<std::tuple<std::string, int, int, int>>{
             {v4l2Encoder, 64, 1920, 16}, {"gst.h264.x264.enc", 16, 8192, 2}, {"gst.vp9.vpx.dec", 16, 16384, 2}}) {
        const auto e = manager->getVideoCodecExtendedInfo(id);
        EXPECT_EQ(std::make_tuple(e->getSizeRange().min.width, e->getSizeRange().max.width, e->getAlignment().height),
                  std::make_tuple(min, max, alignment))
            << id;
    }
    // A parameter only where a property takes it; the profile only where the
    // encoded caps carry it (a parser after H.264 and H.265 encoders).
    std::string parameters;
    for (const std::string id : {"gst.h264.openh264.enc", "gst.h265.x265.enc", "gst.av1.aom.enc", vaEncoder,
                                 "gst.vp9.vpx.dec", "gst.vp8.vpx.dec"}) {
        parameters += " " + id + ":";
        for (unsigned p : id.find(".enc") != std::string::npos
                              ? manager->createVideoEncoderById(id)->parameters().ids()
                              : manager->createVideoDecoderById(id)->parameters().ids())
            parameters += std::to_string(p);
    }
    EXPECT_EQ(parameters, " gst.h264.openh264.enc:1234 gst.h265.x265.enc:124 gst.av1.aom.enc:123 "
                          "gst.vp8.lumifluxtestva.enc:123 gst.vp9.vpx.dec:4 gst.vp8.vpx.dec:");
}

TEST(GstCodecs, EncoderParametersAreValidatedAndChangeTheStream)
{
    for (const auto& info : listed(true, CodecType::H264)) {
        SCOPED_TRACE(info.id);
        auto encoder = codecs()->createVideoEncoderById(info.id);
        const auto& set = encoder->parameters();
        const std::string modes = set.range(rateControl);
        EXPECT_EQ(set.range(bitRate) + " " + set.range(keyInterval) + " " + set.range(profile),
                  "16000-100000000 1-3000 -");
        using Case = std::tuple<unsigned, std::string, bool>;
        // clang-format off
        for (const auto& [id, value, accepted] : std::vector<Case>{
                 {bitRate, "0x100000", true}, {bitRate, "15999", false}, {keyInterval, "0", false},
                 {rateControl, "no-such-mode", false}, {rateControl, modes.substr(0, modes.find(',')), true},
                 {profile, "high", false}, {99, "1", false}})
            // clang-format on
            EXPECT_EQ(encoder->setParameter(id, value), accepted) << id << "=" << value;
        EXPECT_EQ(encoder->getParameter(bitRate), "0x100000");
    }
    auto va = codecs()->createVideoEncoderById(vaEncoder);
    EXPECT_EQ(va->parameters().range(keyInterval), "1-1024") << "within the property's own range";
    EXPECT_EQ(va->parameters().range(rateControl), "cbr,vbr,cqp");
    // The stand-ins pass their surface's settings (V4L2 controls, VA's kbit/s) on to the encoder they wrap.
    for (const char* id : {v4l2Encoder, vaEncoder}) {
        SCOPED_TRACE(id);
        const auto units =
            encodeAll(id, 640, 480, {{bitRate, "200000"}, {keyInterval, "10"}, {rateControl, "cbr"}}, 30).units;
        ASSERT_EQ(units.size(), 30u);
        std::size_t bytes = 0;
        for (std::size_t i = 0; i < units.size(); ++i) {
            bytes += units[i].bytes.size();
            EXPECT_EQ(units[i].keyFrame, i % 10 == 0) << i;
        }
        EXPECT_LT(bytes, 200000u / 8 * 2) << "one second at 200 kbit/s, with room";
    }
}

class GstCodecsRoundTrip : public ::testing::TestWithParam<CodecType> {};

TEST_P(GstCodecsRoundTrip, EveryEncoderThroughEveryDecoderOfItsType)
{
    const CodecType type = GetParam();
    const int width = 640, height = 480;
    const std::int64_t shift = 5000000; // decoders get times from 5 s on, as in a stream joined late
    const auto encoders = listed(true, type), decoders = listed(false, type);
    ASSERT_FALSE(encoders.empty() || decoders.empty());
    const std::string probed = type == CodecType::H265 ? "hevc" : lumiflux_tool::codecTypeName(type);
    for (const auto& encoderInfo : encoders) {
        SCOPED_TRACE(encoderInfo.id);
        const auto encoded = encodeAll(encoderInfo.id, width, height, {{bitRate, std::to_string(width * height * 8)}});
        const auto& units = encoded.units;
        ASSERT_EQ(units.size(), static_cast<std::size_t>(frameCount));
        EXPECT_TRUE(units.front().keyFrame);
        for (int i = 0; i < frameCount; ++i)
            EXPECT_EQ(units[i].timestamp, static_cast<std::int64_t>(i) * 1000000 / framerate);
        const char* fourcc = lumiflux_tool::ivfFourcc(type);
        const std::string path =
            lumiflux_test::freshDirectory("round-trip") + "/" + encoderInfo.id + (fourcc ? ".ivf" : ".bin");
        std::FILE* file = std::fopen(path.c_str(), "wb");
        std::optional<lumiflux_tool::IvfWriter> ivf;
        if (fourcc)
            ivf.emplace(file, fourcc, width, height, framerate);
        for (const auto& unit : units)
            if (ivf)
                ivf->writeFrame(unit.bytes.data(), unit.bytes.size(), unit.timestamp);
            else
                std::fwrite(unit.bytes.data(), 1, unit.bytes.size(), file);
        if (ivf)
            ivf->finish();
        std::fclose(file);
        EXPECT_EQ(lumiflux_test::probeVideo(path), probed + "," + std::to_string(frameCount) + "\n");
        if (type == CodecType::H264) {
            std::vector<std::uint8_t> bytes;
            for (const auto& unit : units)
                bytes.insert(bytes.end(), unit.bytes.begin(), unit.bytes.end());
            VideoStreamParser parser;
            ASSERT_TRUE(parser.parse(bytes.data(), bytes.size())) << parser.errorMessage();
            // The profile parameter is learnt from the stream the encoder made.
            const std::map<std::string, int> idc{
                {"baseline", 66}, {"constrained-baseline", 66}, {"main", 77}, {"high", 100}, {"constrained-high", 100}};
            EXPECT_EQ(idc.count(encoded.profile) ? idc.at(encoded.profile) : -1, parser.metadata().profile())
                << encoded.profile;
        }
        for (const auto& decoderInfo : decoders) {
            SCOPED_TRACE(decoderInfo.id);
            Collector collector;
            auto decoder = start(decoderInfo.id, collector, VideoDecoderMetadata{{}, width, height});
            ASSERT_NE(decoder, nullptr);
            for (const auto& unit : units)
                EXPECT_TRUE(decoder->decode(unit.bytes.data(), unit.bytes.size(), unit.timestamp + shift));
            EXPECT_TRUE(decoder->drain());
            collector.expectCleanEos(decoderInfo.id);
            const auto& frames = collector.decoded;
            ASSERT_EQ(frames.size(), static_cast<std::size_t>(frameCount));
            double worst = 99; // PSNR against the pattern over all three planes
            for (int i = 0; i < frameCount; ++i) {
                ASSERT_EQ(frames[i]->width * 10000 + frames[i]->height, width * 10000 + height);
                EXPECT_EQ(frames[i]->timestamp, units[i].timestamp + shift);
                double squared = 0, samples = 0;
                walkPattern(*frames[i]->mapYCbCr(), i, [&](std::uint8_t sample, int expected) {
                    squared += (sample - expected) * (sample - expected);
                    ++samples;
                });
                worst = std::min(worst, squared == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * samples / squared));
            }
            EXPECT_GE(worst, 30.0);
            EXPECT_NE(dynamic_cast<GstGraphicBuffer*>(frames.front().get()), nullptr) << "zero copy";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Types, GstCodecsRoundTrip,
                         ::testing::Values(CodecType::H264, CodecType::H265, CodecType::VP8, CodecType::VP9,
                                           CodecType::AV1),
                         [](const auto& type) { return lumiflux_tool::codecTypeName(type.param); });

TEST(GstCodecs, FramesOfEveryLayoutEncodeAsTheSamePictureInAGStreamerBuffer)
{
    // openh264 runs on one thread, so the same pictures give the same stream whatever their layout and maker
    // (x264's threads make its rate control depend on timing).
    const char* id = "gst.h264.openh264.enc";
    for (PixelFormat format : {nv12, i420}) {
        const auto reference = encodeAll(id, 320, 240, {}, 10, format).units;
        ASSERT_EQ(reference.size(), 10u);
        for (const auto& [name, source] : std::vector<std::pair<std::string, FrameSource>>{
                 {"foreign NV12",
                  [](int i, int w, int h) { return std::make_shared<ForeignBuffer>(patternFrame(i, w, h)); }},
                 {"foreign I420",
                  [](int i, int w, int h) { return std::make_shared<ForeignBuffer>(patternFrame(i, w, h, i420)); }},
                 {"other GStreamer layout",
                  [format](int i, int w, int h) { return patternFrame(i, w, h, format == nv12 ? i420 : nv12); }}}) {
            SCOPED_TRACE(name + (format == nv12 ? " to NV12" : " to I420"));
            EXPECT_TRUE(encodeAll(id, 320, 240, {}, 10, format, source).units == reference);
        }
    }
    const auto units =
        encodeAll("gst.h264.openh264.enc", 320, 240, {{keyInterval, "1000"}}, frameCount, i420, {}, 30).units;
    ASSERT_EQ(units.size(), static_cast<std::size_t>(frameCount));
    EXPECT_TRUE(units[30].keyFrame);
    EXPECT_FALSE(units[29].keyFrame || units[31].keyFrame);
}

TEST(GstCodecs, InputThatGivesNoFrameIsAnError)
{
    // Input the decoder drops without an error of its own: the decoder says
    // itself that nothing came out, counting the units of this run only.
    Collector collector;
    auto decoder = start("gst.vp8.vpx.dec", collector, VideoDecoderMetadata{{}, 320, 240});
    ASSERT_NE(decoder, nullptr);
    const std::vector<std::uint8_t> noStartCode(500, 0xab);
    for (int units : {3, 2}) {
        if (units == 2) {
            ASSERT_TRUE(decoder->stop() && decoder->start());
            collector.errors.clear(); // the old pipeline is gone: nothing calls the listener
            collector.ends.clear();
        }
        for (int i = 0; i < units; ++i)
            EXPECT_TRUE(decoder->decode(noStartCode.data(), noStartCode.size(), i * 33333));
        decoder->drain();
        ASSERT_TRUE(collector.waitFor([&] { return !collector.ends.empty(); }, 60s));
        EXPECT_EQ(collector.errors,
                  std::vector<std::string>{"no frame could be decoded from " + std::to_string(units) + " input units"});
    }
}

TEST(GstCodecs, RefusedFramesAndStreamsAreSaidSo)
{
    lumiflux_test::clearSyslog();
    auto encoder = codecs()->createVideoEncoderById("gst.h264.openh264.enc");
    auto metadata = VideoEncoderMetadata{CodecType::H264, 320, 240};
    ASSERT_TRUE(encoder->configure(metadata));
    ASSERT_TRUE(encoder->start());
    EXPECT_FALSE(encoder->encode(patternFrame(0, 640, 480), false));
    const auto lines = lumiflux_test::syslogRecordsContaining("given to an encoder configured for");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].text.find("frame of 640x480 given to an encoder configured for 320x240"), std::string::npos)
        << lines[0].text;
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(encoder->encode(patternFrame(i, 320, 240), false));
    EXPECT_TRUE(encoder->stop());
    EXPECT_EQ(encoder->pendingFrames(), 0) << "stopping drops what is pending";
    metadata.width = 8; // unsupported streams are refused at configure time
    EXPECT_FALSE(encoder->configure(metadata));
    metadata.width = 320;
    metadata.codecType = CodecType::VP8;
    EXPECT_FALSE(encoder->configure(metadata));
    // A width the hardware does not take (steps of 16) is refused once the stream starts.
    Collector collector;
    auto hardware = start(v4l2Encoder, collector, VideoEncoderMetadata{{}, 328, 240});
    ASSERT_NE(hardware, nullptr);
    hardware->encode(patternFrame(0, 328, 240), false);
    EXPECT_TRUE(collector.waitFor([&] { return !collector.errors.empty(); }, 60s));
}

// Drops the last reference inside its first call, once the test let go of it.
struct Dropping : Collector {
    void onDecodedFrame(const std::shared_ptr<GraphicBuffer>&) override
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (changed.wait_for(lock, 30s, [this] { return decoder != nullptr; })) {
            decoder->lockAndSetListener(nullptr);
            decoder.reset();
        }
    }
    std::shared_ptr<VideoDecoder> decoder;
};

TEST(GstCodecs, InstancesComeBackWhenDroppedMidStreamOrInsideTheirListener)
{
    const std::string id = "gst.h264.avdec.dec";
    const auto units = encodeAll("gst.h264.openh264.enc", 320, 240, {{bitRate, "500000"}}, 20).units;
    ASSERT_EQ(units.size(), 20u);
    lumiflux_test::Watchdog watchdog("decoders dropped mid-stream and inside their listener", 120s);
    Dropping dropping;
    std::vector<Collector> collectors(16);
    std::vector<std::shared_ptr<VideoDecoder>> held; // no size given: the decoders learn it from the stream
    while (codecs()->isCodecIdAvailable(id) && held.size() < collectors.size())
        held.push_back(start(id, held.empty() ? dropping : collectors[held.size()], VideoDecoderMetadata{{}, 0, 0}));
    ASSERT_GE(held.size(), 2u);
    ASSERT_FALSE(codecs()->isCodecIdAvailable(id));
    for (std::size_t d = 0; d < held.size(); ++d) // the first no more than its queue takes
        for (std::size_t i = 0; i < (d == 0 ? 3 : units.size()); ++i)
            held[d]->decode(units[i].bytes.data(), units[i].bytes.size(), units[i].timestamp);
    const std::size_t all = held.size();
    {
        std::lock_guard<std::mutex> lock(dropping.mutex);
        dropping.decoder = std::move(held[0]);
        dropping.changed.notify_all();
    }
    held.clear(); // the others mid-stream
    for (auto deadline = std::chrono::steady_clock::now() + 30s;
         !codecs()->isCodecIdAvailable(id) && std::chrono::steady_clock::now() < deadline;)
        std::this_thread::sleep_for(10ms);
    for (std::size_t i = 0; i < all; ++i)
        EXPECT_NE(held.emplace_back(codecs()->createVideoDecoderById(id)), nullptr) << i;
    EXPECT_FALSE(codecs()->isCodecIdAvailable(id)) << "every instance came back, and no more";
}

} // namespace
