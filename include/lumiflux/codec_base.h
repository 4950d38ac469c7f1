#pragma once

/**
 * @file codec_base.h
 * Base classes for codec plug-ins. A plug-in's codec manager derives from
 * Internal::BaseCodecManager, registers its codecs with addCodec() from its
 * init() and supplies the two factories; its encoders and decoders derive from
 * Internal::BaseVideoEncoder and Internal::BaseVideoDecoder, which give their
 * instance back to the manager when they are destroyed.
 *
 * Messages of this file are debug-only lines with the prefix "main ".
 */

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <lumiflux/codec.h>
#include <lumiflux/export.h>
#include <lumiflux/parameters.h>

namespace Tevara::Lumiflux::Internal {

/** A codec's record and geometry. Copyable; copies are independent. */
class LUMIFLUX_EXPORT VideoCodecDesc : public VideoCodecExtendedInfo {
public:
    /** Copies the three values unchanged, without validating them. */
    VideoCodecDesc(const VideoCodecInfo& info, const SizeRange& sizeRange, const Size& alignment);
    /** Copies another description. */
    VideoCodecDesc(const VideoCodecDesc&) = default;
    /** Copies another description. */
    VideoCodecDesc& operator=(const VideoCodecDesc&) = default;

    SizeRange getSizeRange() const override;
    Size getAlignment() const override;
    ~VideoCodecDesc() override;

    const VideoCodecInfo& getInfo() const { return info; } ///< the codec's record

private:
    VideoCodecInfo info;
    SizeRange sizeRange;
    Size alignment;
};

/**
 * A plug-in's codec manager: answers every CodecManager query from the codecs
 * registered with addCodec() and counts the instances still available per id.
 * The counts are locked, so instances may be created and destroyed from any
 * thread; the codec list must not change once init() has returned. The
 * manager must outlive every encoder and decoder it created.
 */
class LUMIFLUX_EXPORT BaseCodecManager : public CodecManager {
public:
    BaseCodecManager();
    ~BaseCodecManager() override;
    BaseCodecManager(const BaseCodecManager&) = delete;
    BaseCodecManager& operator=(const BaseCodecManager&) = delete;

    bool videoEncoderAvailable(CodecType type, bool hw) override;
    bool videoDecoderAvailable(CodecType type, bool hw) override;
    std::shared_ptr<VideoEncoder> createVideoEncoder(CodecType type, bool hw) override;
    std::shared_ptr<VideoDecoder> createVideoDecoder(CodecType type, bool hw) override;
    /** The registered codecs in the order they were added. */
    std::vector<VideoCodecInfo> listCodecs() const override;
    /** True when `id` has a free instance. Reads the count without locking: a hint. */
    bool isCodecIdAvailable(const std::string& id) const override;
    /**
     * Takes an instance of the first codec registered as `id` and returns the
     * plug-in's instantiateVideoEncoder() for it. Null when the id is unknown
     * or has no free instance (logged). The encoder flag is not looked at.
     */
    std::shared_ptr<VideoEncoder> createVideoEncoderById(const std::string& id) override;
    /** The decoder form of createVideoEncoderById(). */
    std::shared_ptr<VideoDecoder> createVideoDecoderById(const std::string& id) override;
    /**
     * The geometry of `id`, read from an encoder created for the question (a
     * second encoder is tried when the first fails). Null while every
     * instance is in use.
     */
    std::shared_ptr<VideoCodecExtendedInfo> getVideoCodecExtendedInfo(const std::string& id) override;
    bool videoDecoderSupports(const std::string& id, const VideoDecoderMetadata& metadata, bool hw) override;
    bool videoEncoderSupports(const std::string& id, const VideoEncoderMetadata& metadata, bool hw) override;

    /** The plug-in's encoder factory: an encoder built with this manager and `desc`, or null. */
    virtual std::shared_ptr<VideoEncoder> instantiateVideoEncoder(const VideoCodecDesc& desc) = 0;
    /** The plug-in's decoder factory: a decoder built with this manager and `desc`, or null. */
    virtual std::shared_ptr<VideoDecoder> instantiateVideoDecoder(const VideoCodecDesc& desc) = 0;

    /**
     * Registers a codec. Its id starts with desc's maxInstances free
     * instances, unless the id is already registered (the first count stays).
     * Call from init() only.
     */
    void addCodec(const VideoCodecDesc& desc);
    /** Takes one instance of `id`; false for an unknown id or none free. */
    bool acquireCodecId(const std::string& id);
    /** Gives one instance of `id` back; there is no upper bound. Unknown ids are ignored. */
    void releaseCodecId(const std::string& id);

private:
    std::mutex mutex;
    std::vector<VideoCodecDesc> codecs;
    // The map's shape is fixed once init() has run; counts change under
    // `mutex` and are read without it, hence atomic.
    std::map<std::string, std::atomic<std::int32_t>> freeInstances;
};

/**
 * The base of a plug-in's encoder: its codec's description, its parameter
 * set and the manager it gives its instance back to when destroyed.
 */
class LUMIFLUX_EXPORT BaseVideoEncoder : public VideoEncoder {
public:
    /** `manager` (may be null) has already taken the instance; it is given back on destruction. */
    BaseVideoEncoder(BaseCodecManager* manager, const VideoCodecDesc& desc);
    ~BaseVideoEncoder() override;
    BaseVideoEncoder(const BaseVideoEncoder&) = delete;
    BaseVideoEncoder& operator=(const BaseVideoEncoder&) = delete;

    const VideoCodecInfo& getInfo() const override;
    std::shared_ptr<VideoCodecExtendedInfo> getExtendedInfo() const override;
    /**
     * True when the type matches and the frame (stride when non-zero, else
     * width, by height) is at least the minimum size and at most the maximum
     * area. False when any number of the size range is negative.
     */
    bool supports(const VideoEncoderMetadata& metadata) const override;
    /** Does nothing here. */
    void eos() override;

protected:
    VideoCodecDesc desc;       ///< the codec this is an instance of
    ParameterSet parameterSet; ///< the instance's parameters, owned by the set
    BaseCodecManager* manager; ///< the manager that made the instance; outlives it
};

/** The base of a plug-in's decoder; see BaseVideoEncoder. */
class LUMIFLUX_EXPORT BaseVideoDecoder : public VideoDecoder {
public:
    /** An instance of the codec `desc` of `manager`, which must outlive it; the instance slot is given back on
     * destruction. */
    BaseVideoDecoder(BaseCodecManager* manager, const VideoCodecDesc& desc);
    ~BaseVideoDecoder() override;
    BaseVideoDecoder(const BaseVideoDecoder&) = delete;
    BaseVideoDecoder& operator=(const BaseVideoDecoder&) = delete;

    const VideoCodecInfo& getInfo() const override;
    std::shared_ptr<VideoCodecExtendedInfo> getExtendedInfo() const override;
    /** As the encoder's supports(), measured with the width. */
    bool supports(const VideoDecoderMetadata& metadata) const override;

protected:
    VideoCodecDesc desc;       ///< the codec this is an instance of
    ParameterSet parameterSet; ///< the instance's parameters, owned by the set
    BaseCodecManager* manager; ///< the manager that made the instance; outlives it
};

} // namespace Tevara::Lumiflux::Internal
