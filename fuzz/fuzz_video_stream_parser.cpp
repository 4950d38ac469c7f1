// The stream parser on arbitrary bytes: no crash, no read outside the input,
// and what it reports stays consistent with the input.

#include <cstddef>
#include <cstdint>
#include <vector>

#include <lumiflux/video_stream_parser.h>

#include "quiet_log.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size)
{
    using namespace Tevara::Lumiflux;
    // An exact-size copy, so the parser cannot lean on libFuzzer's slack.
    const std::vector<std::uint8_t> data(input, input + size);
    VideoStreamParserSettings settings;
    settings.allowLeadingBytes = size > 0 && (input[0] & 1) != 0;
    VideoStreamParser parser(settings);
    const bool ok = parser.parse(data.data(), data.size());
    const VideoStreamMetadata& meta = parser.metadata();
    if (ok && !meta.isValid())
        __builtin_trap();
    if (meta.isValid() && (meta.displayWidth() <= 0 || meta.displayHeight() <= 0 ||
                           meta.displayWidth() > meta.codedWidth() || meta.displayHeight() > meta.codedHeight()))
        __builtin_trap();
    std::uint64_t end = 0;
    for (const auto& unit : parser.accessUnits()) {
        if (unit.offset < end || unit.offset + unit.size > size || unit.nalTypes.empty())
            __builtin_trap();
        end = unit.offset + unit.size;
    }
    VideoStreamMetadata copy = meta;
    if (copy.codedWidth() != meta.codedWidth())
        __builtin_trap();
    return 0;
}
