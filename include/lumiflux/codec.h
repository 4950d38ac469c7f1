#pragma once

/**
 * @file codec.h
 * Video encoders and decoders: the codec records, the interfaces of one codec
 * instance and of its listener, and the codec manager through which
 * applications find and create codecs.
 *
 * Typical use:
 * @code
 * auto* codecs = LumifluxCodecManager();
 * auto encoder = codecs->createVideoEncoder(CodecType::H264, false);
 * encoder->lockAndSetListener(&myListener);
 * encoder->configure(metadata);
 * encoder->start();
 * encoder->encode(frame, false); // ...
 * encoder->eos();                // remaining output, then onEncoderEos()
 * @endcode
 */

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <lumiflux/export.h>
#include <lumiflux/parameters.h>
#include <lumiflux/types.h>

namespace Tevara::Lumiflux {

class GraphicBuffer;

/** A video compression format. The library only compares values for equality. */
enum class CodecType : std::int32_t {
    Unknown = 0,
    H264 = 1,
    H265 = 2,
    VP8 = 3,
    VP9 = 4,
    AV1 = 5,
    MPEG4 = 6,
    H263 = 7,
};

/** A frame size in pixels. */
struct Size {
    std::int32_t width = 0;  ///< pixels
    std::int32_t height = 0; ///< pixels
};

/** The smallest and largest frame size a codec accepts. */
struct SizeRange {
    Size min; ///< smallest accepted size
    Size max; ///< largest accepted size
};

/** One codec, as listed by a codec manager. */
struct VideoCodecInfo {
    CodecType type = CodecType::Unknown; ///< the compression format
    bool encoder = false;                ///< true for an encoder, false for a decoder
    std::string id;                      ///< the key by which the codec is addressed everywhere
    std::int32_t priority = 0;           ///< larger is preferred; in the root list it includes the module's share
    std::int32_t maxInstances = 0;       ///< how many instances may exist at once
    bool hw = false;                     ///< true for a hardware codec
};

/** The stream an encoder is asked to produce. */
struct VideoEncoderMetadata {
    CodecType codecType = CodecType::Unknown; ///< the codec of the stream
    std::int32_t width = 0;                   ///< pixels
    std::int32_t height = 0;                  ///< pixels
    std::int32_t stride = 0;                  ///< row length in pixels; 0 means equal to width
    /** Layout of the frames given to encode(): YUV420Planar (I420) or YUV420SemiPlanar (NV12). */
    PixelFormat format = PixelFormat::YUV420SemiPlanar;
    std::int32_t framerate = 30; ///< frames per second, used for rate control
};

/** The stream a decoder is asked to read. */
struct VideoDecoderMetadata {
    CodecType codecType = CodecType::Unknown; ///< the codec of the stream
    std::int32_t width = 0;                   ///< pixels
    std::int32_t height = 0;                  ///< pixels
    std::int32_t framerate = 30;              ///< frames per second; 0 when unknown
};

/** Identifiers of the parameters that codec plug-ins commonly offer. */
namespace CodecParameter {
constexpr unsigned BitRate = 1;          ///< integer, bits per second
constexpr unsigned KeyFrameInterval = 2; ///< integer, frames between key frames
constexpr unsigned RateControl = 3;      ///< one of a list of texts, for example "cbr,vbr"
constexpr unsigned Profile = 4;          ///< read-only text
} // namespace CodecParameter

/**
 * The geometry of a codec. Implemented by the codec base classes; handed out
 * by shared pointer.
 */
class LUMIFLUX_EXPORT VideoCodecExtendedInfo {
public:
    /** The smallest and largest frame the codec accepts. */
    virtual SizeRange getSizeRange() const = 0;
    /** The alignment the codec needs of frame width and height. */
    virtual Size getAlignment() const = 0;
    virtual ~VideoCodecExtendedInfo();
};

/** One encoded frame, valid only during the listener call that carries it. */
struct EncodedFrame {
    const std::uint8_t* data = nullptr; ///< Annex B for H.264/H.265, one raw frame for VP8/VP9
    std::size_t size = 0;               ///< bytes at `data`
    std::int64_t timestamp = -1;        ///< microseconds, the input frame's timestamp
    bool keyFrame = false;              ///< true for a frame that decodes on its own
};

/**
 * What an encoder reports. Called on the encoder's own streaming thread with
 * the encoder's listenerMutex held. The bundled plug-in's encoders may be
 * destroyed from inside a call (the last reference dropped there): the
 * encoder then stops without waiting for the thread the call runs on, and
 * nothing more is reported. A plug-in that cannot do this says so.
 */
class LUMIFLUX_EXPORT VideoEncoderListener {
public:
    virtual ~VideoEncoderListener();
    /** One encoded frame, in output order. */
    virtual void onEncodedFrame(const EncodedFrame& frame) = 0;
    /** The encoder failed; it delivers nothing more until it is stopped and started again. */
    virtual void onEncoderError(const std::string& message) = 0;
    /** Every frame given before eos() has been delivered. */
    virtual void onEncoderEos() = 0;
};

/**
 * What a decoder reports. Called on the decoder's own streaming thread with
 * the decoder's listenerMutex held. The bundled plug-in's decoders may be
 * destroyed from inside a call (the last reference dropped there): the
 * decoder then stops without waiting for the thread the call runs on, and
 * nothing more is reported. A plug-in that cannot do this says so.
 */
class LUMIFLUX_EXPORT VideoDecoderListener {
public:
    virtual ~VideoDecoderListener();
    /** One decoded frame; the buffer may be kept as long as the application likes. */
    virtual void onDecodedFrame(const std::shared_ptr<GraphicBuffer>& frame) = 0;
    /** The decoder failed (for example on a stream it cannot read). */
    virtual void onDecoderError(const std::string& message) = 0;
    /** Every access unit given before drain() has been decoded and delivered. */
    virtual void onDecoderEos() = 0;
};

/**
 * One encoder instance. Its operations are called from one application thread
 * at a time; results come back through the listener. Operations return false
 * when the encoder is in the wrong state or the input is refused, and log why.
 */
class LUMIFLUX_EXPORT VideoEncoder {
public:
    virtual ~VideoEncoder();

