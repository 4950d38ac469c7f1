#pragma once

// Applying the application's HTTP request headers and the HTTP log level to
// GStreamer elements (HTTP sources and adaptive demuxers).

#include <gst/gst.h>

#include <lumiflux/media_info.h>

namespace Tevara::Lumiflux::Internal {

/**
 * Applies `headers` to `element`: "User-Agent", "Connection: close" and
 * "Accept-Encoding: identity" become properties where the element has them;
 * every other header goes into the element's "auth-headers" structure, or
 * its "extra-headers" structure when it has no "auth-headers". A header with
 * CR, LF or NUL in its name or value is refused. An empty list changes
 * nothing.
 */
void updateHttpHeaders(GstElement* element, const HttpHeaders& headers);

/** Sets "http-log-level" from LUMIFLUX_HTTP_LOG_LEVEL (0..3) where the element has it. */
void setupHttpLogLevel(GstElement* element);

} // namespace Tevara::Lumiflux::Internal
