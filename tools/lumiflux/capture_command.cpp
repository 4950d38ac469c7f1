// lumiflux capture <id>: captures from one camera, shows frames and the
// measured rate, and optionally writes the raw frames to a file.

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <mutex>
#include <sstream>

#include <lumiflux/camera.h>
#include <lumiflux/graphic_buffer.h>

#include "camera_lookup.h"
#include "command.h"
#include "interrupt.h"

namespace lumiflux_tool {
namespace {

using namespace Tevara::Lumiflux;
using Clock = std::chrono::steady_clock;

struct Options {
    std::string camera;
    std::string size;
    unsigned fps = 0;
    unsigned frames = 0; ///< 0: until interrupted
    std::string output;
    std::string format = "nv12";
};

bool parseSize(const std::string& text, std::uint32_t& width, std::uint32_t& height)
{
    unsigned w = 0, h = 0;
    char x = 0, extra = 0;
    std::istringstream in(text);
    if (!(in >> w >> x >> h) || (x != 'x' && x != 'X') || in >> extra || w == 0 || h == 0 || w > 16384 || h > 16384)
        return false;
    width = w;
    height = h;
    return true;
}

// Writes one frame's planes, rows without their padding.
bool writeFrame(std::ofstream& file, const std::shared_ptr<GraphicBuffer>& frame)
{
    const auto view = frame->mapYCbCr();
    if (!view)
        return false;
    const auto row = [&](const std::uint8_t* data, std::size_t length) {
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(length));
    };
    const unsigned chromaWidth = (view->width + 1u) / 2u;
    const unsigned chromaHeight = (view->height + 1u) / 2u;
    for (unsigned y = 0; y < view->height; ++y)
        row(static_cast<const std::uint8_t*>(view->y) + std::size_t(y) * view->yStride, view->width);
    if (view->chromaStep == 2) {
        // Interleaved CbCr (NV12): one plane of pairs.
        for (unsigned y = 0; y < chromaHeight; ++y)
            row(static_cast<const std::uint8_t*>(view->cb) + std::size_t(y) * view->cStride, chromaWidth * 2u);
    } else {
        for (const void* plane : {view->cb, view->cr})
            for (unsigned y = 0; y < chromaHeight; ++y)
                row(static_cast<const std::uint8_t*>(plane) + std::size_t(y) * view->cStride, chromaWidth);
    }
    return static_cast<bool>(file);
}

class CaptureListener : public CameraListener {
public:
    CaptureListener(std::ofstream* file, unsigned limit) : output(file), frameLimit(limit) {}

    void onFrame(const std::shared_ptr<GraphicBuffer>& frame) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (frameLimit != 0 && frames >= frameLimit)
            return;
        const auto now = Clock::now();
        if (frames == 0)
            first = now;
        last = now;
        ++frames;
        width = frame->width;
        height = frame->height;
        if (output != nullptr && !writeFrame(*output, frame))
            writeFailed = true;
        changed.notify_all();
    }
    void onError(const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        error = message;
        changed.notify_all();
    }
    void onCaptureEnded() override
    {
        std::lock_guard<std::mutex> lock(mutex);
        ended = true;
        changed.notify_all();
    }

    // Frames per second between the first and the last frame's arrival.
    double rate() const
    {
        const double seconds = std::chrono::duration<double>(last - first).count();
        return frames > 1 && seconds > 0 ? (frames - 1) / seconds : 0.0;
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::ofstream* output;
    unsigned frameLimit;
    unsigned frames = 0;
    unsigned width = 0, height = 0;
    Clock::time_point first, last;
    std::string error;
    bool ended = false;
    bool writeFailed = false;
};

std::string rateText(double rate)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << rate;
    return text.str();
}

