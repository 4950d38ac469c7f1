// The hand-written codec sort against the standard library's sort in this
// toolchain, and its behaviour where the comparator is inconsistent.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
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

template <typename Iterator> std::vector<std::string> ids(Iterator first, Iterator last)
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
    auto array = std::make_unique<VideoCodecInfo[]>(codecs.size());
    std::copy(codecs.begin(), codecs.end(), array.get());
    sortCodecs(array.get(), array.get() + codecs.size());
    return ids(array.get(), array.get() + codecs.size());
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
    std::iota(order.begin(), order.end(), 0);
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
    // {priority a, hw a, priority b, hw b, a before b}
    for (const auto& c : std::vector<std::array<int, 5>>{
             {1, 1, 5, 0, 1}, {5, 0, 1, 1, 1}, {5, 0, 1, 0, 1}, {5, 1, 5, 1, 0}, {1, 0, 1, 1, 0}})
        EXPECT_EQ(codecOrderLess(codec(0, c[0], c[1]), codec(1, c[2], c[3])), c[4] == 1)
            << c[0] << c[1] << " < " << c[2] << c[3];
}

// Random lists where every hardware priority is at or above every software
// one, so the comparator is a strict weak order; few distinct priorities, so
// many elements tie and the unstable placement of equal elements is compared
// too. Then presorted and all-equal lists, and inputs that exhaust the depth
// budget.
TEST(CodecOrder, SameAsStdSortWhereTheOrderIsConsistent)
{
    std::vector<std::vector<VideoCodecInfo>> lists;
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> priority(0, 6);
    std::bernoulli_distribution hw(0.4);
    for (int n : {0, 1, 2, 3, 15, 16, 17, 18, 31, 33, 64, 100, 257, 1000}) {
        for (int round = 0; round < 20; ++round) {
            lists.emplace_back();
            for (int i = 0; i < n; ++i) {
                const bool isHw = hw(random);
                lists.back().push_back(codec(i, isHw ? 6 + priority(random) : priority(random), isHw));
            }
        }
    }
    for (int n : {17, 40, 500}) {
        std::vector<VideoCodecInfo> equal, ascending, descending;
        for (int i = 0; i < n; ++i) {
            equal.push_back(codec(i, 7, false));
            ascending.push_back(codec(i, i, false));
            descending.push_back(codec(i, n - i, i < n / 3));
        }
        lists.insert(lists.end(), {equal, ascending, descending});
    }
    for (int n : {64, 300, 2000}) {
        // Descending priority comes first, so negate to make the adversary's
        // ascending order ours.
        const auto values = adversarialValues(n);
        lists.emplace_back();
        for (int i = 0; i < n; ++i)
            lists.back().push_back(codec(i, -values[i], false));
    }
    for (auto list : lists) {
        const auto ours = sortedByUs(list);
        std::sort(list.begin(), list.end(), codecOrderLess);
        ASSERT_EQ(ours, ids(list.begin(), list.end())) << "list of " << list.size();
    }
}

TEST(CodecOrder, InconsistentListsStayInsideTheArrayAndKeepEveryElement)
{
    // Software codecs outranking hardware ones make the comparator cyclic; the
    // sort must still stay within the array (checked by AddressSanitizer in
    // that build) and return a permutation of its input.
    std::mt19937 random(777);
    std::bernoulli_distribution hw(0.5);
    for (int n : {2, 5, 16, 17, 20, 33, 64, 200, 1000}) {
        for (int round = 0; round < 30; ++round) {
            std::uniform_int_distribution<int> priority(0, round % 2 == 0 ? 3 : 1000);
            std::vector<VideoCodecInfo> list;
            for (int i = 0; i < n; ++i)
                list.push_back(codec(i, priority(random), hw(random)));
            auto result = sortedByUs(list);
            std::sort(result.begin(), result.end());
            auto input = ids(list.begin(), list.end());
            std::sort(input.begin(), input.end());
            ASSERT_EQ(result, input) << "n=" << n << " round=" << round;
        }
    }
}

} // namespace
