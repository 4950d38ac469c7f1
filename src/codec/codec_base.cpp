#include <lumiflux/codec_base.h>

#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::Internal {

// ------------------------------------------------------------ VideoCodecDesc

VideoCodecDesc::VideoCodecDesc(const VideoCodecInfo& codecInfo, const SizeRange& range, const Size& align)
    : info(codecInfo), sizeRange(range), alignment(align)
{
}

VideoCodecDesc::~VideoCodecDesc() = default;

SizeRange VideoCodecDesc::getSizeRange() const
{
    return sizeRange;
}

Size VideoCodecDesc::getAlignment() const
{
    return alignment;
}

// ---------------------------------------------------------- BaseCodecManager

BaseCodecManager::BaseCodecManager() = default;
BaseCodecManager::~BaseCodecManager() = default;

void BaseCodecManager::addCodec(const VideoCodecDesc& desc)
{
    codecs.push_back(desc);
    // try_emplace keeps the count of the first description under an id.
    freeInstances.try_emplace(desc.getInfo().id, desc.getInfo().maxInstances);
}

std::vector<VideoCodecInfo> BaseCodecManager::listCodecs() const
{
    std::vector<VideoCodecInfo> result;
    result.reserve(codecs.size());
    for (const auto& desc : codecs)
        result.push_back(desc.getInfo());
    return result;
}

bool BaseCodecManager::isCodecIdAvailable(const std::string& id) const
{
    const auto it = freeInstances.find(id);
    return it != freeInstances.end() && it->second.load(std::memory_order_relaxed) > 0;
}

bool BaseCodecManager::acquireCodecId(const std::string& id)
{
    const auto it = freeInstances.find(id);
    if (it == freeInstances.end())
        return false;
    // The count in the message is read before the lock, so it is only indicative.
    LUMIFLUX_LOG_DIGIT(0, "main ") << "acquire " << id << " of " << it->second.load(std::memory_order_relaxed)
                                   << std::endl;
    std::lock_guard<std::mutex> lock(mutex);
    const std::int32_t count = it->second.load(std::memory_order_relaxed);
    if (count <= 0)
        return false;
    it->second.store(count - 1, std::memory_order_relaxed);
    return true;
}

