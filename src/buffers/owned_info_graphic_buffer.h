#pragma once

#include <memory>

#include <lumiflux/gst_graphic_buffer.h>

namespace Tevara::Lumiflux::Internal {

/**
 * A GstGraphicBuffer that owns its video information jointly with every view
 * mapped from it. GraphicBufferFactory makes these: each gets a private copy
 * of the factory's information, which the base constructor then fits to the
 * buffer's video meta without touching anyone else's copy.
 */
class OwnedInfoGraphicBuffer final : public GstGraphicBuffer {
public:
    OwnedInfoGraphicBuffer(std::shared_ptr<GstVideoInfo> videoInfo, GstBuffer* gstBuffer, bool copyDmaBuf,
                           int rotation);
    ~OwnedInfoGraphicBuffer() override;

    std::shared_ptr<YCbCrFrame> mapYCbCr() override;
    std::shared_ptr<Frame> mapFrame() override;

private:
    std::shared_ptr<GstVideoInfo> ownedInfo;
};

} // namespace Tevara::Lumiflux::Internal
