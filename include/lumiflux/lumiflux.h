#pragma once

/**
 * @file lumiflux.h
 * Everything an application or a plug-in needs.
 */

#include <lumiflux/export.h>
#include <lumiflux/graphic_buffer.h>
#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/log.h>
#include <lumiflux/media_info.h>
#include <lumiflux/player.h>
#include <lumiflux/plugin.h>
#include <lumiflux/sysinfo.h>
#include <lumiflux/types.h>
