// Codec parameters: number reading as the C library reads it, ranges as text,
// discrete and read-only parameters, and the ownership rules of the set.

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include <lumiflux/parameters.h>

using namespace Tevara::Lumiflux::Internal;

namespace {

// Counts destructions, to see who deletes a parameter.
int destroyed = 0;

class CountedParameter : public Parameter {
public:
    explicit CountedParameter(const std::string& initial) : Parameter(initial) {}
    ~CountedParameter() override { ++destroyed; }
};

class Choice : public Parameter, public DiscreteParameterMixin {
public:
    Choice(const std::string& initial, std::vector<std::string> allowedValues)
        : Parameter(initial), DiscreteParameterMixin(std::move(allowedValues))
    {
    }
    std::string range() const override { return DiscreteParameterMixin::range(); }
    bool validate(const std::string& value) const override { return DiscreteParameterMixin::validate(value); }
};

// Upper-cases what it stores, to tell stored from converted text apart.
class Shouting : public ReadOnlyParameter {
public:
    using ReadOnlyParameter::ReadOnlyParameter;
    void assign(const std::string&) override { text = "overridden"; }
};

class Doubled : public IntParameter {
public:
    using IntParameter::IntParameter;
    std::string adjust(const std::string& value) const override { return value + value; }
};

TEST(Parameters, IntReadsLikeScanfAndKeepsTheText)
{
    IntParameter p("10", 0, 100);
    EXPECT_EQ(p.value(), 10);
    EXPECT_TRUE(p.set("50"));
    EXPECT_EQ(p.value(), 50);
    EXPECT_FALSE(p.set("101"));
    EXPECT_FALSE(p.set("-1"));
    EXPECT_EQ(p.get(), "50") << "a refused value changes nothing";
    EXPECT_EQ(p.value(), 50);
    EXPECT_TRUE(p.set("0x20"));
    EXPECT_EQ(p.value(), 32);
    EXPECT_EQ(p.get(), "0x20");
    EXPECT_TRUE(p.set("010"));
    EXPECT_EQ(p.value(), 8) << "leading 0 is octal";
    EXPECT_TRUE(p.set("08"));
    EXPECT_EQ(p.value(), 0) << "the octal number ends at the 8";
    EXPECT_FALSE(p.set("abc"));
    EXPECT_FALSE(p.set(""));
    EXPECT_TRUE(p.set(" 7"));
    EXPECT_EQ(p.value(), 7);
    EXPECT_TRUE(p.set("12abc"));
    EXPECT_EQ(p.value(), 12);
    EXPECT_EQ(p.get(), "12abc");
    EXPECT_TRUE(p.set("+0X1f"));
    EXPECT_EQ(p.value(), 31);
}

TEST(Parameters, FloatRefusesNanAndOutOfRange)
{
    FloatParameter p("0.25", 0.0f, 1.0f);
    EXPECT_FLOAT_EQ(p.value(), 0.25f);
    EXPECT_TRUE(p.set("0.5"));
    EXPECT_FLOAT_EQ(p.value(), 0.5f);
    EXPECT_FALSE(p.set("1.5"));
    EXPECT_FALSE(p.set("nan"));
    float read = 0;
    EXPECT_TRUE(p.convert("nan", &read)) << "nan is a number to scanf";
    EXPECT_TRUE(std::isnan(read));
    EXPECT_TRUE(p.set("5e-1x"));
    EXPECT_FLOAT_EQ(p.value(), 0.5f);
    EXPECT_FALSE(p.set("-0.1"));
    EXPECT_FALSE(p.set("."));
}

TEST(Parameters, RangeTexts)
{
    EXPECT_EQ(IntParameter("0", 0, 100).range(), "0-100");
    EXPECT_EQ(IntParameter("-7", -10, 5).range(), "-10-5");
    EXPECT_EQ(IntParameter("-7", -10, -5).range(), "-10--5");
    EXPECT_EQ(FloatParameter("1", 0.5f, 2.0f).range(), "0.5-2");
    EXPECT_EQ(FloatParameter("1", 0.0f, 1000000.0f).range(), "0-1e+06");
    EXPECT_EQ(FloatParameter("1", -0.125f, 1234567.0f).range(), "-0.125-1.23457e+06");
    EXPECT_EQ(Parameter("x").range(), "-");
    EXPECT_EQ(ReadOnlyParameter("x").range(), "-");
    EXPECT_EQ(Choice("low", {"low", "medium", "high"}).range(), "low,medium,high");
}

TEST(Parameters, DiscreteValuesAndIndex)
{
    Choice c("a", {"a", "b"});
    EXPECT_EQ(c.index("a"), 0u);
    EXPECT_EQ(c.index("b"), 1u);
    EXPECT_EQ(c.index("c"), 2u);
    EXPECT_FALSE(c.validate("A"));
    EXPECT_FALSE(c.set("c"));
    EXPECT_TRUE(c.set("b"));
    EXPECT_EQ(c.get(), "b");
    EXPECT_EQ(c.range(), "a,b");
}

TEST(Parameters, SetStoresTheAdjustedTextButConvertsTheCallersText)
{
    Doubled p("1", 0, 1000);
    EXPECT_TRUE(p.set("5"));
    EXPECT_EQ(p.get(), "55");
    EXPECT_EQ(p.value(), 5);
    Parameter plain("a");
    plain.assign("anything at all");
    EXPECT_EQ(plain.get(), "anything at all");
    EXPECT_TRUE(plain.set("b"));
}

TEST(Parameters, ReadOnlyChangesOnlyThroughChange)
{
    ParameterSet set;
    ASSERT_TRUE(set.registerParameter(1, new ReadOnlyParameter("main")));
    ASSERT_TRUE(set.registerParameter(2, new IntParameter("5", 0, 10)));
    ASSERT_TRUE(set.registerParameter(3, new Shouting("x")));
    EXPECT_FALSE(set.set(1, "high"));
    EXPECT_EQ(set.get(1), "main");
    EXPECT_TRUE(set.change(1, "high"));
    EXPECT_EQ(set.get(1), "high");
    EXPECT_TRUE(set.change(1, "")) << "no validation at all";
    EXPECT_EQ(set.get(1), "");
    EXPECT_FALSE(set.change(2, "7")) << "not read-only";
    EXPECT_EQ(set.get(2), "5");
    EXPECT_FALSE(set.change(99, "7"));
    EXPECT_TRUE(set.change(3, "base"));
    EXPECT_EQ(set.get(3), "base") << "the base assign, past the override";
}

TEST(Parameters, SetLooksUpByIdAndOwnsWhatItKeeps)
{
    destroyed = 0;
    {
        ParameterSet set;
        EXPECT_FALSE(set.set(1, "x"));
        EXPECT_EQ(set.get(1), "");
        EXPECT_EQ(set.range(1), "");
        EXPECT_EQ(set.find(1), nullptr);

        auto* first = new CountedParameter("first");
        auto* second = new CountedParameter("second");
        EXPECT_TRUE(set.registerParameter(1, first));
        EXPECT_FALSE(set.registerParameter(1, second));
        EXPECT_EQ(set.get(1), "first");
        EXPECT_EQ(set.find(1), first);
        delete second; // refused, so still ours
        EXPECT_EQ(destroyed, 1);

        ASSERT_TRUE(set.registerParameter(4, new IntParameter("1", 1, 9)));
        EXPECT_EQ(set.range(4), "1-9");
        EXPECT_TRUE(set.set(4, "9"));
        EXPECT_EQ(set.ids(), (std::vector<unsigned>{1, 4}));

        // Replaces, not merges: the old ones are deleted.
        set.registerParameters({{7, new CountedParameter("seven")}, {8, new CountedParameter("eight")}});
        EXPECT_EQ(destroyed, 2);
        EXPECT_EQ(set.find(1), nullptr);
        EXPECT_EQ(set.get(7), "seven");
        EXPECT_EQ(set.ids(), (std::vector<unsigned>{7, 8}));
    }
    EXPECT_EQ(destroyed, 4);
}

} // namespace
