#include "element_parameters.h"

#include <algorithm>

#include <lumiflux/gst_ref.h>

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

void registerParameters(Internal::ParameterSet& set, const CodecEntry& entry)
{
    for (const auto& binding : entry.parameters) {
        Internal::Parameter* parameter = nullptr;
        switch (binding.kind) {
        case ParameterBinding::Kind::Integer:
            parameter = new Internal::IntParameter(binding.initial, binding.min, binding.max);
            break;
        case ParameterBinding::Kind::Choice: {
            std::vector<std::string> texts;
            for (const auto& choice : binding.choices)
                texts.push_back(choice.first);
            parameter = new ChoiceParameter(binding.initial, std::move(texts));
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

namespace {

// The number a parameter stands for, in the property's unit.
int propertyValue(const Internal::Parameter& parameter, const ParameterBinding& binding)
{
    if (binding.kind == ParameterBinding::Kind::Integer)
        return static_cast<const Internal::IntParameter&>(parameter).value() / binding.divisor;
    for (const auto& choice : binding.choices)
        if (choice.first == parameter.get())
            return choice.second;
    return 0;
}

// Controls live in one structure property: read it, change our fields,
// write it back, so that controls set by others stay.
void applyControls(GstElement* element, const Internal::Parameter& parameter, const ParameterBinding& binding)
{
    GstStructure* current = nullptr;
    g_object_get(element, binding.property.c_str(), &current, nullptr);
    auto controls =
        Internal::Ref<GstStructure>::adopt(current != nullptr ? current : gst_structure_new_empty("controls"));
    for (const auto& control : binding.controls)
        gst_structure_set(controls.get(), control.c_str(), G_TYPE_INT, propertyValue(parameter, binding), nullptr);
    g_object_set(element, binding.property.c_str(), controls.get(), nullptr);
}

} // namespace

bool applyParameter(GstElement* element, const Internal::ParameterSet& set, const ParameterBinding& binding)
{
    const Internal::Parameter* parameter = set.find(binding.id);
    if (parameter == nullptr || binding.property.empty() ||
        g_object_class_find_property(G_OBJECT_GET_CLASS(element), binding.property.c_str()) == nullptr)
        return false;
    if (!binding.controls.empty()) {
        applyControls(element, *parameter, binding);
        return true;
    }
    const std::string text = binding.kind == ParameterBinding::Kind::Integer
                                 ? std::to_string(propertyValue(*parameter, binding))
                                 : parameter->get();
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
