#include "codec_support.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iostream>

#include <unistd.h>

namespace lumiflux_tool {

using Tevara::Lumiflux::CodecType;

namespace {

const std::vector<std::pair<CodecType, std::string>>& names()
{
    static const std::vector<std::pair<CodecType, std::string>> list{
        {CodecType::H264, "h264"}, {CodecType::H265, "h265"},   {CodecType::VP8, "vp8"},  {CodecType::VP9, "vp9"},
        {CodecType::AV1, "av1"},   {CodecType::MPEG4, "mpeg4"}, {CodecType::H263, "h263"}};
    return list;
}

void put16(std::uint8_t* at, unsigned value)
{
    at[0] = static_cast<std::uint8_t>(value);
    at[1] = static_cast<std::uint8_t>(value >> 8);
}

void put32(std::uint8_t* at, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        at[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint32_t get32(const std::uint8_t* at)
{
    return static_cast<std::uint32_t>(at[0]) | (static_cast<std::uint32_t>(at[1]) << 8) |
           (static_cast<std::uint32_t>(at[2]) << 16) | (static_cast<std::uint32_t>(at[3]) << 24);
}

} // namespace

std::string codecTypeName(CodecType type)
{
    for (const auto& [value, name] : names())
        if (value == type)
            return name;
    return "unknown";
}

CodecType codecTypeFromName(const std::string& name)
{
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    if (lower == "avc")
        lower = "h264";
    if (lower == "hevc")
        lower = "h265";
    for (const auto& [value, known] : names())
        if (known == lower)
            return value;
    return CodecType::Unknown;
}

bool parseSize(const std::string& text, int* width, int* height)
{
    const auto x = text.find_first_of("xX");
    if (x == std::string::npos)
        return false;
    try {
        std::size_t used = 0;
        *width = std::stoi(text.substr(0, x), &used);
        if (used != x)
            return false;
        *height = std::stoi(text.substr(x + 1), &used);
        if (used != text.size() - x - 1)
            return false;
    } catch (const std::exception&) {
        return false;
    }
    return *width > 0 && *height > 0;
}

namespace {
const std::vector<std::pair<CodecType, std::string>>& fourccs()
{
    static const std::vector<std::pair<CodecType, std::string>> list{
        {CodecType::VP8, "VP80"}, {CodecType::VP9, "VP90"}, {CodecType::AV1, "AV01"}};
    return list;
}
} // namespace

const char* ivfFourcc(CodecType type)
{
    for (const auto& [value, code] : fourccs())
        if (value == type)
            return code.c_str();
    return nullptr;
}

CodecType codecTypeFromFourcc(const std::string& fourcc)
{
    for (const auto& [value, code] : fourccs())
        if (code == fourcc)
            return value;
    return CodecType::Unknown;
}

IvfWriter::IvfWriter(std::FILE* output, const char* fourcc, int width, int height, int framerate)
    : file(output), rate(framerate)
{
    std::uint8_t header[32] = {'D', 'K', 'I', 'F'};
    put16(header + 4, 0);
    put16(header + 6, 32);
    std::memcpy(header + 8, fourcc, 4);
    put16(header + 12, static_cast<unsigned>(width));
    put16(header + 14, static_cast<unsigned>(height));
    put32(header + 16, static_cast<std::uint32_t>(framerate));
    put32(header + 20, 1);
    std::fwrite(header, 1, sizeof header, file);
}

void IvfWriter::writeFrame(const std::uint8_t* data, std::size_t size, std::int64_t timestampUs)
{
    std::uint8_t header[12];
    put32(header, static_cast<std::uint32_t>(size));
    // Time base 1/framerate: the timestamp in frames.
    const auto pts = static_cast<std::uint64_t>(timestampUs >= 0 ? (timestampUs * rate + 500000) / 1000000 : frames);
    put32(header + 4, static_cast<std::uint32_t>(pts));
    put32(header + 8, static_cast<std::uint32_t>(pts >> 32));
    std::fwrite(header, 1, sizeof header, file);
    std::fwrite(data, 1, size, file);
    ++frames;
}

void IvfWriter::finish()
{
    std::uint8_t count[4];
    put32(count, frames);
    std::fseek(file, 24, SEEK_SET);
    std::fwrite(count, 1, sizeof count, file);
    std::fseek(file, 0, SEEK_END);
}

bool readIvf(const std::vector<std::uint8_t>& bytes, std::string* fourcc, int* width, int* height,
             std::vector<IvfFrame>* frames, std::string* error)
{
    if (bytes.size() < 32 || bytes[0] != 'D' || bytes[1] != 'K' || bytes[2] != 'I' || bytes[3] != 'F') {
        *error = "not an IVF file";
        return false;
    }
    const std::size_t headerSize = bytes[6] | (bytes[7] << 8);
    fourcc->assign(reinterpret_cast<const char*>(bytes.data() + 8), 4);
    *width = bytes[12] | (bytes[13] << 8);
    *height = bytes[14] | (bytes[15] << 8);
    const std::uint32_t rate = get32(bytes.data() + 16);
    const std::uint32_t scale = get32(bytes.data() + 20);
    std::size_t at = std::max<std::size_t>(headerSize, 32);
    while (at + 12 <= bytes.size()) {
        const std::uint32_t size = get32(bytes.data() + at);
        const std::uint64_t pts =
            get32(bytes.data() + at + 4) | (static_cast<std::uint64_t>(get32(bytes.data() + at + 8)) << 32);
        at += 12;
        if (size > bytes.size() - at) {
            *error = "IVF frame " + std::to_string(frames->size()) + " is cut short";
            return false;
        }
        IvfFrame frame;
        frame.data.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                          bytes.begin() + static_cast<std::ptrdiff_t>(at + size));
        frame.timestampUs = rate != 0 ? static_cast<std::int64_t>(pts * 1000000ull * scale / rate) : -1;
        frames->push_back(std::move(frame));
        at += size;
    }
    return true;
}

namespace {
// Progress lines are for people watching a terminal; in a log or a pipe they
// would only be noise.
bool liveOutput(bool json)
{
    return !json && isatty(STDOUT_FILENO) != 0;
}
} // namespace

void progressLine(bool json, const std::string& text)
{
    if (liveOutput(json))
        std::cout << "\r\033[K" << text << std::flush;
}

void endProgressLine(bool json)
{
    if (liveOutput(json))
        std::cout << '\n' << std::flush;
}

void RunState::wait()
{
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return done; });
}

void RunState::finishLocked()
{
    done = true;
    changed.notify_all();
}

std::FILE* openOutput(const std::string& path, const Output& out)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        out.error("OutputFailed", "cannot write " + path);
    return file;
}

} // namespace lumiflux_tool
