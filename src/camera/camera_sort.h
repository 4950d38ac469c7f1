#pragma once

// The ordering of the camera list. An introspective sort (quick sort with
// a median-of-three pivot, heap sort when the recursion gets too deep) that
// leaves runs of up to 16 elements unsorted and finishes with one insertion
// sort over the whole range. Applications rely on a side effect of that
// shape: a list of at most 16 cameras is only ever insertion-sorted, which
// is stable, so cameras with equal facing keep their enumeration order. For
// longer lists their order is unspecified.

#include <algorithm>
#include <iterator>
#include <vector>

#include <lumiflux/camera.h>

namespace Tevara::Lumiflux::Internal {

constexpr long introSortThreshold = 16;

template <typename It, typename Less> void insertionSort(It first, It last, Less less)
{
    if (first == last)
        return;
    for (It i = first + 1; i != last; ++i) {
        auto value = std::move(*i);
        It hole = i;
        // Strictly less: equal elements never pass each other.
        while (hole != first && less(value, *(hole - 1))) {
            *hole = std::move(*(hole - 1));
            --hole;
        }
        *hole = std::move(value);
    }
}

// Puts the median of *a, *b, *c at *result.
template <typename It, typename Less> void moveMedianToFirst(It result, It a, It b, It c, Less less)
{
    if (less(*a, *b)) {
        if (less(*b, *c))
            std::iter_swap(result, b);
        else if (less(*a, *c))
            std::iter_swap(result, c);
        else
            std::iter_swap(result, a);
    } else if (less(*a, *c))
        std::iter_swap(result, a);
    else if (less(*b, *c))
        std::iter_swap(result, c);
    else
        std::iter_swap(result, b);
}

// Partitions [first + 1, last) around the pivot at *first; the median of
// three guarantees both scans stop inside the range without bound checks.
template <typename It, typename Less> It partitionAroundFirst(It first, It last, Less less)
{
    It left = first + 1;
    It right = last;
    while (true) {
        while (less(*left, *first))
            ++left;
        --right;
        while (less(*first, *right))
            --right;
        if (!(left < right))
            return left;
        std::iter_swap(left, right);
        ++left;
    }
}

template <typename It, typename Less> void introSortLoop(It first, It last, long depthLimit, Less less)
{
    while (last - first > introSortThreshold) {
        if (depthLimit == 0) {
            std::make_heap(first, last, less);
            std::sort_heap(first, last, less);
            return;
        }
        --depthLimit;
        It mid = first + (last - first) / 2;
        moveMedianToFirst(first, first + 1, mid, last - 1, less);
        It cut = partitionAroundFirst(first, last, less);
        introSortLoop(cut, last, depthLimit, less);
        last = cut;
    }
}

template <typename It, typename Less> void introSort(It first, It last, Less less)
{
    const long n = static_cast<long>(last - first);
    if (n < 2)
        return;
    long depth = 0;
    for (long k = n; k > 1; k >>= 1)
        ++depth;
    introSortLoop(first, last, 2 * depth, less);
    insertionSort(first, last, less);
}

inline void sortCamerasByFacing(std::vector<CameraInfo>& cameras)
{
    introSort(cameras.begin(), cameras.end(),
              [](const CameraInfo& a, const CameraInfo& b) { return a.facing < b.facing; });
}

} // namespace Tevara::Lumiflux::Internal
