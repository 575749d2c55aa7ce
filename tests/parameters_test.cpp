#include "parameters.h"

#include <gtest/gtest.h>

#include <string>

using oku::Parameters;

namespace {

// Expects construction from text to throw std::invalid_argument("Invalid format").
void ExpectInvalid(const std::string& text)
{
    try {
        Parameters p(text);
        ADD_FAILURE() << "no exception for \"" << text << "\"";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ("Invalid format", e.what()) << text;
    }
}

template <typename F>
std::string Message(F f)
{
    try {
        f();
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "no exception";
}

}  // namespace

TEST(ParametersGrammar, EmptyStringsGiveAnEmptySet)
{
    for (const char* text : {"", ";;;", ";"}) {
        Parameters p(text);
        EXPECT_TRUE(p.empty()) << text;
        EXPECT_EQ(7, p.Get<int>("a", 7));
        EXPECT_EQ("Key not found", Message([&] { p.Get<int>("a"); }));
    }
}

TEST(ParametersGrammar, SeparatorRunsAndEdgesProduceNoEntries)
{
    for (const char* text : {"a=1;", ";a=1", "a=1;;", "a==1", "=a=1", "a=1=", ";;a==1;"}) {
        Parameters p(text);
        ASSERT_EQ(1u, p.size()) << text;
        EXPECT_EQ("1", p.at("a")) << text;
    }
    Parameters two("EOSTimeoutMs=1000;HistogramWindowSizeMs=3000");
    EXPECT_EQ(2u, two.size());
    EXPECT_EQ(3000, two.Get<int>("HistogramWindowSizeMs"));
}

TEST(ParametersGrammar, MalformedEntriesRejectTheWholeString)
{
    for (const char* text : {"a", "a=", "=1", "x=1;=", "x=1;a", "a=1=2", "==", "a=1;b=2=3;c=4"})
        ExpectInvalid(text);
}

TEST(ParametersGrammar, FirstOccurrenceWinsAndCaseMatters)
{
    Parameters p("a=1;a=2");
    EXPECT_EQ(1, p.Get<int>("a"));
    Parameters upper("A=1");
    EXPECT_TRUE(upper.Exists("A"));
    EXPECT_FALSE(upper.Exists("a"));
}

TEST(ParametersGrammar, BlanksAreOrdinaryCharacters)
{
    Parameters p(" a = 5 ");
    ASSERT_TRUE(p.Exists(" a "));
    EXPECT_EQ(" 5 ", p.at(" a "));
    EXPECT_EQ(5, p.Get<int>(" a "));  // leading blank skipped, trailing one ignored
    EXPECT_EQ("Key not found", Message([&] { p.Get<int>("a"); }));
    Parameters q("A=1; B=2");
    EXPECT_TRUE(q.Exists(" B"));
    EXPECT_FALSE(q.Exists("B"));
}

TEST(ParametersRead, ConversionReadsTheLeadingNumberOnly)
{
    Parameters p("a=12abc;h=0x10;f=2.75;e=1e3;n=-3");
    EXPECT_EQ(12, p.Get<int>("a"));
    EXPECT_EQ(0, p.Get<int>("h"));
    EXPECT_EQ(2, p.Get<int>("f"));
    EXPECT_DOUBLE_EQ(2.75, p.Get<double>("f"));
    EXPECT_FLOAT_EQ(2.75f, p.Get<float>("f"));
    EXPECT_DOUBLE_EQ(1000.0, p.Get<double>("e"));
    EXPECT_EQ(-3, p.Get<int>("n"));
}

TEST(ParametersRead, MalformedValueIsNeverHiddenByADefault)
{
    Parameters p("a=abc;big=99999999999");
    EXPECT_EQ("Invalid format", Message([&] { p.Get<int>("a", 7); }));
    EXPECT_EQ("Invalid format", Message([&] { p.Get<int>("a"); }));
    EXPECT_EQ("Invalid format", Message([&] { p.Get<int>("big", 1); }));  // out of range for int
    EXPECT_EQ(99999999999.0, p.Get<double>("big"));
    EXPECT_EQ(7, p.Get<int>("b", 7));
}

TEST(ParametersWrite, SetInsertsOrOverwritesAsPlainText)
{
    Parameters p("WindowSize=99");
    p.Set<int>("WindowSize", 150);
    EXPECT_EQ("150", p.at("WindowSize"));
    Parameters q;
    q.Set<int>("WindowSize", 150);
    EXPECT_EQ("150", q.at("WindowSize"));
    q.Set<int>("Neg", -3);
    EXPECT_EQ("-3", q.at("Neg"));
    EXPECT_EQ(-3, q.Get<int>("Neg"));
}
