#pragma once

// Maps a view (GstFrame or GstYCbCrFrame) and hands it out as a shared
// pointer to its record. The shared pointer's control block also holds
// `keepAlive`, whatever the view's GstVideoInfo* points into, so that the
// video information outlives the view no matter who lets go of what first.

#include <memory>
#include <utility>

#include <gst/gst.h>
#include <gst/video/video.h>

namespace Tevara::Lumiflux::Internal {

template <typename View, typename Record>
std::shared_ptr<Record> mapView(GstBuffer* buffer, GstVideoInfo* info, std::shared_ptr<const void> keepAlive)
{
    struct Holder {
        Holder(std::shared_ptr<const void> keep, GstBuffer* b, GstVideoInfo* i) : keepAlive(std::move(keep)), view(b, i)
        {
        }
        // Declared first, so destroyed last: the view unmaps while the
        // information it was mapped with still exists.
        std::shared_ptr<const void> keepAlive;
        View view;
    };
    auto holder = std::make_shared<Holder>(std::move(keepAlive), buffer, info);
    if (!holder->view.map())
        return {};
    return std::shared_ptr<Record>(holder, &holder->view);
}

} // namespace Tevara::Lumiflux::Internal
