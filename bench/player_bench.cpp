// The player against the same playbin3 pipeline driven directly: same
// elements, same output bin (videoconvert to NV12 into a fake sink that
// hands frames off), same caps, same file. Reports CPU seconds per played
// second and the time from the start request to the first frame, then the
// ratios ours / direct. The clip is 1080p50 H.264 of noise: decoding it costs
// well over half a CPU-second per played second, so that the CPU ratio
// measures the player and not the machine's noise.

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <lumiflux/lumiflux.h>

using namespace Tevara::Lumiflux;
using Clock = std::chrono::steady_clock;

namespace {

constexpr double kMediaSeconds = 6.0;

std::string mediaPath()
{
    return std::string(LUMIFLUX_BENCH_MEDIA_DIR) + "/1080p-h264.mkv";
}
std::string mediaUri()
{
    return "file://" + mediaPath();
}

bool makeMedia()
{
    struct stat st {};
    if (stat(mediaPath().c_str(), &st) == 0 && st.st_size > 0)
        return true;
    const std::string dir = LUMIFLUX_BENCH_MEDIA_DIR;
    const std::string command =
        "mkdir -p '" + dir + "' && gst-launch-1.0 -q matroskamux name=mux ! filesink location='" + mediaPath() +
        ".part' videotestsrc num-buffers=300 pattern=snow ! video/x-raw,width=1920,height=1080,framerate=50/1 "
        "! openh264enc bitrate=20000000 ! h264parse ! mux. audiotestsrc num-buffers=282 "
        "! audio/x-raw,rate=48000,channels=2 ! audioconvert ! opusenc ! mux. && mv '" +
        mediaPath() + ".part' '" + mediaPath() + "'";
    return std::system(command.c_str()) == 0;
}

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Waits for one flag with a generous limit.
struct Signal {
    std::mutex mutex;
    std::condition_variable cv;
    bool set = false;
    Clock::time_point when;
    void raise()
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!set) {
            set = true;
            when = Clock::now();
        }
        cv.notify_all();
    }
    bool wait(std::chrono::seconds limit = std::chrono::seconds(60))
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, limit, [&] { return set; });
    }
};

// ---------------------------------------------------------------- ours

class BenchListener : public PlayerListener, public VideoSink {
public:
    void onStateChanged(PlayerState, PlayerState to) override
    {
        if (to == PlayerState::EOS)
            eos.raise();
    }
    void onError(PlayerError, const std::string& message) override
    {
        std::fprintf(stderr, "player error: %s\n", message.c_str());
        eos.raise();
    }
    void onFrame(const VideoFrame& frame, bool) override
    {
        if (frame.buffer)
            firstFrame.raise();
        frames.fetch_add(1);
    }
    Signal eos;
    Signal firstFrame;
    std::atomic<int> frames{0};
};

// ---------------------------------------------------------------- direct

