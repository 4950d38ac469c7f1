// lumiflux-gst-codecs end to end: the real module loaded by the root codec
// manager, real GStreamer encoders and decoders, frames of a known pattern
// through every encoder and back through every matching decoder, and an
// outside decoder (ffmpeg) reading our H.264.

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/codec.h>
#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/video_stream_parser.h>

#include "syslog_capture.h"
#include "test_paths.h"

using namespace Tevara::Lumiflux;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int frameCount = 60;
constexpr int framerate = 30;

// ---------------------------------------------------------------- the pattern

// Smooth gradients with a bright square that moves 4 pixels per frame: easy
// to compress well, and any misplaced or stale frame shows in the PSNR.
std::uint8_t lumaAt(int x, int y, int frame, int width, int height)
{
    const int square = 48;
    const int left = (frame * 4) % (width - square);
    const int top = (frame * 2) % (height - square);
    if (x >= left && x < left + square && y >= top && y < top + square)
        return 220;
    return static_cast<std::uint8_t>(30 + x * 150 / width + y * 40 / height);
}

std::uint8_t cbAt(int cx, int, int, int width, int)
{
    return static_cast<std::uint8_t>(70 + cx * 2 * 110 / width);
}
std::uint8_t crAt(int, int cy, int, int, int height)
{
    return static_cast<std::uint8_t>(90 + cy * 2 * 60 / height);
}

// One frame of the pattern as an NV12 or I420 graphic buffer over a GStreamer
// buffer, made the way a camera plug-in makes them.
std::shared_ptr<GraphicBuffer> patternFrame(int frame, int width, int height, GstVideoFormat format)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, format, width, height);
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
    GstVideoFrame mapped;
    EXPECT_TRUE(gst_video_frame_map(&mapped, &info, buffer, GST_MAP_WRITE));
    auto* y = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&mapped, 0));
    for (int row = 0; row < height; ++row)
        for (int x = 0; x < width; ++x)
            y[row * GST_VIDEO_FRAME_PLANE_STRIDE(&mapped, 0) + x] = lumaAt(x, row, frame, width, height);
    for (int row = 0; row < height / 2; ++row) {
        for (int x = 0; x < width / 2; ++x) {
            if (format == GST_VIDEO_FORMAT_NV12) {
                auto* uv = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&mapped, 1)) +
                           row * GST_VIDEO_FRAME_PLANE_STRIDE(&mapped, 1);
                uv[2 * x] = cbAt(x, row, frame, width, height);
                uv[2 * x + 1] = crAt(x, row, frame, width, height);
            } else {
                static_cast<std::uint8_t*>(
                    GST_VIDEO_FRAME_PLANE_DATA(&mapped, 1))[row * GST_VIDEO_FRAME_PLANE_STRIDE(&mapped, 1) + x] =
                    cbAt(x, row, frame, width, height);
                static_cast<std::uint8_t*>(
                    GST_VIDEO_FRAME_PLANE_DATA(&mapped, 2))[row * GST_VIDEO_FRAME_PLANE_STRIDE(&mapped, 2) + x] =
                    crAt(x, row, frame, width, height);
            }
        }
    }
    gst_video_frame_unmap(&mapped);
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(frame) * GST_SECOND / framerate;
    auto factory = GraphicBufferFactory::fromInfo(info);
    auto result = factory->create(buffer);
    gst_buffer_unref(buffer);
    return result;
}

