#pragma once

// Parameters of a codec instance and their way onto the codec element.

#include <string>

#include <gst/gst.h>

#include <lumiflux/parameters.h>

#include "codec_catalog.h"

namespace Tevara::Lumiflux::GstCodecs {

/** A text parameter limited to a list, here the nicks of an enumeration property. */
class ChoiceParameter : public Internal::Parameter, public Internal::DiscreteParameterMixin {
public:
    ChoiceParameter(const std::string& initial, std::vector<std::string> allowedValues);
    std::string range() const override;
    bool validate(const std::string& value) const override;
};

/**
 * Registers the entry's parameters in `set`. Enumeration choices were read
 * from the installed element's own property, so they match what it accepts.
 */
void registerParameters(Internal::ParameterSet& set, const CodecEntry& entry);

/** Writes every bound parameter onto `element`. False, with `error` set, when the element refuses one. */
bool applyParameters(GstElement* element, const Internal::ParameterSet& set, const CodecEntry& entry,
                     std::string* error);

/** Writes one parameter onto `element`; false when it is not bound to a property. */
bool applyParameter(GstElement* element, const Internal::ParameterSet& set, const ParameterBinding& binding);

/** The binding of parameter `id`, or null. */
const ParameterBinding* findBinding(const CodecEntry& entry, unsigned id);

/** Whether the element lets `property` change while playing. */
bool changeableWhilePlaying(GstElement* element, const std::string& property);

} // namespace Tevara::Lumiflux::GstCodecs
