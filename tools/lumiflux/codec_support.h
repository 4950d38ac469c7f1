#pragma once

// What the codec commands share: codec names, picking a codec from the
// command line, the IVF container for VP8, and the progress line.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <lumiflux/codec.h>

namespace lumiflux_tool {

/** "h264", "h265", "vp8", ... for the tool's output. */
std::string codecTypeName(Tevara::Lumiflux::CodecType type);
/** The type named by `name` (case-insensitive), or Unknown. */
Tevara::Lumiflux::CodecType codecTypeFromName(const std::string& name);

/** Parses "WxH"; false when it is not two positive numbers. */
bool parseSize(const std::string& text, int* width, int* height);

/** Writes an IVF file: a 32-byte header, then a 12-byte header per frame. */
class IvfWriter {
public:
    IvfWriter(std::FILE* file, int width, int height, int framerate);
    void writeFrame(const std::uint8_t* data, std::size_t size, std::int64_t timestampUs);
    /** Writes the frame count into the header. */
    void finish();

private:
    std::FILE* file;
    int rate;
    std::uint32_t frames = 0;
};

/** One frame of an IVF file. */
struct IvfFrame {
    std::vector<std::uint8_t> data;
    std::int64_t timestampUs;
};

/** Reads an IVF file; false with `error` set when it is not one. */
bool readIvf(const std::vector<std::uint8_t>& bytes, std::string* fourcc, int* width, int* height,
             std::vector<IvfFrame>* frames, std::string* error);

/** A live progress line ("\r..."), in human mode and on a terminal only. */
void progressLine(bool json, const std::string& text);
/** Ends the progress line. */
void endProgressLine(bool json);

} // namespace lumiflux_tool