// A graphic buffer of another implementation: plain memory behind mapYCbCr().
class PlainNv12Buffer : public Internal::BaseGraphicBuffer {
public:
    PlainNv12Buffer(int w, int h, int frame) : pixels(static_cast<std::size_t>(w * h * 3 / 2))
    {
        width = static_cast<std::uint16_t>(w);
        height = static_cast<std::uint16_t>(h);
        timestamp = static_cast<std::int64_t>(frame) * 1000000 / framerate;
        format = PixelFormat::YCbCrFlexible;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                pixels[static_cast<std::size_t>(y * w + x)] = lumaAt(x, y, frame, w, h);
        for (int y = 0; y < h / 2; ++y)
            for (int x = 0; x < w / 2; ++x) {
                pixels[static_cast<std::size_t>(w * h + y * w + 2 * x)] = cbAt(x, y, frame, w, h);
                pixels[static_cast<std::size_t>(w * h + y * w + 2 * x + 1)] = crAt(x, y, frame, w, h);
            }
    }
    std::shared_ptr<YCbCrFrame> mapYCbCr() override
    {
        auto view = std::make_shared<YCbCrFrame>();
        view->y = pixels.data();
        view->cb = pixels.data() + width * height;
        view->cr = view->cb + 1;
        view->yStride = width;
        view->cStride = width;
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
double psnr(GraphicBuffer& decoded, int frame, int width, int height)
{
    auto view = decoded.mapYCbCr();
    EXPECT_TRUE(view);
    if (!view)
        return 0;
    double squared = 0;
    std::size_t samples = 0;
    auto add = [&](int a, int b) {
        squared += static_cast<double>((a - b) * (a - b));
        ++samples;
    };
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            add(view->y[y * view->yStride + x], lumaAt(x, y, frame, width, height));
    for (int y = 0; y < height / 2; ++y)
        for (int x = 0; x < width / 2; ++x) {
            add(view->cb[y * view->cStride + x * view->chromaStep], cbAt(x, y, frame, width, height));
            add(view->cr[y * view->cStride + x * view->chromaStep], crAt(x, y, frame, width, height));
        }
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
        encoded.push_back(
            {std::vector<std::uint8_t>(frame.data, frame.data + frame.size), frame.timestamp, frame.keyFrame});
    }
    void onEncoderError(const std::string& message) override { error(message); }
    void onEncoderEos() override { finish(); }
    void onDecodedFrame(const std::shared_ptr<GraphicBuffer>& frame) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        decoded.push_back(frame);
    }
    void onDecoderError(const std::string& message) override { error(message); }
    void onDecoderEos() override { finish(); }

    bool waitForEos(std::chrono::seconds timeout = 60s)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [this] { return eos; });
    }
    bool waitForError(std::chrono::seconds timeout = 30s)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [this] { return !errors.empty(); });
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<EncodedUnit> encoded;
    std::vector<std::shared_ptr<GraphicBuffer>> decoded;
    std::vector<std::string> errors;
    bool eos = false;

