#pragma once

/**
 * @file gst_graphic_buffer.h
 * Graphic buffers over GStreamer buffers, their mapped views, and the factory
 * through which cameras, codecs and the player make them.
 *
 * Lifetime in short: a GstGraphicBuffer and each view hold their own
 * reference on the GStreamer buffer, so a view stays valid after the graphic
 * buffer is gone. The GstVideoInfo they point at is not owned by them; the
 * code that makes graphic buffers should go through GraphicBufferFactory,
 * whose buffers and views keep a private copy of it alive themselves.
 */

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/export.h>
#include <lumiflux/graphic_buffer.h>

namespace Tevara::Lumiflux {

/**
 * A planar view of a GStreamer buffer, mapped for reading. Holds its own
 * reference on the buffer; unmaps and releases it when destroyed. The video
 * information is not owned and must outlive the view.
 */
struct LUMIFLUX_EXPORT GstFrame : public Frame {
    /**
     * Adds a reference on `buffer`; maps nothing yet. A null buffer or null
     * info gives a view whose map() fails. Any thread.
     */
    GstFrame(GstBuffer* buffer, GstVideoInfo* info);
    ~GstFrame();
    GstFrame(const GstFrame&) = delete;
    GstFrame& operator=(const GstFrame&) = delete;

    /**
     * Maps the buffer for reading with the video information and fills the
     * record: "YU12" for I420, "BX24" for xRGB and ARGB, "NV12", "NV21".
     * Returns false when mapping fails or the layout is none of these (the
     * frame then stays mapped until the view is destroyed). Calling it again
     * maps afresh. Not locked: one thread at a time per view.
     */
    bool map();

    GstBuffer* buffer;   ///< one reference owned by the view
    GstVideoInfo* info;  ///< not owned
    GstVideoFrame frame; ///< the mapping, valid while `mapped`
    bool mapped = false; ///< set by a successful gst_video_frame_map
};

/**
 * A YCbCr view of a GStreamer buffer, mapped for reading; lifetime as for
 * GstFrame. The constructor sets width, height and timestamp.
 */
struct LUMIFLUX_EXPORT GstYCbCrFrame : public YCbCrFrame {
    /**
     * Adds a reference on `buffer`; takes width and height from `info` and
     * the timestamp from the presentation time. A null buffer or null info
     * gives a view whose map() fails. Any thread.
     */
    GstYCbCrFrame(GstBuffer* buffer, GstVideoInfo* info);
    ~GstYCbCrFrame();
    GstYCbCrFrame(const GstYCbCrFrame&) = delete;
    GstYCbCrFrame& operator=(const GstYCbCrFrame&) = delete;

    /**
     * Maps the buffer for reading and fills the luma and chroma pointers.
     * Only NV12 (cr = cb + 1, chromaStep 2) and I420 (chromaStep 1) are
     * accepted; returns false otherwise or when mapping fails. Calling it
     * again maps afresh. Not locked: one thread at a time per view.
     */
    bool map();

    GstBuffer* buffer;   ///< one reference owned by the view
    GstVideoInfo* info;  ///< not owned
    GstVideoFrame frame; ///< the mapping, valid while `mapped`
    bool mapped = false; ///< set by a successful gst_video_frame_map
};

/**
 * A graphic buffer over a GStreamer buffer. Its format is YCbCrFlexible, or
 * Invalid when it was given no buffer or no video information.
 *
 * The constructor brings `info` into line with the buffer's real layout: when
 * the buffer carries a GstVideoMeta, its width, height, plane offsets and
 * strides are written into `info`, so that mapping uses padded strides. So
 * `info` is written by every construction and must not be shared by buffers
 * constructed on several threads at once; it must outlive the buffer and
 * every view mapped from it. GraphicBufferFactory takes care of both.
 *
 * Not locked. Views may be mapped from several threads at once: each view
 * maps its own frame.
 */
class LUMIFLUX_EXPORT GstGraphicBuffer : public Internal::BaseGraphicBuffer {
public:
    /**
     * Takes a reference on `buffer`. With `copyDmaBuf` and DMA-buf memory in
     * the buffer's first block, holds a deep copy in ordinary memory instead
     * and leaves the caller's buffer without an extra reference. A
     * "timestamp/x-unix" reference timestamp meta, when present, is written
     * into the buffer's presentation time and used as the timestamp. A null
     * buffer or info gives an empty buffer (format Invalid, timestamp -1)
     * whose map operations return empty pointers.
     */
    GstGraphicBuffer(GstBuffer* buffer, GstVideoInfo* info, bool copyDmaBuf, int rotation);
    /** As above with rotation 0. */
    GstGraphicBuffer(GstBuffer* buffer, GstVideoInfo* info, bool copyDmaBuf);
    /** As above with copyDmaBuf false and rotation 0. */
    GstGraphicBuffer(GstBuffer* buffer, GstVideoInfo* info);
    ~GstGraphicBuffer() override;
    GstGraphicBuffer(const GstGraphicBuffer&) = delete;
    GstGraphicBuffer& operator=(const GstGraphicBuffer&) = delete;

    /** A mapped GstYCbCrFrame (NV12 or I420), or an empty pointer. Any thread. */
    std::shared_ptr<YCbCrFrame> mapYCbCr() override;
    /** A mapped GstFrame, or an empty pointer when empty or unsupported. Any thread. */
    std::shared_ptr<Frame> mapFrame() override;
    /** The rotation in degrees as passed by the creator, kept as 16 bits unsigned (-90 reads 65446). */
    int rotation() const override;

