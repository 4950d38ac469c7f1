// The hand-written codec sort: what std::sort gives where the order is a
// strict weak one, a permutation that stays inside the array where it is not.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>

#include "codec/codec_order.h"

using Tevara::Lumiflux::VideoCodecInfo;
using Tevara::Lumiflux::Internal::codecOrderLess;

namespace {

VideoCodecInfo codec(int index, int priority, bool hw)
{
    return {{}, false, std::to_string(index), priority, 0, hw};
}

std::vector<std::string> ids(const VideoCodecInfo* first, const VideoCodecInfo* last)
{
    std::vector<std::string> result;
    std::transform(first, last, std::back_inserter(result), [](const VideoCodecInfo& c) { return c.id; });
    return result;
}

// Values on which median-of-three quicksort degrades, so that the heap sort
// takes over: McIlroy's adversary, fixing values lazily while std::sort compares.
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
    // Consistent: hardware priorities above software ones, many ties; sorted,
    // equal and adversarial lists. Inconsistent: software outranking hardware.
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
        // In a heap array of exactly the list's size: AddressSanitizer sees any access past either end.
        auto array = std::make_unique<VideoCodecInfo[]>(list.size());
        std::copy(list.begin(), list.end(), array.get());
        Tevara::Lumiflux::Internal::sortCodecs(array.get(), array.get() + list.size());
        auto ours = ids(array.get(), array.get() + list.size()), expected = ids(list.data(), list.data() + list.size());
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
