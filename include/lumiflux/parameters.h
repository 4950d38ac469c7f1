#pragma once

/**
 * @file parameters.h
 * Typed codec parameters addressed by a numeric identifier, and the set that
 * owns them. Values cross the interface as text; each parameter keeps the text
 * it was last given and, for numeric ones, the converted number.
 *
 * Nothing here locks: a ParameterSet belongs to one codec instance and must
 * not be used from several threads at once. Failures are reported by the
 * result alone (false, or an empty string), never by a message or exception.
 */

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <lumiflux/export.h>

namespace Tevara::Lumiflux::Internal {

/** The base of all parameters: a text value with no range and no validation. */
class LUMIFLUX_EXPORT Parameter {
public:
    /** A parameter whose current text is `initial`. */
    explicit Parameter(std::string initial = std::string());
    virtual ~Parameter();

    /** The allowed values as text; "-" when no range is known. */
    virtual std::string range() const;
    /**
     * Validates `value` and, when valid, stores adjust(value). Returns false
     * and leaves the parameter unchanged for an invalid value.
     */
    virtual bool set(const std::string& value);
    /** Stores `value` as it stands: no validation, no conversion. */
    virtual void assign(const std::string& value);
    /** The current text. */
    virtual std::string get() const;
    /** Whether `value` would be accepted by set(); true for every value here. */
    virtual bool validate(const std::string& value) const;
    /** The text set() stores for an accepted `value`; `value` unchanged here. */
    virtual std::string adjust(const std::string& value) const;

protected:
    std::string text; ///< the current text
};

/**
 * A parameter with a number of type T (int or float) beside its text. The
 * number is read from the caller's text by the subclass's convert().
 */
template <typename T> class LUMIFLUX_EXPORT TypedParameter : public Parameter {
public:
    /** Stores `initial` as the text and `initialValue` as the number, unchecked. */
    TypedParameter(std::string initial, T initialValue);
    ~TypedParameter() override;

    /** Validates and stores the text, then converts the caller's text into the number. */
    bool set(const std::string& value) override;
    /** The stored number. */
    virtual T value() const;
    /** Reads one number from the start of `text` into `out`; true when one was read. */
    virtual bool convert(const std::string& text, T* out) const;

protected:
    T number; ///< the number read from the text
};

extern template class TypedParameter<int>;
extern template class TypedParameter<float>;

/** An integer parameter with inclusive bounds; numbers are read like scanf "%i". */
class LUMIFLUX_EXPORT IntParameter : public TypedParameter<int> {
public:
    /** `initial` should be a valid text; its number is read into value(). */
    IntParameter(const std::string& initial, int min, int max);
    ~IntParameter() override;

    /** "min-max" in decimal, even for negative bounds ("-10--5"). */
    std::string range() const override;
    /** True when a number can be read from the start of `value` and lies within the bounds. */
    bool validate(const std::string& value) const override;
    bool convert(const std::string& text, int* out) const override;

    int minimum() const { return min; } ///< the lower bound
    int maximum() const { return max; } ///< the upper bound

protected:
    int min; ///< inclusive lower bound
    int max; ///< inclusive upper bound
};

/** A float parameter with inclusive bounds; numbers are read like scanf "%f". */
class LUMIFLUX_EXPORT FloatParameter : public TypedParameter<float> {
public:
    /** `initial` should be a valid text; its number is read into value(). The bounds are inclusive. */
    FloatParameter(const std::string& initial, float min, float max);
    ~FloatParameter() override;

    /** "min-max", each bound in the stream's general notation ("0.5-2", "1e+06"). */
    std::string range() const override;
    /** True when a number can be read and lies within the bounds (nan never does). */
    bool validate(const std::string& value) const override;
    bool convert(const std::string& text, float* out) const override;

    float minimum() const { return min; } ///< the lower bound
    float maximum() const { return max; } ///< the upper bound

protected:
    float min; ///< inclusive lower bound
    float max; ///< inclusive upper bound
};

/**
 * A fixed list of allowed texts, combined with a parameter class by the
 * plug-in, whose validate() and range() forward to these. Not polymorphic.
 */
class LUMIFLUX_EXPORT DiscreteParameterMixin {
public:
    /** `values` must hold at least one text. `tag` is free for the owner's use. */
    explicit DiscreteParameterMixin(std::vector<std::string> values, int tag = 0);

    /** True when `value` equals one of the allowed texts (byte-wise). */
    bool validate(const std::string& value) const;
    /** The position of the first allowed text equal to `value`; the number of texts when none is. */
    std::size_t index(const std::string& value) const;
    /** The allowed texts in order, separated by "," ("low,medium,high"). */
    std::string range() const;
    /** The allowed texts. */
    const std::vector<std::string>& allowed() const { return values; }

protected:
    int tag;                         ///< owner-defined; none of the operations here use it
    std::vector<std::string> values; ///< the allowed texts, in order
};

/**
 * A parameter that applications can read but not set: set() refuses every
 * value. Its owner changes it with ParameterSet::change().
 */
class LUMIFLUX_EXPORT ReadOnlyParameter : public Parameter {
public:
    /** A parameter whose text is `initial`. */
    explicit ReadOnlyParameter(const std::string& initial);
    ~ReadOnlyParameter() override;

    /** Always false; the text stays as it is. */
    bool set(const std::string& value) override;
};

/**
 * The parameters of one codec instance by identifier. The set owns every
 * parameter registered in it and deletes it when it is destroyed or replaced.
 */
class LUMIFLUX_EXPORT ParameterSet {
public:
    ParameterSet();
    virtual ~ParameterSet();
    ParameterSet(const ParameterSet&) = delete;
    ParameterSet& operator=(const ParameterSet&) = delete;

    /** The parameter's range() text, or "" for an unknown id. */
    virtual std::string range(unsigned id) const;

    /**
     * Takes ownership of `parameter` under `id` and returns true. When `id` is
     * taken, returns false and changes nothing: the caller keeps `parameter`.
     */
    bool registerParameter(unsigned id, Parameter* parameter);
    /** Deletes every parameter now in the set, then owns exactly those given. */
    void registerParameters(std::map<unsigned, Parameter*> parameters);
    /** The parameter registered under `id`, or null. */
    Parameter* find(unsigned id) const;
    /** The parameter's text, or "" for an unknown id. */
    std::string get(unsigned id) const;
    /** The parameter's set(value); false for an unknown id. */
    bool set(unsigned id, const std::string& value);
    /**
     * For read-only parameters only: stores `value` unvalidated and returns
     * true. False, with nothing changed, for an unknown id or any other kind.
     */
    bool change(unsigned id, const std::string& value);
    /** The registered identifiers in ascending order. */
    std::vector<unsigned> ids() const;

private:
    std::map<unsigned, Parameter*> entries;
};

} // namespace Tevara::Lumiflux::Internal