void BaseCodecManager::releaseCodecId(const std::string& id)
{
    const auto it = freeInstances.find(id);
    if (it == freeInstances.end())
        return;
    LUMIFLUX_LOG_DIGIT(0, "main ") << "release " << id << " of " << it->second.load(std::memory_order_relaxed)
                                   << std::endl;
    std::lock_guard<std::mutex> lock(mutex);
    // No upper bound: releasing more than was acquired raises the count.
    it->second.store(it->second.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

namespace {

// The first codec of the walk by type: the given direction and type,
// hardware when asked for, with a free instance. Null when there is none.
const VideoCodecInfo* firstAvailable(const BaseCodecManager& manager, const std::vector<VideoCodecDesc>& codecs,
                                     bool encoder, CodecType type, bool hw)
{
    for (const auto& desc : codecs) {
        const VideoCodecInfo& info = desc.getInfo();
        if (info.encoder == encoder && info.type == type && (!hw || info.hw) && manager.isCodecIdAvailable(info.id))
            return &info;
    }
    return nullptr;
}

// The first description registered under `id`, or null.
const VideoCodecDesc* firstDesc(const std::vector<VideoCodecDesc>& codecs, const std::string& id)
{
    for (const auto& desc : codecs)
        if (desc.getInfo().id == id)
            return &desc;
    return nullptr;
}

// The support query of either direction; `create` makes an instance by id.
template <typename Metadata, typename Create>
bool anySupports(const std::vector<VideoCodecDesc>& codecs, bool encoder, const std::string& id,
                 const Metadata& metadata, bool hw, Create create)
{
    if (!id.empty()) {
        if (auto codec = create(id)) {
            if (hw && !codec->getInfo().hw)
                return false;
            return codec->supports(metadata);
        }
    }
    for (const auto& desc : codecs) {
        const VideoCodecInfo& info = desc.getInfo();
        if (info.encoder != encoder || (hw && !info.hw))
            continue;
        // The caller's id again, not the entry's, and the type is not compared.
        auto codec = create(id);
        if (codec && codec->supports(metadata))
            return true;
    }
    return false;
}

} // namespace

bool BaseCodecManager::videoEncoderAvailable(CodecType type, bool hw)
{
    return firstAvailable(*this, codecs, true, type, hw) != nullptr;
}

bool BaseCodecManager::videoDecoderAvailable(CodecType type, bool hw)
{
    return firstAvailable(*this, codecs, false, type, hw) != nullptr;
}

std::shared_ptr<VideoEncoder> BaseCodecManager::createVideoEncoder(CodecType type, bool hw)
{
    // The first available candidate decides, even when its creation fails.
    const VideoCodecInfo* info = firstAvailable(*this, codecs, true, type, hw);
    return info != nullptr ? createVideoEncoderById(info->id) : nullptr;
}

std::shared_ptr<VideoDecoder> BaseCodecManager::createVideoDecoder(CodecType type, bool hw)
{
    const VideoCodecInfo* info = firstAvailable(*this, codecs, false, type, hw);
    return info != nullptr ? createVideoDecoderById(info->id) : nullptr;
}

std::shared_ptr<VideoEncoder> BaseCodecManager::createVideoEncoderById(const std::string& id)
{
    // The encoder flag is not looked at: a decoder's id reaches the encoder
    // factory with the decoder's description, and the factory decides.
    const VideoCodecDesc* desc = firstDesc(codecs, id);
    if (desc == nullptr)
        return nullptr;
    if (!acquireCodecId(id)) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << "codec " << id << " is not available" << std::endl;
        return nullptr;
    }
    // A null or throwing factory keeps the instance: only a destroyed
    // encoder or decoder gives one back.
    return instantiateVideoEncoder(*desc);
}

std::shared_ptr<VideoDecoder> BaseCodecManager::createVideoDecoderById(const std::string& id)
{
    const VideoCodecDesc* desc = firstDesc(codecs, id);
    if (desc == nullptr)
        return nullptr;
    if (!acquireCodecId(id)) {
        LUMIFLUX_LOG_DIGIT(2, "main ") << "codec " << id << " is not available" << std::endl;
        return nullptr;
    }
    return instantiateVideoDecoder(*desc);
}

std::shared_ptr<VideoCodecExtendedInfo> BaseCodecManager::getVideoCodecExtendedInfo(const std::string& id)
{
    if (auto encoder = createVideoEncoderById(id))
        return encoder->getExtendedInfo();
    // The second try is an encoder again, on purpose: the answer comes from
    // an encoder instance or not at all.
    if (auto encoder = createVideoEncoderById(id))
        return encoder->getExtendedInfo();
    return nullptr;
}

bool BaseCodecManager::videoEncoderSupports(const std::string& id, const VideoEncoderMetadata& metadata, bool hw)
{
    return anySupports(codecs, true, id, metadata, hw,
                       [this](const std::string& codecId) { return createVideoEncoderById(codecId); });
}

bool BaseCodecManager::videoDecoderSupports(const std::string& id, const VideoDecoderMetadata& metadata, bool hw)
{
    return anySupports(codecs, false, id, metadata, hw,
                       [this](const std::string& codecId) { return createVideoDecoderById(codecId); });
}

// ----------------------------------------------------------------- supports

namespace {

bool fitsSizeRange(const SizeRange& range, std::int32_t width, std::int32_t height)
{
    if (range.min.width < 0 || range.min.height < 0 || range.max.width < 0 || range.max.height < 0)
        return false;
    if (width < range.min.width || height < range.min.height)
        return false;
    // The upper bound is an area, on purpose: a frame wider than max.width
    // passes when it is low enough. Products wrap as 32-bit signed values.
    const auto area = static_cast<std::int32_t>(static_cast<std::uint32_t>(width) * static_cast<std::uint32_t>(height));
    const auto maxArea = static_cast<std::int32_t>(static_cast<std::uint32_t>(range.max.width) *
                                                   static_cast<std::uint32_t>(range.max.height));
    return area <= maxArea;
}

// Called from destructors: noexcept makes an exception from the release end
// the process at once rather than leave a half-destroyed instance behind.
void releaseInstance(BaseCodecManager* manager, const std::string& id) noexcept
{
    if (manager != nullptr)
        manager->releaseCodecId(id);
}

} // namespace

// ---------------------------------------------------------- BaseVideoEncoder

BaseVideoEncoder::BaseVideoEncoder(BaseCodecManager* owner, const VideoCodecDesc& codecDesc)
    : desc(codecDesc), manager(owner)
{
}

BaseVideoEncoder::~BaseVideoEncoder()
{
    releaseInstance(manager, getInfo().id);
}

const VideoCodecInfo& BaseVideoEncoder::getInfo() const
{
    return desc.getInfo();
}

std::shared_ptr<VideoCodecExtendedInfo> BaseVideoEncoder::getExtendedInfo() const
{
    return std::make_shared<VideoCodecDesc>(desc);
}

bool BaseVideoEncoder::supports(const VideoEncoderMetadata& metadata) const
{
    if (metadata.codecType != desc.getInfo().type)
        return false;
    const std::int32_t width = metadata.stride != 0 ? metadata.stride : metadata.width;
    return fitsSizeRange(desc.getSizeRange(), width, metadata.height);
}

void BaseVideoEncoder::eos() {}

// ---------------------------------------------------------- BaseVideoDecoder

BaseVideoDecoder::BaseVideoDecoder(BaseCodecManager* owner, const VideoCodecDesc& codecDesc)
    : desc(codecDesc), manager(owner)
{
}

BaseVideoDecoder::~BaseVideoDecoder()
{
    releaseInstance(manager, getInfo().id);
}

const VideoCodecInfo& BaseVideoDecoder::getInfo() const
{
    return desc.getInfo();
}

std::shared_ptr<VideoCodecExtendedInfo> BaseVideoDecoder::getExtendedInfo() const
{
    return std::make_shared<VideoCodecDesc>(desc);
}

bool BaseVideoDecoder::supports(const VideoDecoderMetadata& metadata) const
{
    if (metadata.codecType != desc.getInfo().type)
        return false;
    return fitsSizeRange(desc.getSizeRange(), metadata.width, metadata.height);
}

} // namespace Tevara::Lumiflux::Internal
