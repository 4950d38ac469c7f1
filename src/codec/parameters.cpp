#include <lumiflux/parameters.h>

#include <cstdio>
#include <locale>
#include <sstream>

namespace Tevara::Lumiflux::Internal {

// ---------------------------------------------------------------- Parameter

Parameter::Parameter(std::string initial) : text(std::move(initial)) {}

Parameter::~Parameter() = default;

std::string Parameter::range() const
{
    return "-";
}

bool Parameter::set(const std::string& value)
{
    if (!validate(value))
        return false;
    text = adjust(value);
    return true;
}

void Parameter::assign(const std::string& value)
{
    text = value;
}

std::string Parameter::get() const
{
    return text;
}

bool Parameter::validate(const std::string&) const
{
    return true;
}

std::string Parameter::adjust(const std::string& value) const
{
    return value;
}

// ------------------------------------------------------------ TypedParameter

template <typename T>
TypedParameter<T>::TypedParameter(std::string initial, T initialValue)
    : Parameter(std::move(initial)), number(initialValue)
{
}

template <typename T> TypedParameter<T>::~TypedParameter() = default;

template <typename T> bool TypedParameter<T>::set(const std::string& value)
{
    if (!Parameter::set(value))
        return false;
    // The caller's text is converted, not the adjusted one that was stored.
    return convert(value, &number);
}

template <typename T> T TypedParameter<T>::value() const
{
    return number;
}

template <typename T> bool TypedParameter<T>::convert(const std::string&, T*) const
{
    // The ranged subclasses read numbers; a bare typed parameter has no format.
    return false;
}

template class TypedParameter<int>;
template class TypedParameter<float>;

namespace {

// Both use the C library's formatted input so that octal, hexadecimal,
// exponents and "nan" read exactly as scanf reads them.
bool scanInt(const std::string& text, int* out)
{
    return std::sscanf(text.c_str(), "%i", out) == 1;
}

bool scanFloat(const std::string& text, float* out)
{
    return std::sscanf(text.c_str(), "%f", out) == 1;
}

std::ostringstream classicStream()
{
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    return stream;
}

} // namespace

// -------------------------------------------------------------- IntParameter

IntParameter::IntParameter(const std::string& initial, int minValue, int maxValue)
    : TypedParameter<int>(initial, 0), min(minValue), max(maxValue)
{
    scanInt(initial, &number);
}

IntParameter::~IntParameter() = default;

std::string IntParameter::range() const
{
    auto stream = classicStream();
    stream << min << "-" << max;
    return stream.str();
}

bool IntParameter::validate(const std::string& value) const
{
    int read = 0;
    return convert(value, &read) && min <= read && read <= max;
}

bool IntParameter::convert(const std::string& value, int* out) const
{
    return scanInt(value, out);
}

// ------------------------------------------------------------ FloatParameter

FloatParameter::FloatParameter(const std::string& initial, float minValue, float maxValue)
    : TypedParameter<float>(initial, 0.0f), min(minValue), max(maxValue)
{
    scanFloat(initial, &number);
}

FloatParameter::~FloatParameter() = default;

std::string FloatParameter::range() const
{
    auto stream = classicStream();
    stream << static_cast<double>(min) << "-" << static_cast<double>(max);
    return stream.str();
}

bool FloatParameter::validate(const std::string& value) const
{
    float read = 0.0f;
    // Written as two comparisons so that nan, which fails both, is refused.
    return convert(value, &read) && min <= read && read <= max;
}

bool FloatParameter::convert(const std::string& value, float* out) const
{
    return scanFloat(value, out);
}

// ---------------------------------------------------- DiscreteParameterMixin

DiscreteParameterMixin::DiscreteParameterMixin(std::vector<std::string> allowedValues, int ownerTag)
    : tag(ownerTag), values(std::move(allowedValues))
{
}

bool DiscreteParameterMixin::validate(const std::string& value) const
{
    return index(value) < values.size();
}

std::size_t DiscreteParameterMixin::index(const std::string& value) const
{
    std::size_t position = 0;
    while (position < values.size() && values[position] != value)
        ++position;
    return position;
}

std::string DiscreteParameterMixin::range() const
{
    std::string result;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0)
            result += ",";
        result += values[i];
    }
    return result;
}

// --------------------------------------------------------- ReadOnlyParameter

ReadOnlyParameter::ReadOnlyParameter(const std::string& initial) : Parameter(initial) {}

ReadOnlyParameter::~ReadOnlyParameter() = default;

bool ReadOnlyParameter::set(const std::string&)
{
    return false;
}

// -------------------------------------------------------------- ParameterSet

ParameterSet::ParameterSet() = default;

ParameterSet::~ParameterSet()
{
    for (auto& entry : entries)
        delete entry.second;
}

std::string ParameterSet::range(unsigned id) const
{
    const Parameter* parameter = find(id);
    return parameter != nullptr ? parameter->range() : std::string();
}

bool ParameterSet::registerParameter(unsigned id, Parameter* parameter)
{
    // A used id is refused, and the refused parameter stays the caller's.
    return entries.emplace(id, parameter).second;
}

void ParameterSet::registerParameters(std::map<unsigned, Parameter*> parameters)
{
    for (auto& entry : entries)
        delete entry.second;
    entries = std::move(parameters);
}

Parameter* ParameterSet::find(unsigned id) const
{
    const auto it = entries.find(id);
    return it != entries.end() ? it->second : nullptr;
}

std::string ParameterSet::get(unsigned id) const
{
    const Parameter* parameter = find(id);
    return parameter != nullptr ? parameter->get() : std::string();
}

bool ParameterSet::set(unsigned id, const std::string& value)
{
    Parameter* parameter = find(id);
    return parameter != nullptr && parameter->set(value);
}

bool ParameterSet::change(unsigned id, const std::string& value)
{
    Parameter* parameter = find(id);
    if (dynamic_cast<ReadOnlyParameter*>(parameter) == nullptr)
        return false;
    // The base assign, deliberately past any override of the parameter's own.
    parameter->Parameter::assign(value);
    return true;
}

std::vector<unsigned> ParameterSet::ids() const
{
    std::vector<unsigned> result;
    result.reserve(entries.size());
    for (const auto& entry : entries)
        result.push_back(entry.first);
    return result;
}

} // namespace Tevara::Lumiflux::Internal
