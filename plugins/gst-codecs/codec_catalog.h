#pragma once

// The codecs this module offers: every video encoder and decoder of the
// GStreamer registry whose format the library knows, each on one element,
// with how its parameters reach the element's properties.

#include <string>
#include <utility>
#include <vector>

#include <lumiflux/codec.h>

namespace Tevara::Lumiflux::GstCodecs {

/** How one parameter reaches the codec element. */
struct ParameterBinding {
    enum class Kind {
        Integer,  ///< an IntParameter within [min, max], written as value / divisor
        Choice,   ///< one of `choices`: an enumeration's nicks, or named control values
        ReadOnly, ///< known from the negotiated stream only
    };
    unsigned id;
    Kind kind;
    std::string property;              ///< element property; empty for ReadOnly
    std::vector<std::string> controls; ///< fields of a structure property (V4L2 controls); empty: the property itself
    int min = 0;
    int max = 0;
    int divisor = 1;                                  ///< the property's unit in parameter units (kbit/s: 1000)
    std::string initial;                              ///< first text of the parameter
    std::vector<std::pair<std::string, int>> choices; ///< Choice: allowed texts and the values they stand for
};

/** One codec on one element. */
struct CodecEntry {
    std::string id;
    CodecType type = CodecType::Unknown;
    bool encoder = false;
    bool hw = false;
    std::string element;     ///< the codec element's factory name
    std::string parser;      ///< a parser element after an encoder / before a decoder; may be empty
    std::string encodedCaps; ///< caps of the encoded side
    int priority = 0;        ///< within the module: hardware above software, then quality, then rank
    int maxInstances = 0;
    SizeRange sizeRange;
    Size alignment{2, 2};
    std::vector<std::pair<std::string, std::string>> fixedProperties; ///< set on the element as given
    std::vector<ParameterBinding> parameters;
    /** The element holds no frames, but its drain at the end of the stream misbehaves: the end goes around it. */
    bool endAroundElement = false;
};

/**
 * Every codec of the registry that this machine can run: each candidate
 * element is instantiated and tried with a test frame; those that fail are
 * left out with one debug line each. Ids are unique; the order is the
 * registry's.
 */
std::vector<CodecEntry> discoverCodecs();

} // namespace Tevara::Lumiflux::GstCodecs
