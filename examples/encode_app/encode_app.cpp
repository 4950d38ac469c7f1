// Encodes frames the application draws into its own memory to an H.264
// Annex B file, through the root codec manager and the codec plug-ins.
// Frames reach the encoder through GraphicBufferFactory::fromMemory: plain
// byte vectors in, no GStreamer call here (the library initialises it).
//
//   encode_app out.h264 [frames]

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <lumiflux/lumiflux.h>

using namespace Tevara::Lumiflux;

namespace {

constexpr int width = 320;
constexpr int height = 240;
constexpr int rate = 30;

// Writes every encoded frame to the file, and tells main() when the stream
// has ended. Called on the encoder's streaming thread.
class Writer : public VideoEncoderListener {
public:
    explicit Writer(const char* path) : out(path, std::ios::binary) {}
    void onEncodedFrame(const EncodedFrame& frame) override
    {
        out.write(reinterpret_cast<const char*>(frame.data), static_cast<std::streamsize>(frame.size));
    }
    void onEncoderError(const std::string& message) override
    {
        std::fprintf(stderr, "encoder error: %s\n", message.c_str());
        finish(false);
    }
    void onEncoderEos() override { finish(true); }
    bool wait()
    {
        std::unique_lock<std::mutex> lock(mutex);
        ended.wait(lock, [this] { return done; });
        return ok && out.good();
    }
    std::ofstream out;

private:
    void finish(bool success)
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
        ok = success;
        ended.notify_all();
    }
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;
    bool ok = false;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s out.h264 [frames]\n", argv[0]);
        return 2;
    }
    const int frames = argc > 2 ? std::atoi(argv[2]) : 60;

    // Declared before the encoder, so that it outlives the encoder's calls.
    Writer writer(argv[1]);
    auto encoder = LumifluxCodecManager()->createVideoEncoder(CodecType::H264, false);
    if (!encoder) {
        std::fprintf(stderr, "no H.264 encoder\n");
        return 1;
    }
    encoder->lockAndSetListener(&writer);
    VideoEncoderMetadata metadata;
    metadata.codecType = CodecType::H264;
    metadata.width = width;
    metadata.height = height;
    metadata.format = PixelFormat::YUV420Planar; // I420: Y, then Cb, then Cr
    metadata.framerate = rate;
    if (!encoder->configure(metadata) || !encoder->start()) {
        std::fprintf(stderr, "the encoder refused %dx%d I420\n", width, height);
        return 1;
    }

    // I420 planes: Y is width x height samples, Cb and Cr are each
    // (width / 2) x (height / 2); one byte per sample, rows without padding.
    std::vector<std::uint8_t> y(width * height), cb(width / 2 * height / 2), cr(cb.size());
    for (int i = 0; i < frames; ++i) {
        for (int row = 0; row < height; ++row)
            for (int column = 0; column < width; ++column)
                y[row * width + column] = static_cast<std::uint8_t>(16 + (column + 4 * i) % 220);
        for (std::size_t s = 0; s < cb.size(); ++s) {
            cb[s] = static_cast<std::uint8_t>(128 + (i % 64));
            cr[s] = static_cast<std::uint8_t>(128 - (i % 64));
        }
        // Copied (no release callback): the vectors may be redrawn at once.
        auto frame =
            GraphicBufferFactory::fromMemory(PixelFormat::YUV420Planar, width, height,
                                             {{y.data(), width}, {cb.data(), width / 2}, {cr.data(), width / 2}},
                                             static_cast<std::int64_t>(i) * 1000000 / rate);
        if (!frame || !encoder->encode(frame, false)) {
            std::fprintf(stderr, "frame %d was refused\n", i);
            return 1;
        }
    }
    encoder->eos();
    const bool ok = writer.wait();
    encoder->lockAndSetListener(nullptr);
    std::printf("%d frames of %dx%d encoded to %s\n", frames, width, height, argv[1]);
    return ok ? 0 : 1;
}
