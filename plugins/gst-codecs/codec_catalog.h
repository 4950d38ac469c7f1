#pragma once

// The software codecs this module can offer, each on one GStreamer element,
// and how their parameters map onto the element's properties.

#include <string>
#include <vector>

#include <lumiflux/codec.h>

namespace Tevara::Lumiflux::GstCodecs {

/** How one parameter reaches the codec element. */
struct ParameterBinding {
    enum class Kind {
        Integer,  ///< an IntParameter within [min, max], written as value / divisor
        Choice,   ///< the nicks of an enumeration property
        ReadOnly, ///< known from the negotiated stream only
    };
    unsigned id;
    Kind kind;
    std::string property; ///< element property; empty for ReadOnly
    int min = 0;
    int max = 0;
    int divisor = 1;     ///< the property's unit in parameter units (kbit/s: 1000)
    std::string initial; ///< first text of the parameter
};

/** One codec on one element. */
struct CodecEntry {
    std::string id;
    CodecType type;
    bool encoder;
    std::string element;     ///< the codec element's factory name
    std::string parser;      ///< a parser element after an encoder / before a decoder; may be empty
    std::string encodedCaps; ///< caps of the encoded side
    int priority;            ///< within the module; the module places all of them after hardware codecs
    SizeRange sizeRange;
    std::vector<std::pair<std::string, std::string>> fixedProperties; ///< set on the element as given
    std::vector<ParameterBinding> parameters;
};

/** Every codec the module knows, whether or not its elements are installed. */
const std::vector<CodecEntry>& codecCatalog();

/** Whether every element the entry needs is installed. */
bool elementsAvailable(const CodecEntry& entry);

/** The entry with this id, or null. */
const CodecEntry* findCodec(const std::string& id);

} // namespace Tevara::Lumiflux::GstCodecs
