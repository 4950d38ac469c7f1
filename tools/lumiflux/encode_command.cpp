// lumiflux encode: raw NV12/I420 frames, or the built-in test pattern,
// through a codec into an H.264/H.265 byte stream or an IVF file (VP8, VP9,
// AV1).

#include <cstdio>
#include <fstream>
#include <mutex>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/codec.h>
#include <lumiflux/gst_graphic_buffer.h>

#include "codec_support.h"
#include "command.h"

namespace lumiflux_tool {
namespace {

using namespace Tevara::Lumiflux;

struct EncodeOptions {
    std::string input;
    std::string codec = "h264";
    std::string output;
    std::string size;
    std::string format = "i420";
    int bitrate = 0;
    int frames = 0;
    int framerate = 30;
};

// Writes what the encoder delivers; called on its streaming thread.
class FileSink : public VideoEncoderListener, public RunState {
public:
    FileSink(std::FILE* output, CodecType type, int width, int height, int framerate) : file(output)
    {
        if (const char* fourcc = ivfFourcc(type))
            ivf = std::make_unique<IvfWriter>(file, fourcc, width, height, framerate);
    }
    void onEncodedFrame(const EncodedFrame& frame) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (ivf)
            ivf->writeFrame(frame.data, frame.size, frame.timestamp);
        else
            std::fwrite(frame.data, 1, frame.size, file);
        ++frames;
        bytes += frame.size;
        keyFrames += frame.keyFrame ? 1 : 0;
    }
    void onEncoderError(const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        error = message;
        finishLocked();
    }
    void onEncoderEos() override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (ivf)
            ivf->finish();
        finishLocked();
    }

    int frames = 0;
    int keyFrames = 0;
    std::size_t bytes = 0;

private:
    std::FILE* file;
    std::unique_ptr<IvfWriter> ivf;
};

// The built-in pattern: gradients and a moving square, as the tests use.
void drawPattern(GstVideoFrame* frame, int index)
{
    const int width = GST_VIDEO_FRAME_WIDTH(frame);
    const int height = GST_VIDEO_FRAME_HEIGHT(frame);
    const int square = std::max(8, std::min(width, height) / 5);
    const int left = (index * 4) % std::max(1, width - square);
    const int top = (index * 2) % std::max(1, height - square);
    auto* y = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame, 0));
    for (int row = 0; row < height; ++row)
        for (int x = 0; x < width; ++x) {
            const bool inSquare = x >= left && x < left + square && row >= top && row < top + square;
            y[row * GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0) + x] =
                static_cast<std::uint8_t>(inSquare ? 220 : 30 + x * 150 / width + row * 40 / height);
        }
    const bool nv12 = GST_VIDEO_FRAME_FORMAT(frame) == GST_VIDEO_FORMAT_NV12;
    for (int row = 0; row < (height + 1) / 2; ++row)
        for (int x = 0; x < (width + 1) / 2; ++x) {
            const auto cb = static_cast<std::uint8_t>(70 + x * 2 * 110 / width);
            const auto cr = static_cast<std::uint8_t>(90 + row * 2 * 60 / height);
            auto* plane1 = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame, 1)) +
                           row * GST_VIDEO_FRAME_PLANE_STRIDE(frame, 1);
            if (nv12) {
                plane1[2 * x] = cb;
                plane1[2 * x + 1] = cr;
            } else {
                plane1[x] = cb;
                (static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame, 2)) +
                 row * GST_VIDEO_FRAME_PLANE_STRIDE(frame, 2))[x] = cr;
            }
        }
}

std::shared_ptr<VideoEncoder> pickEncoder(CodecManager& codecs, const std::string& name)
{
    for (const auto& info : codecs.listCodecs())
        if (info.id == name)
            return info.encoder ? codecs.createVideoEncoderById(name) : nullptr;
    const CodecType type = codecTypeFromName(name);
    return type != CodecType::Unknown ? codecs.createVideoEncoder(type, false) : nullptr;
}