int run(Output& out, const Options& options)
{
    CameraManager* manager = LumifluxManager();
    const auto info = findCamera(*manager, options.camera);
    if (!info) {
        out.error("NotFound", "no camera '" + options.camera + "' (see lumiflux cameras)");
        return 1;
    }
    const PixelFormat format = options.format == "i420" ? PixelFormat::YUV420Planar : PixelFormat::YUV420SemiPlanar;

    // Unset parts of the request come from the camera's closest mode to 640x480 at 30.
    CameraCapabilityEx wanted;
    wanted.width = 640;
    wanted.height = 480;
    wanted.frameRate = {options.fps != 0 ? options.fps : 30, 1};
    const bool sizeGiven = !options.size.empty();
    if (sizeGiven && !parseSize(options.size, wanted.width, wanted.height)) {
        out.error("BadArgument", "--size must be WIDTHxHEIGHT, not '" + options.size + "'");
        return 1;
    }
    CameraCapabilityEx closest;
    CameraCapability mode{wanted.width, wanted.height, wanted.frameRate.numerator};
    if (manager->findClosestCapability(info->id, format, wanted, closest,
                                       CameraCapabilityPriority::WidthHeightFrameRate)) {
        if (!sizeGiven) {
            mode.width = closest.width;
            mode.height = closest.height;
        }
        if (options.fps == 0)
            mode.frameRate = closest.frameRate.numerator;
    }

    std::ofstream file;
    if (!options.output.empty()) {
        file.open(options.output, std::ios::binary | std::ios::trunc);
        if (!file) {
            out.error("WriteFailed", "cannot write '" + options.output + "'");
            return 1;
        }
    }
    auto camera = manager->openCamera(info->id);
    if (!camera) {
        out.error("OpenFailed", "cannot open camera '" + info->id + "'");
        return 1;
    }
    CaptureListener listener(file.is_open() ? &file : nullptr, options.frames);
    camera->setListener(&listener);
    watchForInterrupt();
    const std::string modeText = std::to_string(mode.width) + "x" + std::to_string(mode.height) + " @ " +
                                 std::to_string(mode.frameRate) + " fps " + toString(format);
    if (!camera->startCapture(mode, format)) {
        camera->setListener(nullptr);
        out.error("CaptureFailed", "camera '" + info->id + "' cannot capture " + modeText);
        return 1;
    }
    out.text("capturing from " + info->id + ": " + modeText);
    out.record({{"event", "started"},
                {"id", info->id},
                {"width", mode.width},
                {"height", mode.height},
                {"frameRate", mode.frameRate},
                {"format", toString(format)}});

    const bool live = !out.json() && isatty(STDOUT_FILENO) != 0;
    std::string error;
    {
        std::unique_lock<std::mutex> lock(listener.mutex);
        while (!interrupted() && listener.error.empty() && !listener.ended &&
               (options.frames == 0 || listener.frames < options.frames)) {
            listener.changed.wait_for(lock, std::chrono::milliseconds(250));
            if (live) {
                std::printf("\rframes %u  %s fps ", listener.frames, rateText(listener.rate()).c_str());
                std::fflush(stdout);
            }
        }
        error = listener.error;
    }
    camera->stopCapture();
    camera->setListener(nullptr);
    if (live)
        std::printf("\n");

    const double rate = listener.rate();
    const double seconds = std::chrono::duration<double>(listener.last - listener.first).count();
    out.text("captured " + std::to_string(listener.frames) + " frames of " + std::to_string(listener.width) + "x" +
             std::to_string(listener.height) + ", measured " + rateText(rate) + " fps" +
             (options.output.empty() ? std::string() : ", written to " + options.output));
    out.record({{"event", "finished"},
                {"frames", listener.frames},
                {"width", listener.width},
                {"height", listener.height},
                {"seconds", seconds},
                {"measuredFrameRate", rate},
                {"output", options.output}});
    if (!error.empty()) {
        out.error("CaptureFailed", error);
        return 1;
    }
    if (listener.writeFailed) {
        out.error("WriteFailed", "cannot write '" + options.output + "'");
        return 1;
    }
    return 0;
}

const CommandRegistration registration{
    Command{"capture", "capture frames from a camera and show the measured frame rate",
            [](CLI::App& app) {
                auto options = std::make_shared<Options>();
                app.add_option("camera", options->camera, "camera id or index (see lumiflux cameras)")->required();
                app.add_option("--size", options->size, "frame size WIDTHxHEIGHT (default: closest to 640x480)");
                app.add_option("--fps", options->fps, "frames per second (default: closest to 30)");
                app.add_option("--frames", options->frames, "stop after this many frames (default: on Ctrl-C)");
                app.add_option("-o,--output", options->output, "write the raw frames to this file");
                app.add_option("--format", options->format, "nv12 or i420")->check(CLI::IsMember({"nv12", "i420"}));
                return std::function<int(Output&)>([options](Output& out) { return run(out, *options); });
            },
            21}};

} // namespace
} // namespace lumiflux_tool
