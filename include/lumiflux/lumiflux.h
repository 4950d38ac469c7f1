#pragma once

/**
 * @file lumiflux.h
 * Everything an application or a plug-in needs.
 */

#include <lumiflux/camera.h>
#include <lumiflux/camera_base.h>
#include <lumiflux/codec.h>
#include <lumiflux/codec_base.h>
#include <lumiflux/export.h>
#include <lumiflux/graphic_buffer.h>
#include <lumiflux/gst_graphic_buffer.h>
#include <lumiflux/h264_reader.h>
#include <lumiflux/log.h>
#include <lumiflux/media_info.h>
#include <lumiflux/parameters.h>
#include <lumiflux/player.h>
#include <lumiflux/plugin.h>
#include <lumiflux/sysinfo.h>
#include <lumiflux/types.h>
#include <lumiflux/video_stream_parser.h>