    /** Sets the stream to produce. Only before start(); false when not supported. */
    virtual bool configure(const VideoEncoderMetadata& metadata) = 0;
    /** Starts encoding with the configured stream and the current parameters. */
    virtual bool start() = 0;
    /**
     * Queues one frame of the configured size and layout; its timestamp is
     * the frame's. `forceKeyFrame` makes this frame a key frame. False (and a
     * log line) for a frame of the wrong size or layout, or before start().
     */
    virtual bool encode(const std::shared_ptr<GraphicBuffer>& frame, bool forceKeyFrame) = 0;
    /** Drops every frame queued but not yet delivered; the encoder stays started. */
    virtual bool flush() = 0;
    /** Stops encoding without delivering what is pending; configure() may be called again. */
    virtual bool stop() = 0;
    /**
     * Sets a parameter by identifier (see CodecParameter) through the
     * instance's parameter set. Values are validated against their range; a
     * parameter that cannot change while started is refused then.
     */
    virtual bool setParameter(unsigned id, const std::string& value) = 0;
    /** A parameter's current text, or "" for an unknown identifier. */
    virtual std::string getParameter(unsigned id) const = 0;
    /** The instance's parameters, for their identifiers and ranges. */
    virtual const Internal::ParameterSet& parameters() const = 0;

    /** The codec this instance belongs to. */
    virtual const VideoCodecInfo& getInfo() const = 0;
    /** The codec's geometry, as a separately owned copy. */
    virtual std::shared_ptr<VideoCodecExtendedInfo> getExtendedInfo() const = 0;
    /** Whether the codec can encode a stream of this type and size. */
    virtual bool supports(const VideoEncoderMetadata& metadata) const = 0;
    /** Frames given to encode() and not yet delivered. */
    virtual int pendingFrames() const = 0;
    /** Ends the stream: pending frames are delivered, then onEncoderEos(). */
    virtual void eos() = 0;

    /**
     * Sets the listener (not owned; null to remove it). Takes listenerMutex,
     * so once it returns no call to the old listener is running. Any thread.
     */
    void lockAndSetListener(VideoEncoderListener* newListener);

protected:
    VideoEncoder();

    VideoEncoderListener* listener = nullptr; ///< read and called only under listenerMutex
    std::recursive_mutex listenerMutex; ///< guards `listener`; recursive so that a callback may change the listener
};

/**
 * One decoder instance. Its operations are called from one application thread
 * at a time; frames come back through the listener.
 */
class LUMIFLUX_EXPORT VideoDecoder {
public:
    virtual ~VideoDecoder();

