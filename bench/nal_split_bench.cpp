// NAL splitting speed: our H264Reader over a large real stream, next to
// memchr scanning the same bytes for every 0x01 (restarting after each hit),
// a plain byte loop of the start-code state machine, and libavcodec's H.264
// parser. The stream (at least 256 MB) is made at run time: an x264 encode of
// a noisy test pattern, repeated. Before timing anything, the fast search is
// checked byte-exact against the byte loop over the whole stream.
//
// LUMIFLUX_BENCH_STREAM=<file> uses that Annex B file as the unit instead.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <lumiflux/h264_reader.h>

namespace {

constexpr std::size_t minimumStreamBytes = std::size_t{256} << 20;

std::vector<unsigned char> readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// One real encoded stream: CABAC (so its bytes look like most streams'), a
// noisy picture so the frames are large, an IDR every 30 frames.
std::vector<unsigned char> encodeUnit()
{
    if (const char* given = std::getenv("LUMIFLUX_BENCH_STREAM"))
        return readFile(given);
    char dir[] = "/tmp/lumiflux-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        return {};
    const std::string out = std::string(dir) + "/unit.264";
    const std::string command =
        "bash -o pipefail -c 'ffmpeg -nostdin -v error -f lavfi -i "
        "testsrc2=size=1280x720:rate=30,noise=alls=12:allf=t -frames:v 90 -pix_fmt yuv420p -f yuv4mpegpipe - | "
        "x264 --quiet --preset veryfast --crf 18 --keyint 30 --demuxer y4m -o " +
        out + " - 2>/dev/null'";
    if (std::system(command.c_str()) != 0) {
        std::cerr << "cannot encode the benchmark stream (are ffmpeg and x264 installed?)\n";
        return {};
    }
    auto bytes = readFile(out);
    std::remove(out.c_str());
    rmdir(dir);
    return bytes;
}

const std::vector<unsigned char>& stream()
{
    static const std::vector<unsigned char> data = [] {
        const auto unit = encodeUnit();
        std::vector<unsigned char> all;
        if (unit.empty())
            return all;
        all.reserve(minimumStreamBytes + unit.size());
        while (all.size() < minimumStreamBytes)
            all.insert(all.end(), unit.begin(), unit.end());
        return all;
    }();
    return data;
}

// The start-code state machine one byte at a time: the exactness reference
// and the "plain loop" figure.
struct ByteLoop {
    const unsigned char* data;
    std::size_t size;
    std::size_t position = 0;
    int zeros = 0;

