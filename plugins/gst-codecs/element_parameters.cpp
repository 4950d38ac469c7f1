#include "element_parameters.h"

#include <algorithm>

#include "core/glib_ref.h"

namespace Tevara::Lumiflux::GstCodecs {

ChoiceParameter::ChoiceParameter(const std::string& initial, std::vector<std::string> allowedValues)
    : Parameter(initial), DiscreteParameterMixin(std::move(allowedValues))
{
}

std::string ChoiceParameter::range() const
{
    return DiscreteParameterMixin::range();
}

bool ChoiceParameter::validate(const std::string& value) const
{
    return DiscreteParameterMixin::validate(value);
}

namespace {

std::vector<std::string> enumNicks(const std::string& elementName, const std::string& property)
{
    std::vector<std::string> nicks;
    GstElement* made = gst_element_factory_make(elementName.c_str(), nullptr);
    if (made == nullptr)
        return nicks;
    // Sinking the floating reference makes it the one the owner releases.
    auto element = Internal::Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(made)));
    GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element.get()), property.c_str());
    if (spec == nullptr || !G_IS_PARAM_SPEC_ENUM(spec))
        return nicks;
    GEnumClass* enumClass = G_PARAM_SPEC_ENUM(spec)->enum_class;
    for (guint i = 0; i < enumClass->n_values; ++i)
        nicks.emplace_back(enumClass->values[i].value_nick);
    return nicks;
}

} // namespace

void registerParameters(Internal::ParameterSet& set, const CodecEntry& entry)
{
    for (const auto& binding : entry.parameters) {
        Internal::Parameter* parameter = nullptr;
        switch (binding.kind) {
        case ParameterBinding::Kind::Integer:
            parameter = new Internal::IntParameter(binding.initial, binding.min, binding.max);
            break;
        case ParameterBinding::Kind::Choice: {
            auto nicks = enumNicks(entry.element, binding.property);
            if (nicks.empty())
                continue;
            const bool known = std::find(nicks.begin(), nicks.end(), binding.initial) != nicks.end();
            parameter = new ChoiceParameter(known ? binding.initial : nicks.front(), std::move(nicks));
            break;
        }
        case ParameterBinding::Kind::ReadOnly:
            parameter = new Internal::ReadOnlyParameter(binding.initial);
            break;
        }
        // The set owns it from here; a refused duplicate stays ours.
        if (!set.registerParameter(binding.id, parameter))
            delete parameter;
    }
}

const ParameterBinding* findBinding(const CodecEntry& entry, unsigned id)
{
    for (const auto& binding : entry.parameters)
        if (binding.id == id)
            return &binding;
    return nullptr;
}

bool applyParameter(GstElement* element, const Internal::ParameterSet& set, const ParameterBinding& binding)
{
    const Internal::Parameter* parameter = set.find(binding.id);
    if (parameter == nullptr || binding.property.empty() ||
        g_object_class_find_property(G_OBJECT_GET_CLASS(element), binding.property.c_str()) == nullptr)
        return false;
    std::string text;
    if (binding.kind == ParameterBinding::Kind::Integer)
        text = std::to_string(static_cast<const Internal::IntParameter*>(parameter)->value() / binding.divisor);
    else
        text = parameter->get();
    // Parses the text by the property's own type, enumeration nicks included.
    gst_util_set_object_arg(G_OBJECT(element), binding.property.c_str(), text.c_str());
    return true;
}

bool applyParameters(GstElement* element, const Internal::ParameterSet& set, const CodecEntry& entry,
                     std::string* error)
{
    for (const auto& binding : entry.parameters) {
        if (binding.kind == ParameterBinding::Kind::ReadOnly || set.find(binding.id) == nullptr)
            continue;
        if (!applyParameter(element, set, binding)) {
            *error = "element " + entry.element + " has no property " + binding.property;
            return false;
        }
    }
    return true;
}

bool changeableWhilePlaying(GstElement* element, const std::string& property)
{
    GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element), property.c_str());
    return spec != nullptr && (spec->flags & GST_PARAM_MUTABLE_PLAYING) != 0;
}

} // namespace Tevara::Lumiflux::GstCodecs
