#pragma once

// What the codec commands share: codec names, picking a codec from the
// command line, the IVF container for VP8, VP9 and AV1, the progress line,
// and running a codec with a listener to the end of the stream.

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include <lumiflux/codec.h>

#include "output.h"

namespace lumiflux_tool {

/** "h264", "h265", "vp8", ... for the tool's output. */
std::string codecTypeName(Tevara::Lumiflux::CodecType type);
/** The type named by `name` (case-insensitive), or Unknown. */
Tevara::Lumiflux::CodecType codecTypeFromName(const std::string& name);

/** Parses "WxH"; false when it is not two positive numbers. */
bool parseSize(const std::string& text, int* width, int* height);

/** The IVF four-character code of `type` ("VP80", "VP90", "AV01"), or null for a byte-stream format. */
const char* ivfFourcc(Tevara::Lumiflux::CodecType type);
/** The type an IVF four-character code stands for, or Unknown. */
Tevara::Lumiflux::CodecType codecTypeFromFourcc(const std::string& fourcc);

/** Writes an IVF file: a 32-byte header, then a 12-byte header per frame. */
class IvfWriter {
public:
    IvfWriter(std::FILE* file, const char* fourcc, int width, int height, int framerate);
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

/**
 * What a codec command's listener shares with the command: `mutex` guards
 * the listener's fields, and the command waits for the end of the run. The
 * codec calls its listener on its own streaming thread.
 */
class RunState {
public:
    /** Blocks until finishLocked() has been called. */
    void wait();

    std::mutex mutex;  ///< guards the listener's fields
    std::string error; ///< what went wrong, or ""

protected:
    /** Ends the run; call with `mutex` held. */
    void finishLocked();

private:
    std::condition_variable changed;
    bool done = false;
};

/** Opens `path` for writing; null, with OutputFailed reported, when it cannot. */
std::FILE* openOutput(const std::string& path, const Output& out);

/**
 * Gives `codec` its listener and starts it. When it does not start, the
 * listener is taken back, `file` closed and StartFailed reported.
 */
template <typename Codec, typename Listener>
bool startWithListener(Codec& codec, Listener& listener, std::FILE* file, const Output& out)
{
    codec.lockAndSetListener(&listener);
    if (codec.start())
        return true;
    codec.lockAndSetListener(nullptr);
    std::fclose(file);
    out.error("StartFailed", codec.getInfo().id + " does not start");
    return false;
}

/** Waits for the end of the run, then takes the listener back and closes `file`. */
template <typename Codec> void finishRun(Codec& codec, RunState& state, std::FILE* file, const Output& out)
{
    state.wait();
    endProgressLine(out.json());
    codec.lockAndSetListener(nullptr);
    std::fclose(file);
}

} // namespace lumiflux_tool
