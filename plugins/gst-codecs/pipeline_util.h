#pragma once

// What the encoder and decoder pipelines share: construction, the bus
// handler, and copying frames.

#include <string>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumiflux/graphic_buffer.h>

#include "codec_catalog.h"
#include <lumiflux/gst_ref.h>

namespace Tevara::Lumiflux::GstCodecs {

/** The elements of one codec pipeline that the codec object talks to. */
struct PipelineParts {
    Internal::Ref<GstElement> pipeline;
    Internal::Ref<GstElement> source; ///< the appsrc
    Internal::Ref<GstElement> codec;  ///< the codec element
    Internal::Ref<GstElement> sink;   ///< the appsink
};

/**
 * Builds, links and returns the pipeline of `entry`, with the entry's fixed
 * properties set on the codec element. Encoders:
 * appsrc ! videoconvert ! codec [! parser] ! capsfilter(encoded caps) ! appsink;
 * decoders: appsrc [! parser] ! codec ! videoconvert ! capsfilter(NV12) ! appsink.
 * False with `error` set when an element is missing or does not link.
 */
bool buildPipeline(const CodecEntry& entry, PipelineParts* parts, std::string* error);

/** Removes the pipeline bus's sync handler; call once the pipeline is in the NULL state. */
void unwatchBus(GstElement* pipeline);

/** "element: message (debug)" of an error message. */
std::string errorText(GstMessage* message);
/** A string field of the first structure of `caps`, or "". */
std::string capsField(const GstCaps* caps, const char* field);

/** Copies a YCbCr view into a mapped NV12 or I420 frame of the same size. */
void copyYCbCr(const YCbCrFrame& in, GstVideoFrame* out);

} // namespace Tevara::Lumiflux::GstCodecs
