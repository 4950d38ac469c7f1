#pragma once

/**
 * @file graphic_buffer.h
 * The library's handle on one video frame in memory, and the mapped views of
 * its pixels.
 *
 * Layouts. Frames from this library's cameras, codecs and player are 4:2:0
 * YCbCr, one byte per sample, in one of two layouts, for a frame of w x h
 * pixels (chroma sizes round up for odd sizes):
 *
 * | Layout | Plane | Samples per row | Bytes per row | Rows |
 * |---|---|---|---|---|
 * | NV12 | 0: Y | w | w | h |
 * | NV12 | 1: Cb and Cr interleaved, Cb first | (w+1)/2 of each | 2 x ((w+1)/2), so w for even w | (h+1)/2 |
 * | I420 | 0: Y | w | w | h |
 * | I420 | 1: Cb, 2: Cr | (w+1)/2 | (w+1)/2 | (h+1)/2 |
 *
 * A row may be padded: rows start `stride` bytes apart, and the stride is at
 * least the row's bytes. Frame::Plane::width of NV12's plane 1 is w, the
 * bytes of a row (as two bytes per pair of chroma samples); for an odd w that
 * is one less than the row holds, a fixed behaviour of this library.
 *
 * Which layout: a buffer's `format` is YCbCrFlexible for both (see
 * GraphicBuffer::format), so the layout is read from a mapped view: mapFrame()
 * gives Frame::fourcc "NV12" or "YU12" (I420); mapYCbCr() gives chromaStep 2
 * (NV12, cr == cb + 1) or 1 (I420). Where frames come from fixes it too:
 * - a camera delivers the PixelFormat given to Camera::startCapture
 *   (YUV420SemiPlanar is NV12, YUV420Planar is I420);
 * - the bundled codec plug-in's decoders always deliver NV12;
 * - the player's VideoSink always receives NV12;
 * - GraphicBufferFactory::fromMemory keeps the layout it was given.
 * Code that reads through YCbCrFrame (y, cb, cr, strides, chromaStep) reads
 * both layouts alike.
 */

#include <cstdint>
#include <memory>

#include <lumiflux/export.h>
#include <lumiflux/types.h>

namespace Tevara::Lumiflux {

/**
 * A planar view of a mapped frame. Only the planes that the layout named by
 * `fourcc` uses carry meaning; go by `fourcc`, not by the other planes.
 */
struct Frame {
    /** One plane of the frame. */
    struct Plane {
        /** Samples per row; for NV12's interleaved plane 1, the frame width (bytes, see the file comment). */
        std::uint16_t width;
        std::uint16_t height; ///< rows
        std::uint16_t stride; ///< bytes between the starts of two rows
        std::uint8_t* data;   ///< first byte of the plane
    };

    /** Layout, FourCC packed with the first character in the lowest byte: "YU12", "BX24", "NV12" or "NV21". */
    std::uint32_t fourcc;
    /** Planes 0 to 2 as the layout uses them; plane 3 is never filled by this library. */
    Plane planes[4];
    /**
     * Presentation time in microseconds (nanoseconds divided by 1000,
     * truncating). Unsigned: an unknown presentation time reads as
     * 18446744073709551 (GStreamer's "none" divided by 1000), where the
     * buffer's own timestamp says -1.
     */
    std::uint64_t timestamp;
};

/** A YCbCr view of a mapped frame: separate luma and chroma pointers. */
struct YCbCrFrame {
    std::uint8_t* y;          ///< first luma sample
    std::uint8_t* cb;         ///< first blue-difference sample
    std::uint8_t* cr;         ///< first red-difference sample
    std::uint16_t yStride;    ///< bytes between two rows of luma
    std::uint16_t cStride;    ///< bytes between two rows of chroma
    std::uint16_t chromaStep; ///< bytes between two neighbouring chroma samples of one kind
    /** Frame width in pixels: luma samples per row; each chroma row has (width + 1) / 2 samples of each kind. */
    std::uint16_t width;
    /** Frame height in pixels: luma rows; chroma has (height + 1) / 2 rows. */
    std::uint16_t height;
    std::uint64_t timestamp; ///< presentation time in microseconds; unknown as for Frame::timestamp
};

/**
 * One video frame handed to applications by cameras, codecs and the player.
 * The fields describe the frame; the map operations give access to its
 * pixels. A buffer is not locked: its fields must not be written while
 * another thread reads them. Its map operations only read the buffer, so
 * several threads may map views of one buffer at once; each view is used by
 * one thread at a time.
 */
class LUMIFLUX_EXPORT GraphicBuffer {
public:
    virtual ~GraphicBuffer();

    /** A YCbCr view of the pixels, or an empty pointer when the frame has none. */
    virtual std::shared_ptr<YCbCrFrame> mapYCbCr() = 0;
    /** An implementation-defined mapping; this library's buffers return an empty pointer. */
    virtual std::shared_ptr<void> map() = 0;
    /** A planar view of the pixels, or an empty pointer when the frame cannot be mapped. */
    virtual std::shared_ptr<Frame> mapFrame() = 0;
    /**
     * Rotation of the frame in degrees, as its creator gave it (0 to 65535; a
     * negative value wraps). Frames from the bundled camera plug-in, the
     * codecs, the player and GraphicBufferFactory::fromMemory say 0: a
     * camera's frames come as its sensor delivers them, and
     * CameraInfo::mountAngle says how to turn them upright.
     */
    virtual int rotation() const = 0;

    std::uint16_t width = 0;  ///< frame width in pixels
    std::uint16_t height = 0; ///< frame height in pixels
    /** Presentation time in microseconds; -1 when unknown. */
    std::int64_t timestamp = -1;
    /**
     * Pixel format; Invalid for an empty buffer. Every non-empty buffer of
     * this library (GstGraphicBuffer) says YCbCrFlexible, whether its layout
     * is NV12 or I420: the field tells that the buffer maps to the views
     * below, which name the layout (Frame::fourcc, YCbCrFrame::chromaStep);
     * the map operations refuse any other value. It never says
     * YUV420Planar or YUV420SemiPlanar.
     */
    PixelFormat format = PixelFormat::Invalid;
    /** Owned by buffers of other implementations; always 0 in this library's buffers. */
    std::uint64_t reserved64 = 0;
    /** Owned by buffers of other implementations; always 0 in this library's buffers. */
    std::uint32_t reserved32 = 0;

protected:
    GraphicBuffer() = default;
    /** Copies the fields; for implementations only. */
    GraphicBuffer(const GraphicBuffer&) = default;
    /** Copies the fields; for implementations only. */
    GraphicBuffer& operator=(const GraphicBuffer&) = default;
};

namespace Internal {

/**
 * Base for graphic buffers of plug-ins: every operation has a default, so an
 * implementation overrides only what it offers. The map operations return an
 * empty pointer and rotation() returns 0.
 */
class LUMIFLUX_EXPORT BaseGraphicBuffer : public GraphicBuffer {
public:
    ~BaseGraphicBuffer() override;

    /** Returns an empty pointer. */
    std::shared_ptr<YCbCrFrame> mapYCbCr() override;
    /** Returns an empty pointer. */
    std::shared_ptr<void> map() override;
    /** Returns an empty pointer. */
    std::shared_ptr<Frame> mapFrame() override;
    /** Returns 0. */
    int rotation() const override;
};

} // namespace Internal

} // namespace Tevara::Lumiflux
