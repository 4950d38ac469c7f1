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

TEST(CodecOrder, SameAsStdSortWhereTheOrderIsConsistentAPermutationWhereNot)
{
    // Consistent: every hardware priority above every software one, few
    // distinct priorities so that many elements tie; sorted, all equal and
    // adversarial lists. Inconsistent (cyclic): software outranking hardware.
    std::vector<std::pair<bool, std::vector<VideoCodecInfo>>> lists;
    std::mt19937 random(12345);
    for (int n : {0, 1, 2, 3, 5, 15, 16, 17, 18, 20, 31, 33, 64, 100, 257, 1000})
        for (int round = 0; round < 40; ++round) {
            const bool consistent = round % 2 == 0;
            std::uniform_int_distribution<int> priority(0, consistent || round % 4 == 1 ? 6 : 1000);
            lists.emplace_back(consistent, std::vector<VideoCodecInfo>());
            for (int i = 0; i < n; ++i) {
                const bool hw = random() % 5 < 2;
                lists.back().second.push_back(codec(i, priority(random) + (consistent && hw ? 7 : 0), hw));
            }
        }
    for (int n : {17, 40, 500}) {
        std::vector<VideoCodecInfo> equal, ascending, descending, adversarial;
        const auto values = adversarialValues(n);
        for (int i = 0; i < n; ++i) {
            equal.push_back(codec(i, 7, false));
            ascending.push_back(codec(i, i, false));
            descending.push_back(codec(i, n - i, i < n / 3));
            adversarial.push_back(codec(i, -values[i], false)); // negated: a higher priority comes first
        }
        for (auto* list : {&equal, &ascending, &descending, &adversarial})
            lists.emplace_back(true, *list);
    }
    for (auto& [consistent, list] : lists) {
        auto ours = sortedByUs(list), expected = ids(list.data(), list.data() + list.size());
        if (consistent) {
            std::sort(list.begin(), list.end(), codecOrderLess);
            expected = ids(list.data(), list.data() + list.size());
        } else {
            std::sort(ours.begin(), ours.end());
            std::sort(expected.begin(), expected.end());
        }
        ASSERT_EQ(ours, expected) << (consistent ? "consistent" : "inconsistent") << " list of " << list.size();
    }
}

} // namespace
