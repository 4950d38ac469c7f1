// lumiflux codecs: every codec in the order they are preferred, with what
// each instance offers.

#include <lumiflux/codec.h>
#include <lumiflux/plugin.h>

#include "codec_support.h"
#include "command.h"

namespace lumiflux_tool {
namespace {

using namespace Tevara::Lumiflux;

std::string parameterName(unsigned id)
{
    switch (id) {
    case CodecParameter::BitRate:
        return "bit-rate";
    case CodecParameter::KeyFrameInterval:
        return "key-frame-interval";
    case CodecParameter::RateControl:
        return "rate-control";
    case CodecParameter::Profile:
        return "profile";
    default:
        return "parameter-" + std::to_string(id);
    }
}

nlohmann::json parametersOf(const Internal::ParameterSet& set)
{
    nlohmann::json list = nlohmann::json::array();
    for (unsigned id : set.ids())
        list.push_back({{"id", id}, {"name", parameterName(id)}, {"value", set.get(id)}, {"range", set.range(id)}});
    return list;
}

// A codec's parameters can only be read from an instance of it.
nlohmann::json instanceParameters(CodecManager& codecs, const VideoCodecInfo& info)
{
    if (info.encoder) {
        if (auto encoder = codecs.createVideoEncoderById(info.id))
            return parametersOf(encoder->parameters());
    } else if (auto decoder = codecs.createVideoDecoderById(info.id)) {
        return parametersOf(decoder->parameters());
    }
    return nlohmann::json::array();
}

int listCodecs(Output& out)
{
    CodecManager* codecs = LumifluxCodecManager();
    const auto list = codecs->listCodecs();
    if (list.empty())
        out.text("no codecs in plug-in directory " + PluginManager::pluginDirectory());
    for (const auto& info : list) {
        nlohmann::json record{{"event", "codec"},
                              {"id", info.id},
                              {"type", codecTypeName(info.type)},
                              {"direction", info.encoder ? "encoder" : "decoder"},
                              {"hw", info.hw},
                              {"priority", info.priority},
                              {"maxInstances", info.maxInstances},
                              {"available", codecs->isCodecIdAvailable(info.id)}};
        std::string sizes = "?";
        if (auto geometry = codecs->getVideoCodecExtendedInfo(info.id)) {
            const SizeRange range = geometry->getSizeRange();
            sizes = std::to_string(range.min.width) + "x" + std::to_string(range.min.height) + " to " +
                    std::to_string(range.max.width) + "x" + std::to_string(range.max.height);
            record["minSize"] = {range.min.width, range.min.height};
            record["maxSize"] = {range.max.width, range.max.height};
        }
        record["parameters"] = instanceParameters(*codecs, info);
        out.record(record);

        out.text(info.id + "\n    " + codecTypeName(info.type) + " " + (info.encoder ? "encoder" : "decoder") + ", " +
                 (info.hw ? "hardware" : "software") + ", priority " + std::to_string(info.priority) + ", " +
                 std::to_string(info.maxInstances) + " instances, sizes " + sizes);
        for (const auto& parameter : record["parameters"])
            out.text("    " + parameter["name"].get<std::string>() + " = " + parameter["value"].get<std::string>() +
                     "  (range " + parameter["range"].get<std::string>() + ")");
    }
    return 0;
}

const CommandRegistration registration{Command{"codecs", "list the video codecs in the order they are preferred",
                                               [](CLI::App&) { return std::function<int(Output&)>(listCodecs); }, 30}};

} // namespace
} // namespace lumiflux_tool
