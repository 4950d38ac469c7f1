#include "parser/start_code_scan.h"

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define LUMIFLUX_SCAN_X86 1
#endif

namespace Tevara::Lumiflux::Internal {

namespace {

// The state between two 0x01 bytes: zeros before `runFloor` are summarised by
// `carried` (the counter at runFloor). Only the scan's start carries a
// counter; after any 0x01 the counter is 0.
struct RunState {
    std::size_t runFloor;
    int carried;
};

// The counter in front of data[position], from the zero run that ends there.
inline int counterBefore(const std::uint8_t* data, std::size_t position, const RunState& state)
{
    std::size_t q = position;
    while (q > state.runFloor && data[q - 1] == 0)
        --q;
    const std::size_t run = position - q;
    return static_cast<int>((run + (q == state.runFloor ? static_cast<std::size_t>(state.carried) : 0)) & 3);
}

// Decides one 0x01 byte. True when it completes a start code.
inline bool isStartCode(const std::uint8_t* data, std::size_t position, RunState& state, int& zeros)
{
    zeros = counterBefore(data, position, state);
    if ((zeros & 2) != 0)
        return true;
    // A 0x01 that starts nothing clears the counter like any other non-zero byte.
    state.runFloor = position + 1;
    state.carried = 0;
    return false;
}

StartCodeScan finish(const std::uint8_t* data, std::size_t size, const RunState& state, int& zeroCount)
{
    zeroCount = counterBefore(data, size, state);
    return {size, 0};
}

// Bytes past the last whole block (and the portable path): memchr finds each
// 0x01 with whatever the C library has for it.
StartCodeScan scanWithMemchr(const std::uint8_t* data, std::size_t position, std::size_t size, RunState& state,
                             int& zeroCount)
{
    while (position < size) {
        const void* hit = std::memchr(data + position, 1, size - position);
        if (hit == nullptr)
            break;
        const std::size_t one = static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - data);
        int zeros = 0;
        if (isStartCode(data, one, state, zeros)) {
            zeroCount = 0;
            return {one, zeros};
        }
        position = one + 1;
    }
    return finish(data, size, state, zeroCount);
}

#ifdef LUMIFLUX_SCAN_X86

// Each 64-byte block becomes a mask of its 0x01 bytes; the hits are walked
// bit by bit, so a block is loaded once however many 0x01 bytes it holds.
__attribute__((target("avx2"))) StartCodeScan scanAvx2(const std::uint8_t* data, std::size_t position, std::size_t size,
                                                       RunState& state, int& zeroCount)
{
    const __m256i ones = _mm256_set1_epi8(1);
    while (size - position >= 64) {
        const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + position));
        const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + position + 32));
        std::uint64_t mask =
            static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(low, ones))) |
            (static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(high, ones))))
             << 32);
        while (mask != 0) {
            const std::size_t one = position + static_cast<std::size_t>(__builtin_ctzll(mask));
            int zeros = 0;
            if (isStartCode(data, one, state, zeros)) {
                zeroCount = 0;
                return {one, zeros};
            }
            mask &= mask - 1;
        }
        position += 64;
    }
    return scanWithMemchr(data, position, size, state, zeroCount);
}

StartCodeScan scanSse2(const std::uint8_t* data, std::size_t position, std::size_t size, RunState& state,
                       int& zeroCount)
{
    const __m128i ones = _mm_set1_epi8(1);
    while (size - position >= 64) {
        std::uint64_t mask = 0;
        for (int part = 0; part < 4; ++part) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + position + 16 * part));
            mask |=
                static_cast<std::uint64_t>(static_cast<std::uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, ones))))
                << (16 * part);
        }
        while (mask != 0) {
            const std::size_t one = position + static_cast<std::size_t>(__builtin_ctzll(mask));
            int zeros = 0;
            if (isStartCode(data, one, state, zeros)) {
                zeroCount = 0;
                return {one, zeros};
            }
            mask &= mask - 1;
        }
        position += 64;
    }
    return scanWithMemchr(data, position, size, state, zeroCount);
}

#endif

using ScanFunction = StartCodeScan (*)(const std::uint8_t*, std::size_t, std::size_t, RunState&, int&);

ScanFunction functionFor(StartCodeScanner scanner)
{
    switch (scanner) {
#ifdef LUMIFLUX_SCAN_X86
    case StartCodeScanner::Avx2:
        return scanAvx2;
    case StartCodeScanner::Sse2:
        return scanSse2;
#endif
    case StartCodeScanner::Portable:
        return scanWithMemchr;
    default:
        return nullptr;
    }
}

ScanFunction bestFunction()
{
    // Chosen once, on first use (so no static initialiser order matters).
    static const ScanFunction chosen = functionFor(availableStartCodeScanners().front());
    return chosen;
}

} // namespace

std::vector<StartCodeScanner> availableStartCodeScanners()
{
    std::vector<StartCodeScanner> available;
#ifdef LUMIFLUX_SCAN_X86
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2"))
        available.push_back(StartCodeScanner::Avx2);
    available.push_back(StartCodeScanner::Sse2);
#endif
    available.push_back(StartCodeScanner::Portable);
    return available;
}

StartCodeScan scanForStartCode(const std::uint8_t* data, std::size_t begin, std::size_t size, int& zeroCount,
                               StartCodeScanner scanner)
{
    RunState state{begin, zeroCount & 3};
    if (begin >= size) {
        // Nothing scanned: the counter stays as it was.
        return {size, 0};
    }
    const ScanFunction function = scanner == StartCodeScanner::Best ? bestFunction() : functionFor(scanner);
    if (function == nullptr) {
        // Not built for this machine: nothing is searched.
        return {size, 0};
    }
    return function(data, begin, size, state, zeroCount);
}

} // namespace Tevara::Lumiflux::Internal