private:
    void error(const std::string& message)
    {
        std::lock_guard<std::mutex> lock(mutex);
        errors.push_back(message);
        changed.notify_all();
    }
    void finish()
    {
        std::lock_guard<std::mutex> lock(mutex);
        eos = true;
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

std::vector<EncodedUnit> encodeAll(const std::string& id, int width, int height, int bitRate,
                                   GstVideoFormat format = GST_VIDEO_FORMAT_NV12, int forcedKeyFrame = -1)
{
    auto encoder = codecs()->createVideoEncoderById(id);
    EXPECT_NE(encoder, nullptr) << id;
    if (!encoder)
        return {};
    Collector collector;
    encoder->lockAndSetListener(&collector);
    VideoEncoderMetadata metadata;
    metadata.codecType = encoder->getInfo().type;
    metadata.width = width;
    metadata.height = height;
    metadata.format = format == GST_VIDEO_FORMAT_NV12 ? PixelFormat::YUV420SemiPlanar : PixelFormat::YUV420Planar;
    metadata.framerate = framerate;
    EXPECT_TRUE(encoder->configure(metadata));
    EXPECT_TRUE(encoder->setParameter(CodecParameter::BitRate, std::to_string(bitRate)));
    if (forcedKeyFrame >= 0) {
        EXPECT_TRUE(encoder->setParameter(CodecParameter::KeyFrameInterval, "1000"));
    }
    EXPECT_TRUE(encoder->start());
    for (int i = 0; i < frameCount; ++i)
        EXPECT_TRUE(encoder->encode(patternFrame(i, width, height, format), i == forcedKeyFrame)) << i;
    encoder->eos();
    EXPECT_TRUE(collector.waitForEos()) << id;
    EXPECT_TRUE(collector.errors.empty()) << collector.errors.front();
    EXPECT_EQ(encoder->pendingFrames(), 0);
    if (encoder->getInfo().type == CodecType::H264) {
        const std::string profile = encoder->getParameter(CodecParameter::Profile);
        EXPECT_NE(profile, "unknown") << "learnt from the stream";
    }
    encoder->lockAndSetListener(nullptr);
    return collector.encoded;
}

std::vector<std::shared_ptr<GraphicBuffer>> decodeAll(const std::string& id, const std::vector<EncodedUnit>& units,
                                                      int width, int height)
{
    auto decoder = codecs()->createVideoDecoderById(id);
    EXPECT_NE(decoder, nullptr) << id;
    if (!decoder)
        return {};
    Collector collector;
    decoder->lockAndSetListener(&collector);
    VideoDecoderMetadata metadata;
    metadata.codecType = decoder->getInfo().type;
    metadata.width = width;
    metadata.height = height;
    EXPECT_TRUE(decoder->configure(metadata));
    EXPECT_TRUE(decoder->start());
    for (const auto& unit : units)
        EXPECT_TRUE(decoder->decode(unit.bytes.data(), unit.bytes.size(), unit.timestamp));
    EXPECT_TRUE(decoder->drain());
    EXPECT_TRUE(collector.waitForEos()) << id;
    EXPECT_TRUE(collector.errors.empty()) << collector.errors.front();
    decoder->lockAndSetListener(nullptr);
    return collector.decoded;
}

std::vector<std::uint8_t> concatenate(const std::vector<EncodedUnit>& units)
{
    std::vector<std::uint8_t> bytes;
    for (const auto& unit : units)
        bytes.insert(bytes.end(), unit.bytes.begin(), unit.bytes.end());
    return bytes;
}

int profileIdc(const std::string& name)
{
    static const std::map<std::string, int> known{
        {"baseline", 66}, {"constrained-baseline", 66}, {"main", 77}, {"high", 100}, {"constrained-high", 100}};
    const auto it = known.find(name);
    return it != known.end() ? it->second : -1;
}

// ---------------------------------------------------------------- tests

TEST(GstCodecs, RegistersExactlyTheCodecsWhoseElementsAreInstalled)
{
    CodecManager* manager = codecs(); // initialises GStreamer too
    // What scripts/install-deps provides must be there: these fail, not skip.
    for (const char* required : {"openh264enc", "openh264dec", "avdec_h264", "vp8enc", "vp8dec", "avdec_h265",
                                 "h264parse", "h265parse", "appsrc", "appsink", "videoconvert"})
        ASSERT_TRUE(elementInstalled(required)) << required << " is missing: run scripts/install-deps";

    std::set<std::string> ids;
    for (const auto& info : manager->listCodecs()) {
        ids.insert(info.id);
        EXPECT_FALSE(info.hw) << info.id;
        EXPECT_LT(info.priority, 0) << info.id << ": placed after any hardware codec";
        EXPECT_GE(info.maxInstances, 2) << info.id;
    }
    const std::set<std::string> always{"gst.h264.openh264.enc", "gst.vp8.vpx.enc", "gst.h264.avdec.dec",
                                       "gst.h264.openh264.dec", "gst.vp8.vpx.dec", "gst.h265.avdec.dec"};
    for (const auto& id : always)
        EXPECT_EQ(ids.count(id), 1u) << id;
    EXPECT_EQ(ids.count("gst.h264.x264.enc"), elementInstalled("x264enc") ? 1u : 0u);
    EXPECT_EQ(ids.size(), always.size() + (elementInstalled("x264enc") ? 1u : 0u));

    EXPECT_TRUE(codecs()->videoEncoderAvailable(CodecType::H264, false));
    EXPECT_FALSE(codecs()->videoEncoderAvailable(CodecType::H264, true));
    EXPECT_TRUE(codecs()->videoDecoderAvailable(CodecType::H265, false));
    EXPECT_FALSE(codecs()->videoEncoderAvailable(CodecType::H265, false));
    auto geometry = codecs()->getVideoCodecExtendedInfo("gst.vp8.vpx.dec");
    ASSERT_NE(geometry, nullptr);
    EXPECT_EQ(geometry->getSizeRange().max.width, 4096);
}

TEST(GstCodecs, EncoderParametersAreValidatedAgainstTheirRanges)
{
    for (const auto& info : listed(true, CodecType::H264)) {
        auto encoder = codecs()->createVideoEncoderById(info.id);
        ASSERT_NE(encoder, nullptr);
        const auto& set = encoder->parameters();
        EXPECT_EQ(set.ids(), (std::vector<unsigned>{CodecParameter::BitRate, CodecParameter::KeyFrameInterval,
                                                    CodecParameter::RateControl, CodecParameter::Profile}));
        EXPECT_EQ(set.range(CodecParameter::BitRate), "16000-100000000");
        EXPECT_EQ(set.range(CodecParameter::KeyFrameInterval), "1-3000");
        EXPECT_NE(set.range(CodecParameter::RateControl).find(','), std::string::npos) << "a list of choices";
        EXPECT_EQ(set.range(CodecParameter::Profile), "-");

        EXPECT_TRUE(encoder->setParameter(CodecParameter::BitRate, "0x100000"));
        EXPECT_EQ(encoder->getParameter(CodecParameter::BitRate), "0x100000");
        EXPECT_FALSE(encoder->setParameter(CodecParameter::BitRate, "15999"));
        EXPECT_FALSE(encoder->setParameter(CodecParameter::BitRate, "fast"));
        EXPECT_FALSE(encoder->setParameter(CodecParameter::KeyFrameInterval, "0"));
        EXPECT_FALSE(encoder->setParameter(CodecParameter::RateControl, "no-such-mode"));
        const std::string firstChoice =
            set.range(CodecParameter::RateControl).substr(0, set.range(CodecParameter::RateControl).find(','));
        EXPECT_TRUE(encoder->setParameter(CodecParameter::RateControl, firstChoice));
        EXPECT_FALSE(encoder->setParameter(CodecParameter::Profile, "high")) << "read-only";
        EXPECT_FALSE(encoder->setParameter(99, "1"));
        EXPECT_EQ(encoder->getParameter(99), "");
    }
}

class GstCodecsRoundTrip : public ::testing::TestWithParam<std::pair<int, int>> {};

TEST_P(GstCodecsRoundTrip, EveryEncoderThroughEveryMatchingDecoder)
{
    const auto [width, height] = GetParam();
    const int bitRate = width * height * 8; // about 0.27 bit per pixel at 30 frames per second
    for (CodecType type : {CodecType::H264, CodecType::VP8}) {
        const auto encoders = listed(true, type);
        const auto decoders = listed(false, type);
        ASSERT_FALSE(encoders.empty());
        ASSERT_FALSE(decoders.empty());
        for (const auto& encoderInfo : encoders) {
            SCOPED_TRACE(encoderInfo.id + " " + std::to_string(width) + "x" + std::to_string(height));
            const auto units = encodeAll(encoderInfo.id, width, height, bitRate);
            ASSERT_EQ(units.size(), static_cast<std::size_t>(frameCount));
            EXPECT_TRUE(units.front().keyFrame);
            for (int i = 0; i < frameCount; ++i)
                EXPECT_EQ(units[static_cast<std::size_t>(i)].timestamp, static_cast<std::int64_t>(i) * 1000000 / 30);

            if (type == CodecType::H264) {
                const auto bytes = concatenate(units);
                VideoStreamParser parser;
                ASSERT_TRUE(parser.parse(bytes.data(), bytes.size())) << parser.errorMessage();
                EXPECT_EQ(parser.metadata().displayWidth(), width);
                EXPECT_EQ(parser.metadata().displayHeight(), height);
                EXPECT_EQ(parser.accessUnits().size(), static_cast<std::size_t>(frameCount));
                EXPECT_GT(parser.metadata().profile(), 0);

                // An outside decoder reads the same number of frames.
                const std::string file = lumiflux_test::freshDirectory("h264-out") + "/out.h264";
                std::ofstream(file, std::ios::binary)
                    .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
                std::string output;
                ASSERT_EQ(lumiflux_test::runCommand("ffprobe -v error -count_frames -select_streams v:0 "
                                                    "-show_entries stream=nb_read_frames -of csv=p=0 " +
                                                        file,
                                                    &output),
                          0)
                    << "ffprobe is missing or failed: run scripts/install-deps";
                EXPECT_EQ(std::stoi(output), frameCount);
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
                    worst = std::min(worst, psnr(*frame, i, width, height));
                }
                EXPECT_GT(worst, 30.0);
                // Zero copy: the frames are graphic buffers over the sink's buffers.
                EXPECT_NE(dynamic_cast<GstGraphicBuffer*>(frames.front().get()), nullptr);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, GstCodecsRoundTrip,
                         ::testing::Values(std::make_pair(320, 240), std::make_pair(1280, 720)));

TEST(GstCodecs, H264ProfileParameterMatchesTheStream)
{
    for (const auto& info : listed(true, CodecType::H264)) {
        auto encoder = codecs()->createVideoEncoderById(info.id);
        Collector collector;
        encoder->lockAndSetListener(&collector);
        VideoEncoderMetadata metadata;
        metadata.codecType = CodecType::H264;
        metadata.width = 320;
        metadata.height = 240;
        ASSERT_TRUE(encoder->configure(metadata));
        ASSERT_TRUE(encoder->start());
        for (int i = 0; i < 5; ++i)
            ASSERT_TRUE(encoder->encode(patternFrame(i, 320, 240, GST_VIDEO_FORMAT_NV12), false));
        encoder->eos();
        ASSERT_TRUE(collector.waitForEos());
        const auto bytes = concatenate(collector.encoded);
        VideoStreamParser parser;
        ASSERT_TRUE(parser.parse(bytes.data(), bytes.size())) << parser.errorMessage();
        EXPECT_EQ(profileIdc(encoder->getParameter(CodecParameter::Profile)), parser.metadata().profile())
            << encoder->getParameter(CodecParameter::Profile);
        encoder->lockAndSetListener(nullptr);
    }
}

TEST(GstCodecs, I420AndForeignBuffersAndForcedKeyFrames)
{
    // I420 frames, and a key frame forced in the middle of a long interval.
    const auto units = encodeAll("gst.h264.openh264.enc", 320, 240, 600000, GST_VIDEO_FORMAT_I420, 30);
    ASSERT_EQ(units.size(), static_cast<std::size_t>(frameCount));
    EXPECT_TRUE(units[30].keyFrame);
    EXPECT_FALSE(units[29].keyFrame);
    EXPECT_FALSE(units[31].keyFrame);
    const auto frames = decodeAll("gst.h264.avdec.dec", units, 320, 240);
    ASSERT_EQ(frames.size(), static_cast<std::size_t>(frameCount));
    EXPECT_GT(psnr(*frames[45], 45, 320, 240), 30.0);

    // A graphic buffer of another kind is copied in through its YCbCr view.
    auto encoder = codecs()->createVideoEncoderById("gst.vp8.vpx.enc");
    Collector collector;
    encoder->lockAndSetListener(&collector);
    VideoEncoderMetadata metadata;
    metadata.codecType = CodecType::VP8;
    metadata.width = 320;
    metadata.height = 240;
    ASSERT_TRUE(encoder->configure(metadata));
    ASSERT_TRUE(encoder->start());
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(encoder->encode(std::make_shared<PlainNv12Buffer>(320, 240, i), false));
    encoder->eos();
    ASSERT_TRUE(collector.waitForEos());
    encoder->lockAndSetListener(nullptr);
    ASSERT_EQ(collector.encoded.size(), 10u);
    const auto decoded = decodeAll("gst.vp8.vpx.dec", collector.encoded, 320, 240);
    ASSERT_EQ(decoded.size(), 10u);
    EXPECT_GT(psnr(*decoded[9], 9, 320, 240), 30.0);
}

TEST(GstCodecs, GarbageGivesEveryDecoderAnErrorNotACrash)
{
    std::vector<std::uint8_t> garbage(20000);
    std::uint32_t state = 12345;
    for (auto& byte : garbage) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<std::uint8_t>(state >> 16);
    }
    // Some start codes in the noise, so that parsers pass pieces on.
    for (std::size_t i = 0; i + 4 < garbage.size(); i += 997) {
        garbage[i] = 0;
        garbage[i + 1] = 0;
        garbage[i + 2] = 1;
    }
    for (const auto& info : codecs()->listCodecs()) {
        if (info.encoder)
            continue;
        SCOPED_TRACE(info.id);
        auto decoder = codecs()->createVideoDecoderById(info.id);
        ASSERT_NE(decoder, nullptr);
        Collector collector;
        decoder->lockAndSetListener(&collector);
        VideoDecoderMetadata metadata;
        metadata.codecType = info.type;
        metadata.width = 320;
        metadata.height = 240;
        ASSERT_TRUE(decoder->configure(metadata));
        ASSERT_TRUE(decoder->start());
        for (std::size_t offset = 0; offset < garbage.size(); offset += 2000)
            decoder->decode(garbage.data() + offset, 2000, static_cast<std::int64_t>(offset) * 10);
        decoder->drain();
        EXPECT_TRUE(collector.waitForError()) << "no error reported";
        decoder->lockAndSetListener(nullptr);
    }
}

TEST(GstCodecs, WrongSizedFrameIsRefusedWithAClearMessage)
{
    lumiflux_test::clearSyslog();
    auto encoder = codecs()->createVideoEncoderById("gst.h264.openh264.enc");
    VideoEncoderMetadata metadata;
    metadata.codecType = CodecType::H264;
    metadata.width = 320;
    metadata.height = 240;
    ASSERT_TRUE(encoder->configure(metadata));
    EXPECT_FALSE(encoder->encode(patternFrame(0, 320, 240, GST_VIDEO_FORMAT_NV12), false)) << "before start";
    ASSERT_TRUE(encoder->start());
    EXPECT_FALSE(encoder->encode(patternFrame(0, 640, 480, GST_VIDEO_FORMAT_NV12), false));
    const auto lines = lumiflux_test::syslogRecordsContaining("given to an encoder configured for");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].text.find("frame of 640x480 given to an encoder configured for 320x240"), std::string::npos)
        << lines[0].text;
    EXPECT_TRUE(encoder->encode(patternFrame(0, 320, 240, GST_VIDEO_FORMAT_NV12), false));
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
    for (const std::string id : {"gst.h264.openh264.enc", "gst.h264.avdec.dec"}) {
        SCOPED_TRACE(id);
        int maxInstances = 0;
        for (const auto& info : codecs()->listCodecs())
            if (info.id == id)
                maxInstances = info.maxInstances;
        ASSERT_GT(maxInstances, 0);
        const auto units = encodeAll("gst.h264.openh264.enc", 320, 240, 500000);
        for (int round = 0; round < 2; ++round) {
            std::vector<Collector> collectors(static_cast<std::size_t>(maxInstances));
            std::vector<std::shared_ptr<VideoEncoder>> encoders;
            std::vector<std::shared_ptr<VideoDecoder>> decoders;
            for (int i = 0; i < maxInstances; ++i) {
                Collector& collector = collectors[static_cast<std::size_t>(i)];
                if (id.find(".enc") != std::string::npos) {
                    auto encoder = codecs()->createVideoEncoderById(id);
                    ASSERT_NE(encoder, nullptr) << "round " << round << ": instance " << i;
                    encoder->lockAndSetListener(&collector);
                    VideoEncoderMetadata metadata;
                    metadata.codecType = CodecType::H264;
                    metadata.width = 320;
                    metadata.height = 240;
                    ASSERT_TRUE(encoder->configure(metadata));
                    ASSERT_TRUE(encoder->start());
                    for (int f = 0; f < 8; ++f)
                        ASSERT_TRUE(encoder->encode(patternFrame(f, 320, 240, GST_VIDEO_FORMAT_NV12), false));
                    encoders.push_back(encoder);
                } else {
                    auto decoder = codecs()->createVideoDecoderById(id);
                    ASSERT_NE(decoder, nullptr) << "round " << round << ": instance " << i;
                    decoder->lockAndSetListener(&collector);
                    VideoDecoderMetadata metadata;
                    metadata.codecType = CodecType::H264;
                    ASSERT_TRUE(decoder->configure(metadata));
                    ASSERT_TRUE(decoder->start());
                    for (int f = 0; f < 20; ++f)
                        decoder->decode(units[static_cast<std::size_t>(f)].bytes.data(),
                                        units[static_cast<std::size_t>(f)].bytes.size(),
                                        units[static_cast<std::size_t>(f)].timestamp);
                    decoders.push_back(decoder);
                }
            }
            EXPECT_FALSE(codecs()->isCodecIdAvailable(id));
            // Dropped while frames are still in flight.
            encoders.clear();
            decoders.clear();
            EXPECT_TRUE(codecs()->isCodecIdAvailable(id));
        }
    }
}

} // namespace
