// lumiflux probe <file>: what an H.264 Annex B stream holds: its NAL units by
// type, the picture size before and after cropping, profile, level, frame
// rate, access units and key frames.

#include <cstdio>
#include <string>

#include <lumiflux/video_stream_parser.h>

#include "command.h"

namespace lumiflux_tool {
namespace {

const char* nalTypeName(std::size_t type)
{
    static const char* const names[32] = {"unspecified",
                                          "non-IDR slice",
                                          "slice data partition A",
                                          "slice data partition B",
                                          "slice data partition C",
                                          "IDR slice",
                                          "SEI",
                                          "SPS",
                                          "PPS",
                                          "access unit delimiter",
                                          "end of sequence",
                                          "end of stream",
                                          "filler data",
                                          "SPS extension",
                                          "prefix NAL unit",
                                          "subset SPS",
                                          "depth parameter set",
                                          "reserved",
                                          "reserved",
                                          "auxiliary slice",
                                          "slice extension",
                                          "depth view slice extension",
                                          "reserved",
                                          "reserved",
                                          "unspecified",
                                          "unspecified",
                                          "unspecified",
                                          "unspecified",
                                          "unspecified",
                                          "unspecified",
                                          "unspecified",
                                          "unspecified"};
    return type < 32 ? names[type] : "invalid";
}

// The profile's name, refined by the constraint_set flags (the SPS byte,
// constraint_set0 in the top bit) where they name a narrower profile.
std::string profileName(int profile, int constraints)
{
    const bool set1 = (constraints & 0x40) != 0;
    const bool set3 = (constraints & 0x10) != 0;
    const bool set4 = (constraints & 0x08) != 0;
    const bool set5 = (constraints & 0x04) != 0;
    switch (profile) {
    case 66:
        return set1 ? "Constrained Baseline" : "Baseline";
    case 77:
        return "Main";
    case 88:
        return "Extended";
    case 100:
        return set4 && set5 ? "Constrained High" : "High";
    case 110:
        return set3 ? "High 10 Intra" : "High 10";
    case 122:
        return set3 ? "High 4:2:2 Intra" : "High 4:2:2";
    case 244:
        return set3 ? "High 4:4:4 Intra" : "High 4:4:4 Predictive";
    case 44:
        return "CAVLC 4:4:4 Intra";
    default:
        return "profile_idc " + std::to_string(profile);
    }
}

const char* chromaName(int chroma)
{
    switch (chroma) {
    case 0:
        return "4:0:0";
    case 1:
        return "4:2:0";
    case 2:
        return "4:2:2";
    default:
        return "4:4:4";
    }
}

int probe(Output& out, const std::string& path, bool listUnits)
{
    using namespace Tevara::Lumiflux;
    VideoStreamParserSettings settings;
    settings.keepAccessUnits = listUnits;
    VideoStreamParser parser(settings);
    if (!parser.parseFile(path)) {
        out.error("ParseError", parser.errorMessage());
        return 1;
    }
    const VideoStreamMetadata& meta = parser.metadata();

    out.text("file: " + path);
    const auto& counts = parser.nalUnitCounts();
    out.text("NAL units:");
    for (std::size_t type = 0; type < counts.size(); ++type) {
        if (counts[type] == 0)
            continue;
        out.text("  " + std::to_string(type) + " " + nalTypeName(type) + ": " + std::to_string(counts[type]));
        out.record({{"event", "nalUnits"}, {"type", type}, {"name", nalTypeName(type)}, {"count", counts[type]}});
    }

    char level[16];
    std::snprintf(level, sizeof(level), "%d.%d", meta.level() / 10, meta.level() % 10);
    char rate[32] = "unknown";
    if (meta.frameRateDenominator() != 0)
        std::snprintf(rate, sizeof(rate), "%d/%d (%.3f fps)", meta.frameRateNumerator(), meta.frameRateDenominator(),
                      meta.frameRate());
    out.text("codec " + meta.codecName() + ", profile " + profileName(meta.profile(), meta.constraintFlags()) + " (" +
             std::to_string(meta.profile()) + "), level " + level);
    out.text("coded " + std::to_string(meta.codedWidth()) + "x" + std::to_string(meta.codedHeight()) + ", display " +
             std::to_string(meta.displayWidth()) + "x" + std::to_string(meta.displayHeight()) + " (crop left " +
             std::to_string(meta.cropLeft()) + ", right " + std::to_string(meta.cropRight()) + ", top " +
             std::to_string(meta.cropTop()) + ", bottom " + std::to_string(meta.cropBottom()) + ")");
    out.text(std::string(chromaName(meta.chromaFormat())) + ", " + std::to_string(meta.bitDepthLuma()) + "-bit luma, " +
             std::to_string(meta.bitDepthChroma()) + "-bit chroma, " +
             (meta.frameMbsOnly() ? "frames only" : "field coding allowed"));
    out.text("sample aspect ratio " +
             (meta.sarWidth() != 0 ? std::to_string(meta.sarWidth()) + ":" + std::to_string(meta.sarHeight())
                                   : std::string("unspecified")) +
             ", frame rate " + rate);
    out.text("access units: " + std::to_string(meta.accessUnitCount()) +
             ", key frames: " + std::to_string(meta.keyFrameCount()));
    out.record({{"event", "stream"},
                {"path", path},
                {"codec", meta.codecName()},
                {"profile", meta.profile()},
                {"profileName", profileName(meta.profile(), meta.constraintFlags())},
                {"level", meta.level()},
                {"codedWidth", meta.codedWidth()},
                {"codedHeight", meta.codedHeight()},
                {"displayWidth", meta.displayWidth()},
                {"displayHeight", meta.displayHeight()},
                {"crop", {meta.cropLeft(), meta.cropRight(), meta.cropTop(), meta.cropBottom()}},
                {"sarWidth", meta.sarWidth()},
                {"sarHeight", meta.sarHeight()},
                {"frameRateNumerator", meta.frameRateNumerator()},
                {"frameRateDenominator", meta.frameRateDenominator()},
                {"chromaFormat", meta.chromaFormat()},
                {"bitDepthLuma", meta.bitDepthLuma()},
                {"bitDepthChroma", meta.bitDepthChroma()},
                {"frameMbsOnly", meta.frameMbsOnly()},
                {"accessUnits", meta.accessUnitCount()},
                {"keyFrames", meta.keyFrameCount()}});

    if (listUnits) {
        const auto& units = parser.accessUnits();
        for (std::size_t i = 0; i < units.size(); ++i) {
            const auto& unit = units[i];
            std::string types;
            for (auto t : unit.nalTypes)
                types += (types.empty() ? "" : ",") + std::to_string(t);
            out.text("  #" + std::to_string(i) + " offset " + std::to_string(unit.offset) + ", " +
                     std::to_string(unit.size) + " bytes, NAL " + types + (unit.keyFrame ? ", key frame" : ""));
            out.record({{"event", "accessUnit"},
                        {"index", i},
                        {"offset", unit.offset},
                        {"size", unit.size},
                        {"nalTypes", unit.nalTypes},
                        {"keyFrame", unit.keyFrame}});
        }
    }
    return 0;
}

const CommandRegistration registration{
    Command{"probe", "describe an H.264 Annex B stream: NAL units, sizes, profile, level, frame rate, key frames",
            [](CLI::App& app) {
                auto path = std::make_shared<std::string>();
                auto units = std::make_shared<bool>(false);
                app.add_option("file", *path, "the H.264 Annex B file")->required();
                app.add_flag("--units", *units, "list every access unit");
                return std::function<int(Output&)>([path, units](Output& out) { return probe(out, *path, *units); });
            },
            60}};

} // namespace
} // namespace lumiflux_tool
