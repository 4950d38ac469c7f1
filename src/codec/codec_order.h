#pragma once

// The preference order of the root codec list.

#include <lumiflux/codec.h>

namespace Tevara::Lumiflux::Internal {

/**
 * Whether codec `a` is placed before codec `b`: a hardware codec before a
 * software one, or a higher priority before a lower one. Deliberately not a
 * lexicographic order on (hw, priority), so it is not a strict weak order when
 * a software codec outranks a hardware one.
 */
bool codecOrderLess(const VideoCodecInfo& a, const VideoCodecInfo& b);

/**
 * Sorts [first, last) by codecOrderLess with a fixed, hand-written
 * introspective sort, so that lists on which the comparator is not a strict
 * weak order come out the same whatever the standard library does. Where the
 * unguarded scans would leave the array (only such a comparator can make them)
 * they stop at its ends.
 */
void sortCodecs(VideoCodecInfo* first, VideoCodecInfo* last);

} // namespace Tevara::Lumiflux::Internal
