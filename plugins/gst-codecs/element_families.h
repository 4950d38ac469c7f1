#pragma once

// What we know of each family of codec elements: a readable name for ids,
// where it stands in quality, the settings it needs for live frames, and
// the properties (and their units) that its parameters reach.

#include <string>
#include <utility>
#include <vector>

#include <gst/gst.h>

#include "codec_catalog.h"

namespace Tevara::Lumiflux::GstCodecs {

struct ElementFamily {
    std::string name; ///< the <element> part of the codec id
    int quality = 0;  ///< 1 to 9 for elements we know, 0 for others
    bool endAroundElement = false;
    std::string defect; ///< why an element we know must not be offered; empty for usable ones
    std::vector<std::pair<std::string, std::string>> fixedProperties;
    /** Bit rate, key-frame interval and rate control, each only where a property takes it in a known unit. */
    std::vector<ParameterBinding> parameters;
};

/**
 * The family of `element` (an instance of factory `factory`, a codec of
 * `type`). Known software elements by name; hardware ones by their
 * parameter surface (V4L2 controls, or a VA-style bit rate in kbit/s); an
 * element we cannot tell gets no parameters.
 */
ElementFamily describeElement(GstElement* element, const std::string& factory, CodecType type, bool encoder);

} // namespace Tevara::Lumiflux::GstCodecs