    /** Sets the stream to read. Only before start(); false when not supported. */
    virtual bool configure(const VideoDecoderMetadata& metadata) = 0;
    /** Starts decoding. */
    virtual bool start() = 0;
    /**
     * Queues one access unit (Annex B for H.264/H.265, one frame for VP8)
     * with its timestamp in microseconds. The bytes are copied. False before
     * start() or for empty input; undecodable input is reported through
     * onDecoderError().
     */
    virtual bool decode(const std::uint8_t* data, std::size_t size, std::int64_t timestamp) = 0;
    /** Ends the stream: every queued unit is decoded and delivered, then onDecoderEos(). */
    virtual bool drain() = 0;
    /** Drops every unit queued but not yet delivered; the decoder stays started. */
    virtual bool flush() = 0;
    /** Stops decoding without delivering what is pending. */
    virtual bool stop() = 0;
    /** Sets a parameter by identifier through the instance's parameter set. */
    virtual bool setParameter(unsigned id, const std::string& value) = 0;
    /** A parameter's current text, or "" for an unknown identifier. */
    virtual std::string getParameter(unsigned id) const = 0;
    /** The instance's parameters, for their identifiers and ranges. */
    virtual const Internal::ParameterSet& parameters() const = 0;

    /** The codec this instance belongs to. */
    virtual const VideoCodecInfo& getInfo() const = 0;
    /** The codec's geometry, as a separately owned copy. */
    virtual std::shared_ptr<VideoCodecExtendedInfo> getExtendedInfo() const = 0;
    /** Whether the codec can decode a stream of this type and size. */
    virtual bool supports(const VideoDecoderMetadata& metadata) const = 0;

    /** Sets the listener (not owned; null to remove it) under listenerMutex. Any thread. */
    void lockAndSetListener(VideoDecoderListener* newListener);

protected:
    VideoDecoder();

    VideoDecoderListener* listener = nullptr; ///< read and called only under listenerMutex
    std::recursive_mutex listenerMutex; ///< guards `listener`; recursive so that a callback may change the listener
};

/**
 * The codecs of the device, or of one plug-in. Queries report failure by
 * false or an empty pointer, without a message. Callable from any thread
 * once init() has returned.
 */
class LUMIFLUX_EXPORT CodecManager {
public:
    virtual ~CodecManager();
    /** Builds the codec list; true on success. */
    virtual bool init() = 0;
    /** Whether an encoder of `type` (hardware only when `hw`) can be created now. */
    virtual bool videoEncoderAvailable(CodecType type, bool hw) = 0;
    /** Whether a decoder of `type` (hardware only when `hw`) can be created now. */
    virtual bool videoDecoderAvailable(CodecType type, bool hw) = 0;
    /** An encoder of the first available codec of `type` in preference order, or null. */
    virtual std::shared_ptr<VideoEncoder> createVideoEncoder(CodecType type, bool hw) = 0;
    /** A decoder of the first available codec of `type` in preference order, or null. */
    virtual std::shared_ptr<VideoDecoder> createVideoDecoder(CodecType type, bool hw) = 0;
    /** Every codec, in preference order. */
    virtual std::vector<VideoCodecInfo> listCodecs() const = 0;
    /** Whether an instance of codec `id` can be created now (a hint: it may be gone a moment later). */
    virtual bool isCodecIdAvailable(const std::string& id) const = 0;
    /** An encoder of codec `id`, or null. */
    virtual std::shared_ptr<VideoEncoder> createVideoEncoderById(const std::string& id) = 0;
    /** A decoder of codec `id`, or null. */
    virtual std::shared_ptr<VideoDecoder> createVideoDecoderById(const std::string& id) = 0;
    /** The geometry of codec `id`, or null (also while all its instances are in use). */
    virtual std::shared_ptr<VideoCodecExtendedInfo> getVideoCodecExtendedInfo(const std::string& id) = 0;
    /** Whether decoder `id` supports `metadata` (and is hardware, when `hw`). */
    virtual bool videoDecoderSupports(const std::string& id, const VideoDecoderMetadata& metadata, bool hw) = 0;
    /** Whether encoder `id` supports `metadata` (and is hardware, when `hw`). */
    virtual bool videoEncoderSupports(const std::string& id, const VideoEncoderMetadata& metadata, bool hw) = 0;
};

} // namespace Tevara::Lumiflux

/**
 * The process-wide root codec manager over every plug-in, initialised on the
 * first call. Never free it. Any thread.
 */
extern "C" LUMIFLUX_EXPORT Tevara::Lumiflux::CodecManager* LumifluxCodecManager();
