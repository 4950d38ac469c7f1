// Encode and decode frames per second through the lumiflux-gst-codecs plug-in
// (root codec manager, listener, graphic buffers) next to the same GStreamer
// elements driven directly in a plain appsrc/appsink pipeline, over the same
// frames. Prints the ratio ours / plain for each pair; the goal is >= 0.95.
//
// LUMIFLUX_PLUGIN_DIR selects the plug-in directory; by default the build
// tree's.

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <gst/app/app.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/codec.h>
#include <lumiflux/gst_graphic_buffer.h>

namespace {

using namespace Tevara::Lumiflux;

constexpr int width = 1280;
constexpr int height = 720;
constexpr int frames = 60;
constexpr int framerate = 30;

// ------------------------------------------------------------------ input

GstVideoInfo& inputInfo()
{
    static GstVideoInfo info = [] {
        GstVideoInfo made;
        gst_video_info_set_format(&made, GST_VIDEO_FORMAT_I420, width, height);
        GST_VIDEO_INFO_FPS_N(&made) = framerate;
        GST_VIDEO_INFO_FPS_D(&made) = 1;
        return made;
    }();
    return info;
}

// A moving pattern with some texture, so the encoders have real work.
const std::vector<GstBuffer*>& rawFrames()
{
    static const std::vector<GstBuffer*> list = [] {
        std::vector<GstBuffer*> made;
        std::uint32_t noise = 1;
        for (int f = 0; f < frames; ++f) {
            GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&inputInfo()), nullptr);
            GstVideoFrame frame;
            gst_video_frame_map(&frame, &inputInfo(), buffer, GST_MAP_WRITE);
            for (int plane = 0; plane < 3; ++plane) {
                auto* data = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
                const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
                const int w = GST_VIDEO_FRAME_COMP_WIDTH(&frame, plane);
                const int h = GST_VIDEO_FRAME_COMP_HEIGHT(&frame, plane);
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x) {
                        noise = noise * 1664525u + 1013904223u;
                        data[y * stride + x] =
                            static_cast<std::uint8_t>(((x + f * 3) ^ (y + f)) + ((noise >> 28) & 7) + plane * 40);
                    }
            }
            gst_video_frame_unmap(&frame);
            GST_BUFFER_PTS(buffer) = gst_util_uint64_scale_int(static_cast<guint64>(f) * GST_SECOND, 1, framerate);
            GST_BUFFER_DURATION(buffer) = GST_SECOND / framerate;
            made.push_back(buffer);
        }
        return made;
    }();
    return list;
}

CodecManager* codecs()
{
    static CodecManager* manager = [] {
        setenv("LUMIFLUX_PLUGIN_DIR", LUMIFLUX_BUILD_PLUGIN_DIR, 0);
        return LumifluxCodecManager();
    }();
    return manager;
}

// -------------------------------------------------------- plain pipelines

struct Completion {
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    int samples = 0;
    std::vector<std::vector<std::uint8_t>> units;
    bool keep = false;

    void wait()
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return done; });
    }
    void finish()
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
        changed.notify_all();
    }
};

GstFlowReturn plainSample(GstAppSink* sink, gpointer data)
{
    auto* completion = static_cast<Completion*>(data);
    GstSample* sample = gst_app_sink_pull_sample(sink);
    if (completion->keep) {
        GstMapInfo map;
        GstBuffer* buffer = gst_sample_get_buffer(sample);
        gst_buffer_map(buffer, &map, GST_MAP_READ);
        completion->units.emplace_back(map.data, map.data + map.size);
        gst_buffer_unmap(buffer, &map);
    }
    ++completion->samples;
    gst_sample_unref(sample);
    return GST_FLOW_OK;
}

void plainEos(GstAppSink*, gpointer data)
{
    static_cast<Completion*>(data)->finish();
}

