#pragma once

// The process-wide codec manager over every plug-in's codec manager.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <lumiflux/codec.h>

namespace Tevara::Lumiflux {

/**
 * Merges the codec lists of all plug-ins into one list in preference order
 * and routes every request for a codec id to the plug-in that announced it
 * first. init() runs once under `mutex`; afterwards the list and the routing
 * table never change, so the queries take no lock.
 */
class RootCodecManager : public CodecManager {
public:
    RootCodecManager();
    ~RootCodecManager() override;
    RootCodecManager(const RootCodecManager&) = delete;
    RootCodecManager& operator=(const RootCodecManager&) = delete;

    /** The one instance of the process. */
    static RootCodecManager& instance();

    bool init() override;
    bool videoEncoderAvailable(CodecType type, bool hw) override;
    bool videoDecoderAvailable(CodecType type, bool hw) override;
    std::shared_ptr<VideoEncoder> createVideoEncoder(CodecType type, bool hw) override;
    std::shared_ptr<VideoDecoder> createVideoDecoder(CodecType type, bool hw) override;
    std::vector<VideoCodecInfo> listCodecs() const override;
    bool isCodecIdAvailable(const std::string& id) const override;
    std::shared_ptr<VideoEncoder> createVideoEncoderById(const std::string& id) override;
    std::shared_ptr<VideoDecoder> createVideoDecoderById(const std::string& id) override;
    std::shared_ptr<VideoCodecExtendedInfo> getVideoCodecExtendedInfo(const std::string& id) override;
    bool videoDecoderSupports(const std::string& id, const VideoDecoderMetadata& metadata, bool hw) override;
    bool videoEncoderSupports(const std::string& id, const VideoEncoderMetadata& metadata, bool hw) override;

private:
    // The manager of `id`, or null for an unknown id.
    CodecManager* managerOf(const std::string& id) const;
    // The first entry of `codecs` matching the walk of the type-based
    // operations whose manager reports its id available, or null.
    const VideoCodecInfo* firstAvailable(CodecType type, bool encoder, bool hw) const;

    bool initialized = false;
    std::vector<VideoCodecInfo> codecs;
    std::map<std::string, std::shared_ptr<CodecManager>> managers;
    std::mutex mutex;
};

} // namespace Tevara::Lumiflux
