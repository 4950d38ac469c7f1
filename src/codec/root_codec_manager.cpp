#include "codec/root_codec_manager.h"

#include <cstdlib>
#include <cstring>
#include <exception>

#include <lumiflux/plugin.h>

#include "codec/codec_order.h"
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux {

namespace {

// LUMIFLUX_IGNORE_CODEC_ID, read and measured once per process, on the first
// init that reaches a codec.
struct IgnoredCodecPrefix {
    bool set = false;
    std::string value;

    IgnoredCodecPrefix()
    {
        const char* text = std::getenv("LUMIFLUX_IGNORE_CODEC_ID");
        set = text != nullptr;
        if (set)
            value.assign(text, std::strlen(text));
    }

    // A prefix match on purpose: "h264" leaves out every id starting with it,
    // and a set but empty value leaves out everything.
    bool ignores(const std::string& id) const
    {
        return set && id.size() >= value.size() && id.compare(0, value.size(), value) == 0;
    }
};

const IgnoredCodecPrefix& ignoredCodecPrefix()
{
    static const IgnoredCodecPrefix prefix;
    return prefix;
}

// Constructed when the library is loaded, destroyed at process exit.
RootCodecManager rootCodecManager;

} // namespace

RootCodecManager::RootCodecManager() = default;

// Drops the shared pointers to the plug-in managers; the modules stay loaded.
RootCodecManager::~RootCodecManager() = default;

RootCodecManager& RootCodecManager::instance()
{
    return rootCodecManager;
}

bool RootCodecManager::init()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (initialized)
        return true;

    codecs.clear();
    managers.clear();

    for (const Plugin& plugin : PluginManager::get().listPlugins()) {
        std::shared_ptr<CodecManager> manager = plugin.module->getCodecManager();
        if (!manager || !manager->init())
            continue;
        LUMIFLUX_LOG_DIGIT(1, "codec ") << "Initialized codec plugin at " << plugin.path << std::endl;

        for (VideoCodecInfo info : manager->listCodecs()) {
            if (ignoredCodecPrefix().ignores(info.id)) {
                LUMIFLUX_LOG_DIGIT(1, "codec ") << "Ignore codec " << info.id << std::endl;
                continue;
            }
            // 32-bit signed arithmetic that wraps rather than overflows.
            info.priority = static_cast<std::int32_t>(static_cast<std::uint32_t>(info.priority) +
                                                      10u * static_cast<std::uint32_t>(plugin.module->getPriority()));
            codecs.push_back(info);
            // The first plug-in that announced an id keeps it.
            managers.emplace(info.id, manager);
        }
    }

    if (codecs.empty()) {
        initialized = true;
        return true;
    }

    Internal::sortCodecs(codecs.data(), codecs.data() + codecs.size());
    for (const VideoCodecInfo& info : codecs)
        LUMIFLUX_LOG_DIGIT(0, "codec ") << info.id << " priority=" << info.priority << " hw=" << (info.hw ? "1" : "0")
                                        << std::endl;
    initialized = true;
    return true;
}

CodecManager* RootCodecManager::managerOf(const std::string& id) const
{
    const auto it = managers.find(id);
    return it != managers.end() ? it->second.get() : nullptr;
}

const VideoCodecInfo* RootCodecManager::firstAvailable(CodecType type, bool encoder, bool hw) const
{
    for (const VideoCodecInfo& info : codecs) {
        if (info.type != type || info.encoder != encoder || (hw && !info.hw))
            continue;
        CodecManager* manager = managerOf(info.id);
        if (manager != nullptr && manager->isCodecIdAvailable(info.id))
            return &info;
    }
    return nullptr;
}

bool RootCodecManager::videoEncoderAvailable(CodecType type, bool hw)
{
    return firstAvailable(type, true, hw) != nullptr;
}

bool RootCodecManager::videoDecoderAvailable(CodecType type, bool hw)
{
    return firstAvailable(type, false, hw) != nullptr;
}

std::shared_ptr<VideoEncoder> RootCodecManager::createVideoEncoder(CodecType type, bool hw)
{
    // Only the first available candidate is tried, whatever its creation gives.
    const VideoCodecInfo* info = firstAvailable(type, true, hw);
    return info != nullptr ? createVideoEncoderById(info->id) : nullptr;
}

std::shared_ptr<VideoDecoder> RootCodecManager::createVideoDecoder(CodecType type, bool hw)
{
    const VideoCodecInfo* info = firstAvailable(type, false, hw);
    return info != nullptr ? createVideoDecoderById(info->id) : nullptr;
}

std::vector<VideoCodecInfo> RootCodecManager::listCodecs() const
{
    return codecs;
}

bool RootCodecManager::isCodecIdAvailable(const std::string& id) const
{
    CodecManager* manager = managerOf(id);
    return manager != nullptr && manager->isCodecIdAvailable(id);
}

std::shared_ptr<VideoEncoder> RootCodecManager::createVideoEncoderById(const std::string& id)
{
    CodecManager* manager = managerOf(id);
    return manager != nullptr ? manager->createVideoEncoderById(id) : nullptr;
}

std::shared_ptr<VideoDecoder> RootCodecManager::createVideoDecoderById(const std::string& id)
{
    CodecManager* manager = managerOf(id);
    return manager != nullptr ? manager->createVideoDecoderById(id) : nullptr;
}

std::shared_ptr<VideoCodecExtendedInfo> RootCodecManager::getVideoCodecExtendedInfo(const std::string& id)
{
    CodecManager* manager = managerOf(id);
    return manager != nullptr ? manager->getVideoCodecExtendedInfo(id) : nullptr;
}

bool RootCodecManager::videoDecoderSupports(const std::string& id, const VideoDecoderMetadata& metadata, bool hw)
{
    CodecManager* manager = managerOf(id);
    return manager != nullptr && manager->videoDecoderSupports(id, metadata, hw);
}

bool RootCodecManager::videoEncoderSupports(const std::string& id, const VideoEncoderMetadata& metadata, bool hw)
{
    CodecManager* manager = managerOf(id);
    return manager != nullptr && manager->videoEncoderSupports(id, metadata, hw);
}

} // namespace Tevara::Lumiflux

extern "C" LUMIFLUX_EXPORT Tevara::Lumiflux::CodecManager* LumifluxCodecManager()
{
    using namespace Tevara::Lumiflux;
    auto& root = RootCodecManager::instance();
    // A plug-in that throws from its init must not take the application
    // down: the root stays uninitialised and the next call tries again.
    try {
        root.init();
    } catch (const std::exception& error) {
        LUMIFLUX_LOG_DIGIT(2, "codec ") << "codec initialisation failed: " << error.what() << std::endl;
    } catch (...) {
        LUMIFLUX_LOG_DIGIT(2, "codec ") << "codec initialisation failed" << std::endl;
    }
    return &root;
}