// Runs `description` (with elements named src and sink) over `input`; each
// input unit becomes one buffer.
int runPlain(const std::string& description, GstCaps* caps, const std::vector<GstBuffer*>& input,
             Completion* completion)
{
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    if (pipeline == nullptr) {
        std::cerr << description << ": " << (error ? error->message : "?") << "\n";
        std::abort();
    }
    GstElement* src = gst_bin_get_by_name(GST_BIN(pipeline), "src");
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    g_object_set(src, "caps", caps, "format", GST_FORMAT_TIME, "block", TRUE, "max-buffers", static_cast<guint64>(4),
                 nullptr);
    g_object_set(sink, "sync", FALSE, nullptr);
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = plainSample;
    callbacks.eos = plainEos;
    gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, completion, nullptr);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    for (GstBuffer* buffer : input)
        gst_app_src_push_buffer(GST_APP_SRC(src), gst_buffer_ref(buffer));
    gst_app_src_end_of_stream(GST_APP_SRC(src));
    completion->wait();
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(src);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    return completion->samples;
}

// What the plug-in builds for each codec, with the same settings.
struct Pair {
    std::string encoderId;
    std::string decoderId;
    std::string encodePipeline;
    std::string decodePipeline;
    const char* encodedCaps;
};

const std::map<std::string, Pair>& pairs()
{
    static const std::map<std::string, Pair> list{
        {"h264",
         {"gst.h264.openh264.enc", "gst.h264.avdec.dec",
          "appsrc name=src ! videoconvert ! openh264enc bitrate=2000000 gop-size=60 rate-control=bitrate ! "
          "h264parse config-interval=-1 ! video/x-h264,stream-format=byte-stream,alignment=au ! appsink name=sink",
          "appsrc name=src ! h264parse ! avdec_h264 ! videoconvert ! video/x-raw,format=NV12 ! appsink name=sink",
          "video/x-h264,stream-format=byte-stream"}},
        {"vp8",
         {"gst.vp8.vpx.enc", "gst.vp8.vpx.dec",
          "appsrc name=src ! videoconvert ! vp8enc target-bitrate=2000000 keyframe-max-dist=60 end-usage=vbr "
          "deadline=1 cpu-used=4 ! video/x-vp8 ! appsink name=sink",
          "appsrc name=src ! vp8dec ! videoconvert ! video/x-raw,format=NV12 ! appsink name=sink", "video/x-vp8"}},
        {"h265",
         {"gst.h265.x265.enc", "gst.h265.avdec.dec",
          "appsrc name=src ! videoconvert ! x265enc bitrate=2000 key-int-max=60 speed-preset=ultrafast "
          "tune=zerolatency log-level=none ! h265parse config-interval=-1 ! "
          "video/x-h265,stream-format=byte-stream,alignment=au ! appsink name=sink",
          "appsrc name=src ! h265parse ! avdec_h265 ! videoconvert ! video/x-raw,format=NV12 ! appsink name=sink",
          "video/x-h265,stream-format=byte-stream"}},
        {"vp9",
         {"gst.vp9.vpx.enc", "gst.vp9.vpx.dec",
          "appsrc name=src ! videoconvert ! vp9enc target-bitrate=2000000 keyframe-max-dist=60 end-usage=vbr "
          "deadline=1 cpu-used=6 row-mt=true ! video/x-vp9 ! appsink name=sink",
          "appsrc name=src ! vp9parse ! vp9dec ! videoconvert ! video/x-raw,format=NV12 ! appsink name=sink",
          "video/x-vp9"}},
        {"av1",
         {"gst.av1.aom.enc", "gst.av1.aom.dec",
          "appsrc name=src ! videoconvert ! av1enc target-bitrate=2000 keyframe-max-dist=60 end-usage=vbr "
          "usage-profile=realtime cpu-used=8 row-mt=true ! video/x-av1,stream-format=obu-stream,alignment=tu ! "
          "appsink name=sink",
          "appsrc name=src ! av1parse ! av1dec ! videoconvert ! video/x-raw,format=NV12 ! appsink name=sink",
          "video/x-av1,stream-format=obu-stream,alignment=tu"}},
    };
    return list;
}

