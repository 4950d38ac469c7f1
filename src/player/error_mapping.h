#pragma once

// GStreamer's errors in the player's terms.

#include <glib.h>

#include <lumiflux/types.h>

namespace Tevara::Lumiflux::Internal {

/**
 * Resource errors by code (not found, busy, read, seek, anything else),
 * stream errors as StreamFailed, every other domain as Unknown.
 */
PlayerError playerErrorFromGError(const GError* error);

} // namespace Tevara::Lumiflux::Internal
