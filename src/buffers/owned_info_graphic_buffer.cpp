#include "buffers/owned_info_graphic_buffer.h"

#include <utility>

#include "buffers/view_mapping.h"

namespace Tevara::Lumiflux::Internal {

// The base is constructed before `ownedInfo`, but the parameter keeps the
// information alive for the whole constructor, so the base may write it.
OwnedInfoGraphicBuffer::OwnedInfoGraphicBuffer(std::shared_ptr<GstVideoInfo> videoInfo, GstBuffer* gstBuffer,
                                               bool copyDmaBuf, int rotation)
    : GstGraphicBuffer(gstBuffer, videoInfo.get(), copyDmaBuf, rotation), ownedInfo(std::move(videoInfo))
{
}

OwnedInfoGraphicBuffer::~OwnedInfoGraphicBuffer() = default;

std::shared_ptr<YCbCrFrame> OwnedInfoGraphicBuffer::mapYCbCr()
{
    if (!buffer || !info || format != PixelFormat::YCbCrFlexible)
        return {};
    return mapView<GstYCbCrFrame, YCbCrFrame>(buffer, info, ownedInfo);
}

std::shared_ptr<Frame> OwnedInfoGraphicBuffer::mapFrame()
{
    if (!buffer || !info || format != PixelFormat::YCbCrFlexible)
        return {};
    return mapView<GstFrame, Frame>(buffer, info, ownedInfo);
}

} // namespace Tevara::Lumiflux::Internal
