#include "codec/codec_order.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace Tevara::Lumiflux::Internal {

bool codecOrderLess(const VideoCodecInfo& a, const VideoCodecInfo& b)
{
    return (a.hw && !b.hw) || a.priority > b.priority;
}

namespace {

// Runs shorter than this are left to the final insertion pass.
constexpr std::ptrdiff_t insertionThreshold = 16;

using Codec = VideoCodecInfo;

bool less(const Codec& a, const Codec& b)
{
    return codecOrderLess(a, b);
}

// ---- heap sort, used when a run has used up its depth budget

void pushHeap(Codec* first, std::ptrdiff_t hole, std::ptrdiff_t top, Codec value)
{
    std::ptrdiff_t parent = (hole - 1) / 2;
    while (hole > top && less(first[parent], value)) {
        first[hole] = std::move(first[parent]);
        hole = parent;
        parent = (hole - 1) / 2;
    }
    first[hole] = std::move(value);
}

void adjustHeap(Codec* first, std::ptrdiff_t hole, std::ptrdiff_t length, Codec value)
{
    const std::ptrdiff_t top = hole;
    std::ptrdiff_t child = hole;
    while (child < (length - 1) / 2) {
        child = 2 * (child + 1);
        if (less(first[child], first[child - 1]))
            --child;
        first[hole] = std::move(first[child]);
        hole = child;
    }
    if ((length & 1) == 0 && child == (length - 2) / 2) {
        child = 2 * (child + 1);
        first[hole] = std::move(first[child - 1]);
        hole = child - 1;
    }
    pushHeap(first, hole, top, std::move(value));
}

void heapSort(Codec* first, Codec* last)
{
    const std::ptrdiff_t length = last - first;
    if (length < 2)
        return;
    for (std::ptrdiff_t parent = (length - 2) / 2;; --parent) {
        Codec value = std::move(first[parent]);
        adjustHeap(first, parent, length, std::move(value));
        if (parent == 0)
            break;
    }
    while (last - first > 1) {
        --last;
        Codec value = std::move(*last);
        *last = std::move(*first);
        adjustHeap(first, 0, last - first, std::move(value));
    }
}

// ---- partition

// Moves the median of a, b and c to `result`.
void moveMedianToFirst(Codec* result, Codec* a, Codec* b, Codec* c)
{
    if (less(*a, *b)) {
        if (less(*b, *c))
            std::swap(*result, *b);
        else if (less(*a, *c))
            std::swap(*result, *c);
        else
            std::swap(*result, *a);
    } else if (less(*a, *c)) {
        std::swap(*result, *a);
    } else if (less(*b, *c)) {
        std::swap(*result, *c);
    } else {
        std::swap(*result, *b);
    }
}

// Hoare-style partition of [left, right) around *pivot without the usual
// bound checks: with a strict weak order the pivot and the median-of-three
// stop both scans. The checks against the array's ends [begin, end) only
// matter for the comparator's inconsistent cases.
Codec* partition(Codec* left, Codec* right, const Codec* pivot, const Codec* begin, const Codec* end)
{
    while (true) {
        while (left != end && less(*left, *pivot))
            ++left;
        --right;
        while (right != begin && less(*pivot, *right))
            --right;
        if (!(left < right))
            return left;
        std::swap(*left, *right);
        ++left;
    }
}

void introsortLoop(Codec* first, Codec* last, int depthBudget, const Codec* begin, const Codec* end)
{
    while (last - first > insertionThreshold) {
        if (depthBudget == 0) {
            heapSort(first, last);
            return;
        }
        --depthBudget;
        Codec* middle = first + (last - first) / 2;
        moveMedianToFirst(first, first + 1, middle, last - 1);
        Codec* cut = partition(first + 1, last, first, begin, end);
        introsortLoop(cut, last, depthBudget, begin, end);
        last = cut;
    }
}

// ---- final insertion pass

// Moves *position left while it is placed before its left neighbour, never
// past `begin`.
void linearInsert(Codec* position, const Codec* begin)
{
    Codec value = std::move(*position);
    while (position != begin && less(value, *(position - 1))) {
        *position = std::move(*(position - 1));
        --position;
    }
    *position = std::move(value);
}

void insertionSort(Codec* first, Codec* last)
{
    if (first == last)
        return;
    for (Codec* i = first + 1; i != last; ++i) {
        if (less(*i, *first)) {
            Codec value = std::move(*i);
            std::move_backward(first, i, i + 1);
            *first = std::move(value);
        } else {
            linearInsert(i, first);
        }
    }
}

int floorLog2(std::ptrdiff_t n)
{
    int result = 0;
    while (n > 1) {
        n >>= 1;
        ++result;
    }
    return result;
}

} // namespace

void sortCodecs(VideoCodecInfo* first, VideoCodecInfo* last)
{
    if (first == nullptr || last - first < 1)
        return;
    introsortLoop(first, last, 2 * floorLog2(last - first), first, last);
    if (last - first > insertionThreshold) {
        insertionSort(first, first + insertionThreshold);
        for (Codec* i = first + insertionThreshold; i != last; ++i)
            linearInsert(i, first);
    } else {
        insertionSort(first, last);
    }
}

} // namespace Tevara::Lumiflux::Internal