// The encoded units of one codec, for the decode benchmarks.
const std::vector<GstBuffer*>& encodedUnits(const std::string& codec)
{
    static std::map<std::string, std::vector<GstBuffer*>> cache;
    auto& units = cache[codec];
    if (units.empty()) {
        Completion completion;
        completion.keep = true;
        auto caps = gst_video_info_to_caps(&inputInfo());
        runPlain(pairs().at(codec).encodePipeline, caps, rawFrames(), &completion);
        gst_caps_unref(caps);
        for (std::size_t i = 0; i < completion.units.size(); ++i) {
            GstBuffer* buffer = gst_buffer_new_memdup(completion.units[i].data(), completion.units[i].size());
            GST_BUFFER_PTS(buffer) = gst_util_uint64_scale_int(i * GST_SECOND, 1, framerate);
            units.push_back(buffer);
        }
    }
    return units;
}

// ------------------------------------------------------------- the plug-in

class Listener : public VideoEncoderListener, public VideoDecoderListener {
public:
    void onEncodedFrame(const EncodedFrame&) override { ++count; }
    void onEncoderError(const std::string& message) override { fail(message); }
    void onEncoderEos() override { completion.finish(); }
    void onDecodedFrame(const std::shared_ptr<GraphicBuffer>&) override { ++count; }
    void onDecoderError(const std::string& message) override { fail(message); }
    void onDecoderEos() override { completion.finish(); }

    Completion completion;
    int count = 0;

private:
    void fail(const std::string& message)
    {
        std::cerr << "codec error: " << message << "\n";
        std::abort();
    }
};

void encodeThroughPlugin(benchmark::State& state, const std::string& codec)
{
    const Pair& pair = pairs().at(codec);
    auto factory = GraphicBufferFactory::fromInfo(inputInfo());
    std::vector<std::shared_ptr<GraphicBuffer>> input;
    for (GstBuffer* buffer : rawFrames())
        input.push_back(factory->create(buffer));
    for (auto _ : state) {
        auto encoder = codecs()->createVideoEncoderById(pair.encoderId);
        if (!encoder) {
            state.SkipWithError("encoder not available");
            return;
        }
        Listener listener;
        encoder->lockAndSetListener(&listener);
        VideoEncoderMetadata metadata;
        metadata.codecType = encoder->getInfo().type;
        metadata.width = width;
        metadata.height = height;
        metadata.format = PixelFormat::YUV420Planar;
        metadata.framerate = framerate;
        encoder->configure(metadata);
        encoder->setParameter(CodecParameter::BitRate, "2000000");
        encoder->setParameter(CodecParameter::KeyFrameInterval, "60");
        encoder->start();
        for (const auto& frame : input)
            encoder->encode(frame, false);
        encoder->eos();
        listener.completion.wait();
        encoder->lockAndSetListener(nullptr);
        if (listener.count != frames)
            state.SkipWithError("frames lost");
    }
    state.SetItemsProcessed(state.iterations() * frames);
}

void encodeThroughPipeline(benchmark::State& state, const std::string& codec)
{
    auto caps = gst_video_info_to_caps(&inputInfo());
    for (auto _ : state) {
        Completion completion;
        if (runPlain(pairs().at(codec).encodePipeline, caps, rawFrames(), &completion) != frames)
            state.SkipWithError("frames lost");
    }
    gst_caps_unref(caps);
    state.SetItemsProcessed(state.iterations() * frames);
}