    std::size_t next()
    {
        for (; position < size; ++position) {
            const unsigned char b = data[position];
            if (b == 0) {
                zeros = zeros == 3 ? 0 : zeros + 1;
            } else if (b == 1 && (zeros & 2) != 0) {
                const int counted = zeros;
                zeros = 0;
                ++position;
                return position - 1 - static_cast<std::size_t>(counted);
            } else {
                zeros = 0;
            }
        }
        return size;
    }
};

std::size_t splitOurs(const std::vector<unsigned char>& data)
{
    H264Reader reader;
    reader.setData(data.data(), data.size());
    std::size_t units = 0;
    for (auto unit = reader.readNalUnit(); unit.second > 0; unit = reader.readNalUnit())
        ++units;
    return units;
}

bool checkExact(const std::vector<unsigned char>& data)
{
    H264Reader reader;
    reader.setData(data.data(), data.size());
    ByteLoop loop{data.data(), data.size()};
    std::size_t found = 0;
    for (;;) {
        const std::size_t expected = loop.next();
        const unsigned long got = reader.findNextNaluOffset();
        if (got != expected || static_cast<std::size_t>(reader.readOffset()) != loop.position) {
            std::cerr << "start code " << found << ": fast search gave " << got << ", byte loop " << expected << "\n";
            return false;
        }
        if (expected == data.size())
            break;
        ++found;
    }
    std::cout << "byte-exact: " << found << " start codes in " << data.size() << " bytes agree\n";
    return true;
}

void setRate(benchmark::State& state, std::size_t bytes)
{
    state.counters["GB/s"] = benchmark::Counter(
        static_cast<double>(bytes) * static_cast<double>(state.iterations()) / 1e9, benchmark::Counter::kIsRate);
}

void ours(benchmark::State& state)
{
    const auto& data = stream();
    std::size_t units = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(units = splitOurs(data));
    state.counters["units"] = static_cast<double>(units);
    setRate(state, data.size());
}

void memchrOnes(benchmark::State& state)
{
    const auto& data = stream();
    std::size_t hits = 0;
    for (auto _ : state) {
        hits = 0;
        const unsigned char* p = data.data();
        const unsigned char* end = p + data.size();
        while (p < end) {
            const void* hit = std::memchr(p, 1, static_cast<std::size_t>(end - p));
            if (hit == nullptr)
                break;
            ++hits;
            p = static_cast<const unsigned char*>(hit) + 1;
        }
        benchmark::DoNotOptimize(hits);
    }
    state.counters["hits"] = static_cast<double>(hits);
    setRate(state, data.size());
}

void byteLoop(benchmark::State& state)
{
    const auto& data = stream();
    std::size_t units = 0;
    for (auto _ : state) {
        ByteLoop loop{data.data(), data.size()};
        units = 0;
        while (loop.next() != data.size())
            ++units;
        benchmark::DoNotOptimize(units);
    }
    state.counters["units"] = static_cast<double>(units);
    setRate(state, data.size());
}

void libavcodecParser(benchmark::State& state)
{
    const auto& data = stream();
    std::size_t frames = 0;
    for (auto _ : state) {
        AVCodecParserContext* parser = av_parser_init(AV_CODEC_ID_H264);
        AVCodecContext* context = avcodec_alloc_context3(nullptr);
        frames = 0;
        const std::uint8_t* p = data.data();
        std::size_t left = data.size();
        for (;;) {
            std::uint8_t* out = nullptr;
            int outSize = 0;
            // The parser takes an int length: feed it in pieces.
            const int piece = static_cast<int>(std::min<std::size_t>(left, 1 << 20));
            const int used = av_parser_parse2(parser, context, &out, &outSize, piece > 0 ? p : nullptr, piece,
                                              AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
            if (outSize > 0)
                ++frames;
            if (piece == 0 && outSize == 0)
                break;
            p += used;
            left -= static_cast<std::size_t>(used);
        }
        av_parser_close(parser);
        avcodec_free_context(&context);
        benchmark::DoNotOptimize(frames);
    }
    state.counters["frames"] = static_cast<double>(frames);
    setRate(state, data.size());
}

// Prints as usual and keeps each benchmark's GB/s for the ratios: the median
// when repetitions are asked for, the single run otherwise.
class RateReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            const auto it = run.counters.find("GB/s");
            if (it == run.counters.end())
                continue;
            const std::string& name = run.run_name.function_name;
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                rates[name] = it->second.value;
                medians.insert(name);
            } else if (run.run_type == Run::RT_Iteration && medians.count(name) == 0) {
                rates[name] = it->second.value;
            }
        }
    }
    std::map<std::string, double> rates;

private:
    std::set<std::string> medians;
};

} // namespace

int main(int argc, char** argv)
{
    const auto& data = stream();
    if (data.size() < minimumStreamBytes) {
        std::cerr << "no benchmark stream\n";
        return 1;
    }
    std::cout << "stream: " << data.size() / (1 << 20) << " MiB\n";
    if (!checkExact(data))
        return 1;

    benchmark::RegisterBenchmark("ours_H264Reader", ours)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("memchr_0x01", memchrOnes)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("byte_loop", byteLoop)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("libavcodec_av_parser_parse2", libavcodecParser)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::Initialize(&argc, argv);
    RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const double base = reporter.rates["memchr_0x01"];
    if (base > 0) {
        std::printf("\nGB/s and ratio to memchr:\n");
        for (const char* name : {"ours_H264Reader", "memchr_0x01", "byte_loop", "libavcodec_av_parser_parse2"}) {
            const double rate = reporter.rates[name];
            std::printf("  %-30s %7.2f GB/s  %5.2fx\n", name, rate, rate / base);
        }
    }
    return 0;
}
