// The hand-written codec sort: the same result as this toolchain's std::sort
// where the comparator is a strict weak order, and a permutation that stays
// inside the array where it is not.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "codec/codec_order.h"

using Tevara::Lumiflux::VideoCodecInfo;
using Tevara::Lumiflux::Internal::codecOrderLess;

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

// Sorted in a heap array of exactly the list's size, so that AddressSanitizer
// sees any access past either end.
std::vector<std::string> sortedByUs(const std::vector<VideoCodecInfo>& codecs)
{
    auto array = std::make_unique<VideoCodecInfo[]>(codecs.size());
    std::copy(codecs.begin(), codecs.end(), array.get());
    Tevara::Lumiflux::Internal::sortCodecs(array.get(), array.get() + codecs.size());
    return ids(array.get(), array.get() + codecs.size());
}

// Values on which median-of-three quicksort degrades, so that the depth
// budget runs out and the heap sort takes over: McIlroy's adversary, which
// fixes values lazily while std::sort compares them.
std::vector<int> adversarialValues(int n)
{
    std::vector<int> values(n, n), order(n);
    int solid = 0, candidate = 0;
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&](int x, int y) {
        if (values[x] == n && values[y] == n)
            values[x == candidate ? x : y] = solid++;
        if (values[x] == n)
            candidate = x;
        else if (values[y] == n)
            candidate = y;
        return values[x] < values[y];
    });
    for (auto& v : values)
        if (v == n)
            v = solid++;
    return values;
}

TEST(CodecOrder, SameAsStdSortWhereTheOrderIsConsistent)
{
    // Random lists with every hardware priority above every software one and
    // few distinct priorities, so that many elements tie; then sorted, all
    // equal and adversarial lists.
    std::vector<std::vector<VideoCodecInfo>> lists;
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> priority(0, 6);
    std::bernoulli_distribution hw(0.4);
    for (int n : {0, 1, 2, 3, 15, 16, 17, 18, 31, 33, 64, 100, 257, 1000})
        for (int round = 0; round < 20; ++round) {
            lists.emplace_back();
            for (int i = 0; i < n; ++i) {
                const bool isHw = hw(random);
                lists.back().push_back(codec(i, isHw ? 6 + priority(random) : priority(random), isHw));
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
        const auto values = adversarialValues(n);
        lists.emplace_back();
        for (int i = 0; i < n; ++i) // negated: a higher priority comes first
            lists.back().push_back(codec(i, -values[i], false));
    }
    for (auto list : lists) {
        const auto ours = sortedByUs(list);
        std::sort(list.begin(), list.end(), codecOrderLess);
        ASSERT_EQ(ours, ids(list.data(), list.data() + list.size())) << "list of " << list.size();
    }
}

TEST(CodecOrder, InconsistentListsStayInsideTheArrayAndKeepEveryElement)
{
    // Software codecs outranking hardware ones make the comparator cyclic.
    std::mt19937 random(777);
    std::bernoulli_distribution hw(0.5);
    for (int n : {2, 5, 16, 17, 20, 33, 64, 200, 1000})
        for (int round = 0; round < 30; ++round) {
            std::uniform_int_distribution<int> priority(0, round % 2 == 0 ? 3 : 1000);
            std::vector<VideoCodecInfo> list;
            for (int i = 0; i < n; ++i)
                list.push_back(codec(i, priority(random), hw(random)));
            auto result = sortedByUs(list);
            auto input = ids(list.data(), list.data() + list.size());
            std::sort(result.begin(), result.end());
            std::sort(input.begin(), input.end());
            ASSERT_EQ(result, input) << "n=" << n << " round=" << round;
        }
}

} // namespace