void decodeThroughPlugin(benchmark::State& state, const std::string& codec)
{
    const auto& units = encodedUnits(codec);
    std::vector<GstMapInfo> maps(units.size());
    for (std::size_t i = 0; i < units.size(); ++i)
        gst_buffer_map(units[i], &maps[i], GST_MAP_READ);
    for (auto _ : state) {
        auto decoder = codecs()->createVideoDecoderById(pairs().at(codec).decoderId);
        if (!decoder) {
            state.SkipWithError("decoder not available");
            break;
        }
        Listener listener;
        decoder->lockAndSetListener(&listener);
        VideoDecoderMetadata metadata;
        metadata.codecType = decoder->getInfo().type;
        decoder->configure(metadata);
        decoder->start();
        for (std::size_t i = 0; i < units.size(); ++i)
            decoder->decode(maps[i].data, maps[i].size, static_cast<std::int64_t>(i) * 1000000 / framerate);
        decoder->drain();
        listener.completion.wait();
        decoder->lockAndSetListener(nullptr);
        if (listener.count != frames)
            state.SkipWithError("frames lost");
    }
    for (std::size_t i = 0; i < units.size(); ++i)
        gst_buffer_unmap(units[i], &maps[i]);
    state.SetItemsProcessed(state.iterations() * frames);
}

void decodeThroughPipeline(benchmark::State& state, const std::string& codec)
{
    auto caps = gst_caps_from_string(pairs().at(codec).encodedCaps);
    const auto& units = encodedUnits(codec);
    for (auto _ : state) {
        Completion completion;
        if (runPlain(pairs().at(codec).decodePipeline, caps, units, &completion) != frames)
            state.SkipWithError("frames lost");
    }
    gst_caps_unref(caps);
    state.SetItemsProcessed(state.iterations() * frames);
}

// Collects frames per second by name so the ratios can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_None) {}
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            if (run.error_occurred)
                continue;
            const auto it = run.counters.find("items_per_second");
            // With repetitions the median stands for the benchmark; without,
            // the one run does.
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (it == run.counters.end() || (run.run_type == Run::RT_Aggregate && !median))
                continue;
            std::string name = run.run_name.function_name;
            if (median || rates.count(name) == 0 || !medianSeen[name])
                rates[name] = it->second.value;
            medianSeen[name] = medianSeen[name] || median;
        }
    }
    std::map<std::string, double> rates;
    std::map<std::string, bool> medianSeen;
};

} // namespace

int main(int argc, char** argv)
{
    gst_init(&argc, &argv);
    for (const auto& [codec, pair] : pairs()) {
        const std::string name = codec;
        for (const char* direction : {"encode", "decode"}) {
            const bool encode = std::string(direction) == "encode";
            benchmark::RegisterBenchmark((std::string(direction) + "/" + name + "/plugin").c_str(),
                                         [name, encode](benchmark::State& state) {
                                             encode ? encodeThroughPlugin(state, name)
                                                    : decodeThroughPlugin(state, name);
                                         })
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond)
                ->MinTime(3.0);
            benchmark::RegisterBenchmark((std::string(direction) + "/" + name + "/pipeline").c_str(),
                                         [name, encode](benchmark::State& state) {
                                             encode ? encodeThroughPipeline(state, name)
                                                    : decodeThroughPipeline(state, name);
                                         })
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond)
                ->MinTime(3.0);
        }
    }
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::cout << "\nframes per second, plug-in / plain pipeline (goal >= 0.95):\n";
    for (const auto& [codec, pair] : pairs()) {
        for (const char* direction : {"encode", "decode"}) {
            const std::string base = std::string(direction) + "/" + codec;
            const auto ours = reporter.rates.find(base + "/plugin");
            const auto plain = reporter.rates.find(base + "/pipeline");
            if (ours == reporter.rates.end() || plain == reporter.rates.end())
                continue;
            std::cout << "  " << std::left << std::setw(14) << base << std::fixed << std::setprecision(1)
                      << ours->second << " vs " << plain->second << " fps, ratio " << std::setprecision(3)
                      << ours->second / plain->second << "\n";
        }
    }
    benchmark::Shutdown();
    return 0;
}
