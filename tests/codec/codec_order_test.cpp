// The hand-written codec sort against the standard library's sort in this
// toolchain, and its behaviour where the comparator is inconsistent.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "codec/codec_order.h"

using Tevara::Lumiflux::VideoCodecInfo;
using Tevara::Lumiflux::Internal::codecOrderLess;
using Tevara::Lumiflux::Internal::sortCodecs;

namespace {

VideoCodecInfo codec(int index, int priority, bool hw)
{
    VideoCodecInfo info;
    info.id = std::to_string(index);
    info.priority = priority;
    info.hw = hw;
    return info;
}

std::vector<std::string> ids(const VideoCodecInfo* first, const VideoCodecInfo* last)
{
    std::vector<std::string> result;
    for (; first != last; ++first)
        result.push_back(first->id);
    return result;
}

// Sorts a heap array of exactly `codecs.size()` elements, so that AddressSanitizer
// sees any read or write past either end.
std::vector<std::string> sortedByUs(const std::vector<VideoCodecInfo>& codecs)
{
    const std::size_t n = codecs.size();
    auto array = std::make_unique<VideoCodecInfo[]>(n);
    std::copy(codecs.begin(), codecs.end(), array.get());
    sortCodecs(array.get(), array.get() + n);
    return ids(array.get(), array.get() + n);
}

std::vector<std::string> sortedByStd(std::vector<VideoCodecInfo> codecs)
{
    std::sort(codecs.begin(), codecs.end(), codecOrderLess);
    return ids(codecs.data(), codecs.data() + codecs.size());
}

// Every hardware priority at or above every software one: the comparator is a
// strict weak order. Few distinct priorities, so many elements tie and the
// unstable placement of equal elements is compared too.
std::vector<VideoCodecInfo> consistentList(std::mt19937& random, int n)
{
    std::uniform_int_distribution<int> priority(0, 6);
    std::bernoulli_distribution hw(0.4);
    std::vector<VideoCodecInfo> list;
    for (int i = 0; i < n; ++i) {
        const bool isHw = hw(random);
        list.push_back(codec(i, isHw ? 6 + priority(random) : priority(random), isHw));
    }
    return list;
}

// An input on which median-of-three quicksort degrades, so the introsort runs
// out of depth budget and heap-sorts: built by McIlroy's adversary, which
// decides element values lazily while std::sort compares them.
std::vector<int> adversarialValues(int n)
{
    const int gas = n;
    std::vector<int> values(n, gas);
    int solid = 0;
    int candidate = 0;
    std::vector<int> order(n);
    for (int i = 0; i < n; ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(), [&](int x, int y) {
        if (values[x] == gas && values[y] == gas)
            values[x == candidate ? x : y] = solid++;
        if (values[x] == gas)
            candidate = x;
        else if (values[y] == gas)
            candidate = y;
        return values[x] < values[y];
    });
    for (auto& v : values)
        if (v == gas)
            v = solid++;
    return values;
}

TEST(CodecOrder, ComparatorIsExactlyHardwareOrHigherPriority)
{
    EXPECT_TRUE(codecOrderLess(codec(0, 1, true), codec(1, 5, false)));
    EXPECT_TRUE(codecOrderLess(codec(0, 5, false), codec(1, 1, true)));
    EXPECT_TRUE(codecOrderLess(codec(0, 5, false), codec(1, 1, false)));
    EXPECT_FALSE(codecOrderLess(codec(0, 5, true), codec(1, 5, true)));
    EXPECT_FALSE(codecOrderLess(codec(0, 1, false), codec(1, 1, true)));
    EXPECT_FALSE(codecOrderLess(codec(0, 5, true), codec(0, 5, true)));
}

TEST(CodecOrder, SameAsStdSortWhereTheOrderIsConsistent)
{
    std::mt19937 random(12345);
    for (int n : {0, 1, 2, 3, 15, 16, 17, 18, 31, 33, 64, 100, 257, 1000}) {
        for (int round = 0; round < 20; ++round) {
            const auto list = consistentList(random, n);
            ASSERT_EQ(sortedByUs(list), sortedByStd(list)) << "n=" << n << " round=" << round;
        }
    }
}

TEST(CodecOrder, SameAsStdSortOnPresortedAndAllEqualLists)
{
    for (int n : {17, 40, 500}) {
        std::vector<VideoCodecInfo> equal, ascending, descending;
        for (int i = 0; i < n; ++i) {
            equal.push_back(codec(i, 7, false));
            ascending.push_back(codec(i, i, false));
            descending.push_back(codec(i, n - i, i < n / 3));
        }
        EXPECT_EQ(sortedByUs(equal), sortedByStd(equal)) << n;
        EXPECT_EQ(sortedByUs(ascending), sortedByStd(ascending)) << n;
        EXPECT_EQ(sortedByUs(descending), sortedByStd(descending)) << n;
    }
}

TEST(CodecOrder, SameAsStdSortWhenTheDepthBudgetRunsOut)
{
    for (int n : {64, 300, 2000}) {
        const auto values = adversarialValues(n);
        std::vector<VideoCodecInfo> list;
        // Descending priority comes first, so negate to make the adversary's
        // ascending order ours.
        for (int i = 0; i < n; ++i)
            list.push_back(codec(i, -values[i], false));
        const auto ours = sortedByUs(list);
        ASSERT_EQ(ours, sortedByStd(list)) << n;
        // And it is sorted.
        for (int i = 1; i < n; ++i)
            EXPECT_GE(-values[std::stoi(ours[i - 1])], -values[std::stoi(ours[i])]);
    }
}

TEST(CodecOrder, TwoElementHardwareTenSoftwareTwentySwapEitherWay)
{
    EXPECT_EQ(sortedByUs({codec(0, 10, true), codec(1, 20, false)}), (std::vector<std::string>{"1", "0"}));
    EXPECT_EQ(sortedByUs({codec(0, 20, false), codec(1, 10, true)}), (std::vector<std::string>{"1", "0"}));
}

TEST(CodecOrder, InconsistentListsStayInsideTheArrayAndKeepEveryElement)
{
    // Software codecs outranking hardware ones make the comparator cyclic; the
    // sort must still stay within the array (checked by AddressSanitizer in
    // that build) and return a permutation of its input.
    std::mt19937 random(777);
    for (int n : {2, 5, 16, 17, 20, 33, 64, 200, 1000}) {
        for (int round = 0; round < 30; ++round) {
            std::uniform_int_distribution<int> priority(0, round % 2 == 0 ? 3 : 1000);
            std::bernoulli_distribution hw(0.5);
            std::vector<VideoCodecInfo> list;
            for (int i = 0; i < n; ++i)
                list.push_back(codec(i, priority(random), hw(random)));
            auto result = sortedByUs(list);
            std::sort(result.begin(), result.end());
            auto input = ids(list.data(), list.data() + list.size());
            std::sort(input.begin(), input.end());
            ASSERT_EQ(result, input) << "n=" << n << " round=" << round;
        }
    }
}

} // namespace
