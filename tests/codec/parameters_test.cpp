// Codec parameters: numbers read as scanf reads them, ranges, choices, read-only ones, the set.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include <lumiflux/parameters.h>

using namespace Tevara::Lumiflux::Internal;

namespace {

int destroyed = 0;

struct Counted : Parameter {
    using Parameter::Parameter;
    ~Counted() override { ++destroyed; }
};

struct Choice : Parameter, DiscreteParameterMixin {
    Choice(const std::string& initial, std::vector<std::string> allowed)
        : Parameter(initial), DiscreteParameterMixin(std::move(allowed))
    {
    }
    std::string range() const override { return DiscreteParameterMixin::range(); }
    bool validate(const std::string& value) const override { return DiscreteParameterMixin::validate(value); }
};

struct Shouting : ReadOnlyParameter {
    using ReadOnlyParameter::ReadOnlyParameter;
    void assign(const std::string&) override { text = "overridden"; }
};

TEST(Parameters, NumbersReadLikeScanfKeepTheTextAndStayInRange)
{
    // {text, accepted, value}: a refused text changes nothing; "08" is octal 0 ended by the 8.
    IntParameter i("10", 0, 100);
    EXPECT_EQ(i.value(), 10);
    using Case = std::tuple<std::string, bool, int>;
    // clang-format off
    for (const auto& [text, accepted, value] : std::vector<Case>{
             {"50", true, 50}, {"101", false, 50}, {"-1", false, 50}, {"0x20", true, 32}, {"010", true, 8},
             {"08", true, 0}, {"abc", false, 0}, {"", false, 0}, {" 7", true, 7}, {"12abc", true, 12},
             {"+0X1f", true, 31}}) {
        // clang-format on
        const std::string before = i.get();
        EXPECT_EQ(i.set(text), accepted) << text;
        EXPECT_EQ(i.value(), value) << text;
        EXPECT_EQ(i.get(), accepted ? text : before) << text;
    }
    FloatParameter f("0.25", 0.0f, 1.0f);
    EXPECT_FLOAT_EQ(f.value(), 0.25f);
    for (const char* refused : {"1.5", "nan", "-0.1", "."})
        EXPECT_FALSE(f.set(refused)) << refused;
    EXPECT_TRUE(f.set("5e-1x"));
    EXPECT_FLOAT_EQ(f.value(), 0.5f);
    float read = 0;
    EXPECT_TRUE(f.convert("nan", &read) && std::isnan(read)) << "nan is a number to scanf";
}

TEST(Parameters, RangeTextsAndChoices)
{
    EXPECT_EQ(IntParameter("0", 0, 100).range() + " " + IntParameter("-7", -10, -5).range() + " " +
                  FloatParameter("1", 0.5f, 2.0f).range() + " " + FloatParameter("1", 0.0f, 1e6f).range() + " " +
                  FloatParameter("1", -0.125f, 1234567.0f).range() + " " + Parameter("x").range() + " " +
                  ReadOnlyParameter("x").range() + " " + Choice("l", {"low", "medium", "high"}).range(),
              "0-100 -10--5 0.5-2 0-1e+06 -0.125-1.23457e+06 - - low,medium,high");
    Choice c("a", {"a", "b"});
    EXPECT_EQ(c.index("b"), 1u);
    EXPECT_EQ(c.index("c"), 2u) << "past the end when not allowed";
    EXPECT_FALSE(c.set("A"));
    EXPECT_TRUE(c.set("b") && c.get() == "b");
}

TEST(Parameters, ReadOnlyChangesOnlyThroughChangeAndTheSetOwnsWhatItKeeps)
{
    destroyed = 0;
    {
        ParameterSet set;
        EXPECT_FALSE(set.set(1, "x"));
        EXPECT_EQ(set.get(1) + set.range(1), "");
        ASSERT_TRUE(set.registerParameter(1, new ReadOnlyParameter("main")));
        ASSERT_TRUE(set.registerParameter(2, new IntParameter("5", 1, 9)));
        ASSERT_TRUE(set.registerParameter(3, new Shouting("x")));
        EXPECT_FALSE(set.set(1, "high"));
        EXPECT_TRUE(set.change(1, "")) << "no validation at all";
        EXPECT_FALSE(set.change(2, "7")) << "not read-only";
        EXPECT_FALSE(set.change(99, "7"));
        EXPECT_TRUE(set.change(3, "base"));
        EXPECT_TRUE(set.set(2, "9"));
        EXPECT_EQ(set.get(1) + "/" + set.get(2) + "/" + set.get(3) + "/" + set.range(2), "/9/base/1-9")
            << "change() uses the base assign, past the override";
        auto* refused = new Counted("refused");
        EXPECT_FALSE(set.registerParameter(1, refused));
        EXPECT_NE(set.find(1), refused);
        delete refused; // still ours
        EXPECT_EQ(set.ids(), (std::vector<unsigned>{1, 2, 3}));
        set.registerParameters({{7, new Counted("seven")}, {8, new Counted("eight")}});
        EXPECT_EQ(set.find(1), nullptr);
        EXPECT_EQ(set.get(7), "seven");
        EXPECT_EQ(set.ids(), (std::vector<unsigned>{7, 8}));
        EXPECT_EQ(destroyed, 1);
    }
    EXPECT_EQ(destroyed, 3);
}

} // namespace
