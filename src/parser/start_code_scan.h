#pragma once

// The start-code search at the heart of every stream read. It returns exactly
// what the byte-by-byte state machine does (zero counter that wraps to 0 on a
// fourth consecutive zero; a 0x01 after two or three counted zeros is a start
// code), but it only looks at the 0x01 bytes: the counter in front of a 0x01
// is the length of the zero run before it (mod 4), plus the counter carried
// into the scan when that run reaches back to where the scan began. Bytes
// above 0x01 are skipped a block at a time.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tevara::Lumiflux::Internal {

struct StartCodeScan {
    /** Index of the 0x01 byte that completes the start code, or `size` when none. */
    std::size_t onePosition;
    /** Zeros counted in front of it (2 or 3); meaningless when none was found. */
    int zeros;
};

/** How the 0x01 bytes are found. All give the same results; Best picks the fastest this CPU runs. */
enum class StartCodeScanner { Best, Avx2, Sse2, Portable };

/** The scanners this CPU can run, fastest first (tests compare them all). */
std::vector<StartCodeScanner> availableStartCodeScanners();

/**
 * Scans data[begin, size) with `zeroCount` (0..3) zeros counted before
 * `begin`. On a start code, `zeroCount` becomes 0; otherwise it becomes the
 * counter at the end of the data. A scanner this CPU cannot run finds nothing.
 */
StartCodeScan scanForStartCode(const std::uint8_t* data, std::size_t begin, std::size_t size, int& zeroCount,
                               StartCodeScanner scanner = StartCodeScanner::Best);

} // namespace Tevara::Lumiflux::Internal
