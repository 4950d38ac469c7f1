// GraphicBufferFactory::fromMemory: frames from the application's own memory.

#include <lumiflux/gst_graphic_buffer.h>

#include <cstring>
#include <exception>
#include <sstream>
#include <string>
#include <utility>

#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux {

namespace {

using Internal::Ref;

// Largest stride a mapped view can report (Frame::Plane::stride is 16 bits).
constexpr std::uint32_t maxStride = 0xFFFF;

struct PlaneShape {
    std::uint32_t rowBytes;
    std::uint32_t rows;
};

// The application's release callback, run once when the last plane memory
// that wraps its bytes is freed (each plane holds a share of this object).
class Release {
public:
    explicit Release(std::function<void()> callback) : run(std::move(callback)) {}
    ~Release()
    {
        // Runs inside GStreamer's memory release: nothing may cross back.
        try {
            run();
        } catch (const std::exception& error) {
            LUMIFLUX_LOG(LogLevel::Error, "main ")
                << "the frame's release callback failed: " << error.what() << std::endl;
        } catch (...) {
            LUMIFLUX_LOG(LogLevel::Error, "main ") << "the frame's release callback failed" << std::endl;
        }
    }
    Release(const Release&) = delete;
    Release& operator=(const Release&) = delete;

private:
    std::function<void()> run;
};

// The plane's share of the release travels through GStreamer as user data,
// so it lives on the heap until GStreamer's notification deletes it.
void dropReleaseShare(gpointer share)
{
    delete static_cast<std::shared_ptr<Release>*>(share);
}

// What is wrong with the application's description of its frame, or "" when
// nothing is. Fills `shapes` with each plane's row bytes and rows.
std::string problemWith(PixelFormat format, std::uint32_t width, std::uint32_t height,
                        const std::vector<GraphicBufferFactory::Plane>& planes, std::vector<PlaneShape>& shapes)
{
    std::ostringstream problem;
    if (format != PixelFormat::YUV420SemiPlanar && format != PixelFormat::YUV420Planar) {
        problem << "frames from memory are NV12 (YUV420SemiPlanar) or I420 (YUV420Planar), not " << toString(format);
        return problem.str();
    }
    // 4:2:0 chroma covers two by two pixels: an odd size has no exact layout.
    if (width == 0 || height == 0 || width % 2 != 0 || height % 2 != 0 || width > 0xFFFE || height > 0xFFFE) {
        problem << "a 4:2:0 frame needs an even size from 2x2 to 65534x65534, not " << width << "x" << height;
        return problem.str();
    }
    // NV12 interleaves Cb and Cr: its chroma row has as many bytes as a luma row.
    shapes.push_back({width, height});
    if (format == PixelFormat::YUV420SemiPlanar)
        shapes.push_back({width, height / 2});
    else
        shapes.insert(shapes.end(), 2, {width / 2, height / 2});
    if (planes.size() != shapes.size()) {
        problem << toString(format) << " needs " << shapes.size() << " planes, not " << planes.size();
        return problem.str();
    }
    for (std::size_t index = 0; index < planes.size(); ++index) {
        const auto& plane = planes[index];
        if (plane.data == nullptr || plane.stride < shapes[index].rowBytes || plane.stride > maxStride) {
            problem << "plane " << index << (plane.data == nullptr ? " has no data" : " has a bad stride")
                    << ": rows of " << shapes[index].rowBytes << " bytes need a stride from " << shapes[index].rowBytes
                    << " to " << maxStride << ", not " << plane.stride;
            return problem.str();
        }
    }
    return {};
}

bool initialiseGStreamer()
{
    GError* rawError = nullptr;
    // Safe to repeat: a no-op once the application or another part of the
    // library has initialised GStreamer.
    if (gst_init_check(nullptr, nullptr, &rawError))
        return true;
    Ref<GError> error = Ref<GError>::adopt(rawError);
    LUMIFLUX_LOG(LogLevel::Error, "main ")
        << "cannot initialise GStreamer: " << (error ? error->message : "unknown error") << std::endl;
    return false;
}

// A buffer of the standard layout holding a copy of the planes.
Ref<GstBuffer> copyPlanes(GstVideoInfo& info, const std::vector<GraphicBufferFactory::Plane>& planes,
                          const std::vector<PlaneShape>& shapes)
{
    Ref<GstBuffer> buffer =
        Ref<GstBuffer>::adopt(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr));
    GstVideoFrame frame;
    if (!buffer || !gst_video_frame_map(&frame, &info, buffer.get(), GST_MAP_WRITE))
        return {};
    for (std::size_t index = 0; index < planes.size(); ++index) {
        auto* target = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, index));
        const auto targetStride = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, index));
        for (std::uint32_t row = 0; row < shapes[index].rows; ++row)
            std::memcpy(target + row * targetStride, planes[index].data + std::size_t{row} * planes[index].stride,
                        shapes[index].rowBytes);
    }
    gst_video_frame_unmap(&frame);
    return buffer;
}