class DirectPipeline {
public:
    DirectPipeline()
    {
        pipeline = gst_element_factory_make("playbin3", "playbin");
        g_object_set(pipeline, "flags", 259, nullptr);
        GstElement* audioSink = gst_element_factory_make("autoaudiosink", "audiosink");
        g_object_set(pipeline, "audio-filter", gst_element_factory_make("audioconvert", nullptr), nullptr);
        g_object_set(pipeline, "audio-sink", audioSink, nullptr);
        GstElement* convert = gst_element_factory_make("videoconvert", "videoconvert");
        GstElement* sink = gst_element_factory_make("fakesink", "videosink");
        GstElement* output = gst_bin_new("output");
        g_object_set(sink, "sync", TRUE, "qos", FALSE, nullptr);
        g_object_set(sink, "signal-handoffs", TRUE, nullptr);
        g_signal_connect(sink, "preroll-handoff", G_CALLBACK(&DirectPipeline::onHandoff), this);
        g_signal_connect(sink, "handoff", G_CALLBACK(&DirectPipeline::onHandoff), this);
        gst_bin_add_many(GST_BIN(output), convert, sink, nullptr);
        GstCaps* caps = gst_caps_from_string("video/x-raw,format=NV12");
        gst_element_link_filtered(convert, sink, caps);
        gst_caps_unref(caps);
        GstPad* pad = gst_element_get_static_pad(convert, "sink");
        GstPad* ghost = gst_ghost_pad_new("sink", pad);
        gst_object_unref(pad);
        gst_pad_set_active(ghost, TRUE);
        gst_element_add_pad(output, ghost);
        g_object_set(pipeline, "video-sink", output, nullptr);
        g_object_set(pipeline, "uri", mediaUri().c_str(), nullptr);
    }
    ~DirectPipeline()
    {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
    void play() { gst_element_set_state(pipeline, GST_STATE_PLAYING); }
    bool waitForEnd()
    {
        GstBus* bus = gst_element_get_bus(pipeline);
        GstMessage* message = gst_bus_timed_pop_filtered(
            bus, 60 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        const bool eos = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
        if (message)
            gst_message_unref(message);
        gst_object_unref(bus);
        return eos;
    }
    static void onHandoff(GstElement*, GstBuffer* buffer, GstPad*, DirectPipeline* self)
    {
        if (buffer)
            self->firstFrame.raise();
        self->frames.fetch_add(1);
    }

    GstElement* pipeline = nullptr;
    Signal firstFrame;
    std::atomic<int> frames{0};
};

std::map<std::string, double> results;

void record(benchmark::State& state, const std::string& key, double total, int runs)
{
    results[key] = total / runs;
    state.counters[key] = total / runs;
}

// Runs one playback to its end inside the measured window and adds its CPU
// seconds per played second to `total`.
template <typename Playback> void measureCpu(benchmark::State& state, double& total, Playback playToEnd)
{
    const double before = cpuSeconds();
    const auto start = Clock::now();
    if (!playToEnd())
        state.SkipWithError("no end of stream");
    const double cpu = cpuSeconds() - before;
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    total += cpu / kMediaSeconds;
}

void BM_PlayerCpuPerPlayedSecond(benchmark::State& state)
{
    double total = 0;
    int runs = 0;
    for (auto _ : state) {
        BenchListener listener;
        Player player;
        player.setListener(&listener);
        player.setVideoSink(&listener);
        measureCpu(state, total, [&] {
            player.play(mediaUri());
            player.pause();
            return listener.eos.wait();
        });
        player.reset();
        ++runs;
    }
    record(state, "ours_cpu_per_played_s", total, runs);
}

void BM_DirectCpuPerPlayedSecond(benchmark::State& state)
{
    double total = 0;
    int runs = 0;
    for (auto _ : state) {
        // Built inside the measured window, taken down after it, as the
        // player's pipeline is.
        std::optional<DirectPipeline> direct;
        measureCpu(state, total, [&] {
            direct.emplace();
            direct->play();
            return direct->waitForEnd();
        });
        ++runs;
    }
    record(state, "direct_cpu_per_played_s", total, runs);
}

void BM_PlayerFirstFrame(benchmark::State& state)
{
    double total = 0;
    int runs = 0;
    for (auto _ : state) {
        {
            BenchListener listener;
            Player player;
            player.setListener(&listener);
            player.setVideoSink(&listener);
            const auto start = Clock::now();
            player.play(mediaUri());
            player.pause();
            if (!listener.firstFrame.wait())
                state.SkipWithError("no frame");
            const double seconds = std::chrono::duration<double>(listener.firstFrame.when - start).count();
            state.SetIterationTime(seconds);
            total += seconds * 1000;
            ++runs;
            player.reset();
        }
    }
    record(state, "ours_first_frame_ms", total, runs);
}

void BM_DirectFirstFrame(benchmark::State& state)
{
    double total = 0;
    int runs = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        DirectPipeline direct;
        direct.play();
        if (!direct.firstFrame.wait())
            state.SkipWithError("no frame");
        const double seconds = std::chrono::duration<double>(direct.firstFrame.when - start).count();
        state.SetIterationTime(seconds);
        total += seconds * 1000;
        ++runs;
    }
    record(state, "direct_first_frame_ms", total, runs);
}

} // namespace

BENCHMARK(BM_DirectCpuPerPlayedSecond)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlayerCpuPerPlayedSecond)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DirectFirstFrame)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlayerFirstFrame)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv)
{
    // Both sides hand audio to the same sink; keep it off any real device.
    setenv("PULSE_SERVER", "unix:/nonexistent/lumiflux-bench", 0);
    gst_init(&argc, &argv);
    if (!makeMedia()) {
        std::fprintf(stderr, "cannot make %s (gst-launch-1.0 with openh264enc needed)\n", mediaPath().c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    if (results.size() >= 4) {
        std::printf("\nCPU seconds per played second: ours %.4f, direct %.4f, ratio %.3f (goal <= 1.05)\n",
                    results["ours_cpu_per_played_s"], results["direct_cpu_per_played_s"],
                    results["ours_cpu_per_played_s"] / results["direct_cpu_per_played_s"]);
        std::printf("Time to first frame: ours %.1f ms, direct %.1f ms, ratio %.3f (goal <= 1.10)\n",
                    results["ours_first_frame_ms"], results["direct_first_frame_ms"],
                    results["ours_first_frame_ms"] / results["direct_first_frame_ms"]);
    }
    benchmark::Shutdown();
    return 0;
}
