// lumiflux decode: an H.264/H.265 byte stream or an IVF file (VP8, VP9,
// AV1) into raw NV12 frames.

#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>

#include <gst/gst.h>

#include <lumiflux/codec.h>
#include <lumiflux/graphic_buffer.h>
#include <lumiflux/video_stream_parser.h>

#include "codec_support.h"
#include "command.h"

namespace lumiflux_tool {
namespace {

using namespace Tevara::Lumiflux;

struct DecodeOptions {
    std::string input;
    std::string output;
    std::string codec;
    int framerate = 30;
};

struct Unit {
    const std::uint8_t* data;
    std::size_t size;
    std::int64_t timestampUs;
};

// Writes decoded frames as NV12 rows without padding; called on the
// decoder's streaming thread.
class YuvSink : public VideoDecoderListener, public RunState {
public:
    explicit YuvSink(std::FILE* output, bool json) : file(output), jsonMode(json) {}
    void onDecodedFrame(const std::shared_ptr<GraphicBuffer>& frame) override
    {
        auto view = frame->mapYCbCr();
        std::lock_guard<std::mutex> lock(mutex);
        if (!view) {
            error = "a decoded frame cannot be mapped";
            return;
        }
        for (int row = 0; row < view->height; ++row)
            std::fwrite(view->y + row * view->yStride, 1, view->width, file);
        std::vector<std::uint8_t> chroma(static_cast<std::size_t>((view->width + 1) / 2) * 2);
        for (int row = 0; row < (view->height + 1) / 2; ++row) {
            for (int x = 0; x < (view->width + 1) / 2; ++x) {
                chroma[2 * static_cast<std::size_t>(x)] = view->cb[row * view->cStride + x * view->chromaStep];
                chroma[2 * static_cast<std::size_t>(x) + 1] = view->cr[row * view->cStride + x * view->chromaStep];
            }
            std::fwrite(chroma.data(), 1, chroma.size(), file);
        }
        width = view->width;
        height = view->height;
        ++frames;
        progressLine(jsonMode, "decoded " + std::to_string(frames) + " frames");
    }
    void onDecoderError(const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (error.empty())
            error = message;
    }
    void onDecoderEos() override
    {
        std::lock_guard<std::mutex> lock(mutex);
        finishLocked();
    }

    int frames = 0;
    int width = 0;
    int height = 0;

private:
    std::FILE* file;
    bool jsonMode;
};

bool endsWith(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

int decode(const DecodeOptions& options, Output& out)
{
    gst_init(nullptr, nullptr);
    std::ifstream in(options.input, std::ios::binary);
    if (!in) {
        out.error("InputNotFound", "cannot read " + options.input);
        return 1;
    }
    const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

    // Cut the input into units the decoder takes, with their times.
    CodecType type = CodecType::H264;
    std::vector<Unit> units;
    std::vector<IvfFrame> ivfFrames;
    VideoDecoderMetadata metadata;
    std::string error;
    std::string fourcc;
    if (bytes.size() >= 4 && bytes[0] == 'D' && bytes[1] == 'K' && bytes[2] == 'I' && bytes[3] == 'F') {
        if (!readIvf(bytes, &fourcc, &metadata.width, &metadata.height, &ivfFrames, &error)) {
            out.error("BadInput", error);
            return 1;
        }
        type = codecTypeFromFourcc(fourcc);
        for (const auto& frame : ivfFrames)
            units.push_back({frame.data.data(), frame.data.size(), frame.timestampUs});
    } else if (endsWith(options.input, ".h265") || endsWith(options.input, ".hevc")) {
        // The decoder's parser frames the byte stream itself.
        type = CodecType::H265;
        for (std::size_t at = 0; at < bytes.size(); at += 65536)
            units.push_back({bytes.data() + at, std::min<std::size_t>(65536, bytes.size() - at), -1});
    } else {
        VideoStreamParser parser;
        if (!parser.parse(bytes.data(), bytes.size())) {
            out.error("BadInput", options.input + " is not an H.264 byte stream: " + parser.errorMessage());
            return 1;
        }
        metadata.width = parser.metadata().displayWidth();
        metadata.height = parser.metadata().displayHeight();
        std::int64_t index = 0;
        for (const auto& unit : parser.accessUnits())
            units.push_back({bytes.data() + unit.offset, static_cast<std::size_t>(unit.size),
                             index++ * 1000000 / options.framerate});
    }

    CodecManager* codecs = LumifluxCodecManager();
    std::shared_ptr<VideoDecoder> decoder;
    if (!options.codec.empty())
        decoder = codecs->createVideoDecoderById(options.codec);
    else
        decoder = codecs->createVideoDecoder(type, false);
    if (!decoder) {
        out.error("UnknownCodec", "no " + codecTypeName(type) + " decoder available" +
                                      (options.codec.empty() ? "" : " as '" + options.codec + "'"));
        return 1;
    }
    metadata.codecType = decoder->getInfo().type;
    metadata.framerate = options.framerate;
    if (!decoder->configure(metadata)) {
        out.error("Unsupported", decoder->getInfo().id + " cannot decode this stream");
        return 1;
    }
    std::FILE* file = openOutput(options.output, out);
    if (file == nullptr)
        return 1;
    YuvSink sink(file, out.json());
    if (!startWithListener(*decoder, sink, file, out))
        return 1;
    out.text("decoding " + std::to_string(units.size()) + " units with " + decoder->getInfo().id);
    for (const auto& unit : units)
        decoder->decode(unit.data, unit.size, unit.timestampUs);
    decoder->drain();
    finishRun(*decoder, sink, file, out);
    decoder.reset();
    if (!sink.error.empty()) {
        out.error("DecoderError", sink.error);
        return 1;
    }
    out.text("wrote " + std::to_string(sink.frames) + " NV12 frames of " + std::to_string(sink.width) + "x" +
             std::to_string(sink.height) + " to " + options.output);
    out.record({{"event", "done"},
                {"output", options.output},
                {"frames", sink.frames},
                {"width", sink.width},
                {"height", sink.height}});
    return 0;
}

std::function<int(Output&)> setup(CLI::App& app)
{
    auto options = std::make_shared<DecodeOptions>();
    app.add_option("input", options->input,
                   "H.264 (.h264), H.265 (.h265) byte stream or IVF (.ivf: VP8, VP9, AV1) file")
        ->required();
    app.add_option("-o,--output", options->output, "raw NV12 output file")->required();
    app.add_option("-c,--codec", options->codec, "decoder id (default: the preferred one for the stream)");
    app.add_option("--framerate", options->framerate, "frames per second, for timestamps")->capture_default_str();
    return [options](Output& out) { return decode(*options, out); };
}

const CommandRegistration registration{Command{"decode", "decode a video stream into raw NV12 frames", setup, 41}};

} // namespace
} // namespace lumiflux_tool