// A buffer of one read-only memory block per plane over the caller's bytes,
// with a video meta that gives the planes' offsets and strides.
Ref<GstBuffer> wrapPlanes(const GstVideoInfo& info, const std::vector<GraphicBufferFactory::Plane>& planes,
                          const std::vector<PlaneShape>& shapes, std::function<void()> release)
{
    Ref<GstBuffer> buffer = Ref<GstBuffer>::adopt(gst_buffer_new());
    auto share = std::make_shared<Release>(std::move(release));
    gsize offsets[GST_VIDEO_MAX_PLANES] = {};
    gint strides[GST_VIDEO_MAX_PLANES] = {};
    gsize offset = 0;
    for (std::size_t index = 0; index < planes.size(); ++index) {
        const gsize size = gsize{planes[index].stride} * (shapes[index].rows - 1) + shapes[index].rowBytes;
        // Read-only: GStreamer copies before anything would write to it.
        GstMemory* memory =
            gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, const_cast<std::uint8_t*>(planes[index].data), size, 0,
                                   size, new std::shared_ptr<Release>(share), dropReleaseShare);
        gst_buffer_append_memory(buffer.get(), memory);
        offsets[index] = offset;
        strides[index] = static_cast<gint>(planes[index].stride);
        offset += size;
    }
    gst_buffer_add_video_meta_full(buffer.get(), GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                   GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                   GST_VIDEO_INFO_N_PLANES(&info), offsets, strides);
    return buffer;
}

} // namespace

std::shared_ptr<GraphicBuffer> GraphicBufferFactory::fromMemory(PixelFormat format, std::uint32_t width,
                                                                std::uint32_t height, const std::vector<Plane>& planes,
                                                                std::int64_t timestamp, std::function<void()> release)
{
    std::vector<PlaneShape> shapes;
    const std::string problem = problemWith(format, width, height, planes, shapes);
    if (!problem.empty()) {
        LUMIFLUX_LOG(LogLevel::Error, "main ") << problem << std::endl;
        return {};
    }
    if (!initialiseGStreamer())
        return {};
    GstVideoInfo info;
    gst_video_info_init(&info);
    const GstVideoFormat gstFormat =
        format == PixelFormat::YUV420SemiPlanar ? GST_VIDEO_FORMAT_NV12 : GST_VIDEO_FORMAT_I420;
    if (!gst_video_info_set_format(&info, gstFormat, width, height)) {
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "no video layout for " << width << "x" << height << std::endl;
        return {};
    }
    Ref<GstBuffer> buffer =
        release ? wrapPlanes(info, planes, shapes, std::move(release)) : copyPlanes(info, planes, shapes);
    if (!buffer) {
        LUMIFLUX_LOG(LogLevel::Error, "main ")
            << "cannot make a buffer for a " << width << "x" << height << " frame" << std::endl;
        return {};
    }
    GST_BUFFER_PTS(buffer.get()) =
        timestamp >= 0 ? static_cast<GstClockTime>(timestamp) * GST_USECOND : GST_CLOCK_TIME_NONE;
    return fromInfo(info)->create(buffer.get());
}

} // namespace Tevara::Lumiflux