    GstBuffer* buffer = nullptr;       ///< one reference owned by this object
    GstVideoInfo* info = nullptr;      ///< not owned
    std::uint16_t rotationDegrees = 0; ///< degrees as passed by the creator
};

/**
 * Makes graphic buffers whose video information lives as long as they do.
 *
 * The factory holds an immutable GstVideoInfo. create() gives every buffer
 * its own copy of it, owned jointly by the buffer and every view mapped from
 * it, so a view stays valid after its buffer, the factory and the pipeline
 * are gone, and buffers made at once on several threads (each writing its own
 * buffer's video-meta layout into its copy) never share mutable state.
 *
 * Threads: fromCaps(), fromInfo(), create() and info() may be called from any
 * thread, create() concurrently on one factory. A factory may be destroyed
 * while buffers made by it still live.
 */
class LUMIFLUX_EXPORT GraphicBufferFactory {
public:
    /** One plane of a frame in the application's own memory (see fromMemory()). */
    struct Plane {
        const std::uint8_t* data = nullptr; ///< first byte of the plane's first row
        std::uint32_t stride = 0;           ///< bytes between the starts of two rows, at least the row's bytes
    };

    /**
     * A graphic buffer over a frame in the application's own memory, so that
     * an application can feed an encoder with its own bytes and no GStreamer
     * call. Initialises GStreamer itself when the application has not.
     *
     * A plane needs `stride * (rows - 1) + row bytes` readable bytes; its
     * stride may be larger than the row (padding is skipped) but at most
     * 65535, which is what a mapped view can report.
     *
     * @param format PixelFormat::YUV420SemiPlanar (NV12) or
     *        PixelFormat::YUV420Planar (I420).
     * @param width frame width in pixels: even, from 2 to 65534.
     * @param height frame height in pixels: even, from 2 to 65534.
     * @param planes in this order, each row `width` bytes unless said
     *        otherwise. NV12, two planes: Y, `height` rows of `width`
     *        samples; Cb and Cr interleaved (Cb first), `height / 2` rows of
     *        `width / 2` pairs, `width` bytes. I420, three planes: Y as for
     *        NV12; Cb, then Cr, each `height / 2` rows of `width / 2`
     *        samples, `width / 2` bytes.
     * @param timestamp presentation time in microseconds, or -1 when unknown;
     *        an encoder stamps its output with it.
     * @param release empty: the pixels are copied before the call returns,
     *        and the memory is the caller's again at once. Set: the buffer
     *        wraps the memory without a copy, read-only; the memory must
     *        stay valid and unchanged until `release` runs. It runs exactly
     *        once, when the last holder lets go (the buffer, any view mapped
     *        from it, and any copy an encoder still queues), on the thread
     *        that lets go: possibly an encoder's streaming thread. An
     *        exception it throws is logged and dropped.
     * @return a buffer of format YCbCrFlexible with this size and timestamp
     *         and rotation 0. Empty, with an error line in the log, for an
     *         unsupported format, a zero, odd or too large size, a wrong
     *         number of planes, a null plane, a stride smaller than its row
     *         or above 65535, or when GStreamer cannot be initialised; on
     *         failure `release` is never called and the memory stays the
     *         caller's.
     *
     * Threads: any thread, concurrently.
     */
    static std::shared_ptr<GraphicBuffer> fromMemory(PixelFormat format, std::uint32_t width, std::uint32_t height,
                                                     const std::vector<Plane>& planes, std::int64_t timestamp = -1,
                                                     std::function<void()> release = {});

    /**
     * A factory for fixed raw video caps ("video/x-raw" with every field
     * fixed). Null, with a log line, when caps are null, not fixed, or not
     * raw video.
     */
    static std::shared_ptr<GraphicBufferFactory> fromCaps(const GstCaps* caps);
    /**
     * A factory for a copy of `info`. Null, with a log line, when `info` was
     * never initialised (no format information).
     */
    static std::shared_ptr<GraphicBufferFactory> fromInfo(const GstVideoInfo& info);

    /**
     * A graphic buffer over `buffer` (adds a reference; zero copy unless
     * copyDmaBuf and DMA-buf memory). The video information it and its views
     * use stays alive as long as the result or any view mapped from it lives,
     * even after the factory is gone. Null buffer -> an empty
     * GstGraphicBuffer. Thread-safe.
     */
    std::shared_ptr<GraphicBuffer> create(GstBuffer* buffer, bool copyDmaBuf = false, int rotation = 0) const;

    /** The factory's video information, as given; never changes. */
    const GstVideoInfo& info() const;

    /**
     * Whether `caps` describe the same video information as this factory, so
     * that a producer can keep its factory until the caps change. False for
     * null, unfixed or non-raw caps.
     */
    bool matches(const GstCaps* caps) const;

private:
    // Only members can make a key: `{}` does not convert to it.
    struct Key {
        explicit Key() = default;
    };

public:
    /** Only for fromCaps() and fromInfo(), which hold the key. */
    GraphicBufferFactory(Key, const GstVideoInfo& info);

private:
    const GstVideoInfo videoInfo;
};

} // namespace Tevara::Lumiflux
