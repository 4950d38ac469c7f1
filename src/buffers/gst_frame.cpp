#include <lumiflux/gst_graphic_buffer.h>

namespace Tevara::Lumiflux {

namespace {

constexpr std::uint32_t code(char a, char b, char c, char d)
{
    return static_cast<std::uint32_t>(fourcc(a, b, c, d));
}

std::uint8_t* planeData(GstVideoFrame* frame, int plane)
{
    return static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame, plane));
}

std::uint16_t planeStride(GstVideoFrame* frame, int plane)
{
    return static_cast<std::uint16_t>(GST_VIDEO_FRAME_PLANE_STRIDE(frame, plane));
}

// What both views do on destruction: unmap only a successful mapping, then
// drop their own buffer reference.
void releaseView(GstVideoFrame* frame, bool mapped, GstBuffer* buffer)
{
    if (mapped)
        gst_video_frame_unmap(frame);
    if (buffer)
        gst_buffer_unref(buffer);
}

// Maps (again) for reading: a second map() replaces the first mapping.
bool mapForReading(GstVideoFrame* frame, bool* mapped, GstBuffer* buffer, GstVideoInfo* info)
{
    if (*mapped) {
        gst_video_frame_unmap(frame);
        *mapped = false;
    }
    if (!buffer || !info || !gst_video_frame_map(frame, info, buffer, GST_MAP_READ))
        return false;
    *mapped = true;
    return true;
}

} // namespace

// The record is cleared although readers go by `fourcc`: planes a layout
// does not use then read as zero instead of indeterminate memory.
GstFrame::GstFrame(GstBuffer* gstBuffer, GstVideoInfo* videoInfo)
    : Frame{}, buffer(gstBuffer ? gst_buffer_ref(gstBuffer) : nullptr), info(videoInfo), frame{}
{
}

GstFrame::~GstFrame()
{
    releaseView(&frame, mapped, buffer);
}

bool GstFrame::map()
{
    if (!mapForReading(&frame, &mapped, buffer, info))
        return false;
    timestamp = GST_BUFFER_PTS(buffer) / 1000;

    const auto width = static_cast<std::uint16_t>(GST_VIDEO_INFO_WIDTH(info));
    const auto height = static_cast<std::uint16_t>(GST_VIDEO_INFO_HEIGHT(info));
    // Chroma planes of subsampled layouts cover odd sizes by rounding up.
    const auto halfWidth = static_cast<std::uint16_t>((width + 1) / 2);
    const auto halfHeight = static_cast<std::uint16_t>((height + 1) / 2);
    planes[0] = {width, height, planeStride(&frame, 0), planeData(&frame, 0)};

    switch (GST_VIDEO_FRAME_FORMAT(&frame)) {
    case GST_VIDEO_FORMAT_I420:
        fourcc = code('Y', 'U', '1', '2');
        planes[1] = {halfWidth, halfHeight, planeStride(&frame, 1), planeData(&frame, 1)};
        planes[2] = {halfWidth, halfHeight, planeStride(&frame, 2), planeData(&frame, 2)};
        return true;
    case GST_VIDEO_FORMAT_xRGB:
    case GST_VIDEO_FORMAT_ARGB:
        fourcc = code('B', 'X', '2', '4');
        return true;
    case GST_VIDEO_FORMAT_NV12:
        fourcc = code('N', 'V', '1', '2');
        planes[1] = {width, halfHeight, planeStride(&frame, 1), planeData(&frame, 1)};
        return true;
    case GST_VIDEO_FORMAT_NV21:
        fourcc = code('N', 'V', '2', '1');
        planes[1] = {width, halfHeight, planeStride(&frame, 1), planeData(&frame, 1)};
        return true;
    default:
        // Stays mapped until destruction; the caller drops the view anyway.
        return false;
    }
}

GstYCbCrFrame::GstYCbCrFrame(GstBuffer* gstBuffer, GstVideoInfo* videoInfo)
    : YCbCrFrame{}, buffer(gstBuffer ? gst_buffer_ref(gstBuffer) : nullptr), info(videoInfo), frame{}
{
    if (buffer && info) {
        width = static_cast<std::uint16_t>(GST_VIDEO_INFO_WIDTH(info));
        height = static_cast<std::uint16_t>(GST_VIDEO_INFO_HEIGHT(info));
        timestamp = GST_BUFFER_PTS(buffer) / 1000;
    }
}

GstYCbCrFrame::~GstYCbCrFrame()
{
    releaseView(&frame, mapped, buffer);
}

bool GstYCbCrFrame::map()
{
    if (!mapForReading(&frame, &mapped, buffer, info))
        return false;
    y = planeData(&frame, 0);
    cb = planeData(&frame, 1);
    yStride = planeStride(&frame, 0);
    cStride = planeStride(&frame, 1);
    chromaStep = static_cast<std::uint16_t>(GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, 1));

    switch (GST_VIDEO_FRAME_FORMAT(&frame)) {
    case GST_VIDEO_FORMAT_NV12:
        // Interleaved chroma: Cr follows each Cb.
        cr = cb + 1;
        return true;
    case GST_VIDEO_FORMAT_I420:
        cr = planeData(&frame, 2);
        return true;
    default:
        return false;
    }
}

} // namespace Tevara::Lumiflux