int encode(const EncodeOptions& options, Output& out)
{
    gst_init(nullptr, nullptr);
    const bool pattern = options.input == "pattern";
    int width = 640;
    int height = 480;
    if (!options.size.empty() && !parseSize(options.size, &width, &height)) {
        out.error("BadSize", "--size must be WIDTHxHEIGHT, not '" + options.size + "'");
        return 1;
    }
    if (!pattern && options.size.empty()) {
        out.error("BadSize", "a raw input file needs --size WIDTHxHEIGHT");
        return 1;
    }
    const bool nv12 = options.format == "nv12";
    if (!nv12 && options.format != "i420") {
        out.error("BadFormat", "--format must be nv12 or i420");
        return 1;
    }
    GstVideoInfo info;
    gst_video_info_set_format(&info, nv12 ? GST_VIDEO_FORMAT_NV12 : GST_VIDEO_FORMAT_I420, static_cast<guint>(width),
                              static_cast<guint>(height));
    const std::size_t frameSize = GST_VIDEO_INFO_SIZE(&info);

    std::ifstream input;
    if (!pattern) {
        input.open(options.input, std::ios::binary);
        if (!input) {
            out.error("InputNotFound", "cannot read " + options.input);
            return 1;
        }
    }
    const int frames = options.frames > 0 ? options.frames : (pattern ? 90 : -1);

    CodecManager* codecs = LumifluxCodecManager();
    auto encoder = pickEncoder(*codecs, options.codec);
    if (!encoder) {
        out.error("UnknownCodec", "no encoder available for '" + options.codec + "' (see lumiflux codecs)");
        return 1;
    }
    VideoEncoderMetadata metadata;
    metadata.codecType = encoder->getInfo().type;
    metadata.width = width;
    metadata.height = height;
    metadata.format = nv12 ? PixelFormat::YUV420SemiPlanar : PixelFormat::YUV420Planar;
    metadata.framerate = options.framerate;
    if (!encoder->configure(metadata)) {
        out.error("Unsupported", encoder->getInfo().id + " cannot encode " + options.size + " " + options.format);
        return 1;
    }
    if (options.bitrate > 0 && !encoder->setParameter(CodecParameter::BitRate, std::to_string(options.bitrate))) {
        out.error("BadBitrate", "bit rate outside " + encoder->parameters().range(CodecParameter::BitRate));
        return 1;
    }
    std::FILE* file = openOutput(options.output, out);
    if (file == nullptr)
        return 1;
    FileSink sink(file, metadata.codecType, width, height, options.framerate);
    if (!startWithListener(*encoder, sink, file, out))
        return 1;
    out.text("encoding with " + encoder->getInfo().id + " at " + std::to_string(width) + "x" + std::to_string(height) +
             " into " + options.output);

    auto factory = GraphicBufferFactory::fromInfo(info);
    int given = 0;
    for (; frames < 0 || given < frames; ++given) {
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, frameSize, nullptr);
        bool ok = true;
        if (pattern) {
            GstVideoFrame mapped;
            ok = gst_video_frame_map(&mapped, &info, buffer, GST_MAP_WRITE);
            if (ok) {
                drawPattern(&mapped, given);
                gst_video_frame_unmap(&mapped);
            }
        } else {
            GstMapInfo map;
            gst_buffer_map(buffer, &map, GST_MAP_WRITE);
            input.read(reinterpret_cast<char*>(map.data), static_cast<std::streamsize>(frameSize));
            ok = static_cast<std::size_t>(input.gcount()) == frameSize;
            gst_buffer_unmap(buffer, &map);
        }
        GST_BUFFER_PTS(buffer) =
            gst_util_uint64_scale_int(static_cast<guint64>(given) * GST_SECOND, 1, options.framerate);
        auto frame = ok ? factory->create(buffer) : nullptr;
        gst_buffer_unref(buffer);
        if (!ok)
            break;
        if (!encoder->encode(frame, false)) {
            out.error("EncodeFailed", "frame " + std::to_string(given) + " was refused");
            break;
        }
        progressLine(out.json(), "frame " + std::to_string(given + 1) +
                                     (frames > 0 ? "/" + std::to_string(frames) : std::string()));
        if (out.json() && (given + 1) % 30 == 0)
            out.record({{"event", "progress"}, {"frames", given + 1}});
    }
    encoder->eos();
    finishRun(*encoder, sink, file, out);
    if (!sink.error.empty()) {
        out.error("EncoderError", sink.error);
        return 1;
    }
    out.text("wrote " + std::to_string(sink.frames) + " frames (" + std::to_string(sink.keyFrames) + " key frames), " +
             std::to_string(sink.bytes) + " bytes");
    out.record({{"event", "done"},
                {"codec", encoder->getInfo().id},
                {"output", options.output},
                {"framesIn", given},
                {"framesOut", sink.frames},
                {"keyFrames", sink.keyFrames},
                {"bytes", sink.bytes}});
    return sink.frames == given ? 0 : 1;
}

std::function<int(Output&)> setup(CLI::App& app)
{
    auto options = std::make_shared<EncodeOptions>();
    app.add_option("input", options->input, "raw frames file, or 'pattern' for the built-in test pattern")->required();
    app.add_option("-c,--codec", options->codec, "codec id (see lumiflux codecs) or type: h264, h265, vp8, vp9, av1")
        ->capture_default_str();
    app.add_option("-o,--output", options->output, "output file (.h264 or .h265, or .ivf for VP8, VP9 and AV1)")
        ->required();
    app.add_option("--size", options->size, "frame size WIDTHxHEIGHT (default 640x480 for the pattern)");
    app.add_option("--format", options->format, "raw input layout: nv12 or i420")->capture_default_str();
    app.add_option("--bitrate", options->bitrate, "bits per second");
    app.add_option("--frames", options->frames, "number of frames (default: the whole file, or 90)");
    app.add_option("--framerate", options->framerate, "frames per second")->capture_default_str();
    return [options](Output& out) { return encode(*options, out); };
}

const CommandRegistration registration{Command{"encode", "encode raw frames or a test pattern", setup, 40}};

} // namespace
} // namespace lumiflux_tool
