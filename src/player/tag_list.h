#pragma once

// Turning a GStreamer tag list into typed tag values.

#include <functional>
#include <string>

#include <gst/gst.h>

#include <lumiflux/media_info.h>

namespace Tevara::Lumiflux::Internal {

/**
 * Calls `store` with the first value of every tag of `tags` whose GLib type is
 * boolean, int, uint, int64, uint64, float, double or string; tags of any
 * other type are logged and left out.
 */
void copyTags(const GstTagList* tags, const std::function<void(const std::string&, TagValue)>& store);

} // namespace Tevara::Lumiflux::Internal
