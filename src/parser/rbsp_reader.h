#pragma once

// Bit reading over a raw byte sequence payload: the NAL unit's bytes with the
// emulation-prevention bytes (the 03 of every 00 00 03) taken out. Reads past
// the end yield zero bits and set failed(); a failed read never touches
// memory outside the payload.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tevara::Lumiflux::Internal {

/**
 * The payload of the unit `nal` (header byte first, `size` bytes) without its
 * emulation-prevention bytes, limited to the first `limit` payload bytes
 * (slice headers need only a few dozen).
 */
std::vector<std::uint8_t> unescapeRbsp(const std::uint8_t* nal, std::size_t size,
                                       std::size_t limit = static_cast<std::size_t>(-1));

class RbspReader {
public:
    RbspReader(const std::uint8_t* bytes, std::size_t size) : data(bytes), bits(static_cast<std::uint64_t>(size) * 8)
    {
        // The stop bit is the last 1 bit of the payload; trailing zero bytes
        // (cabac_zero_words, padding) come after it.
        std::size_t last = size;
        while (last > 0 && bytes[last - 1] == 0)
            --last;
        if (last > 0)
            stopBit =
                (static_cast<std::uint64_t>(last) - 1) * 8 + 7 - static_cast<unsigned>(__builtin_ctz(bytes[last - 1]));
    }

    /** The next n bits (0..32), most significant first. */
    std::uint32_t u(int n)
    {
        std::uint32_t value = 0;
        for (int i = 0; i < n; ++i)
            value = (value << 1) | bit();
        return value;
    }
    bool flag() { return bit() != 0; }

    /** Unsigned Exp-Golomb; codes longer than 32 bits fail. */
    std::uint32_t ue()
    {
        int zeros = 0;
        while (bit() == 0) {
            if (failure || ++zeros > 31) {
                failure = true;
                return 0;
            }
        }
        return static_cast<std::uint32_t>(((std::uint64_t{1} << zeros) - 1) + u(zeros));
    }
    /** Signed Exp-Golomb. */
    std::int64_t se()
    {
        const std::uint64_t code = ue();
        return (code & 1) != 0 ? static_cast<std::int64_t>((code + 1) / 2) : -static_cast<std::int64_t>(code / 2);
    }

    void skip(std::uint64_t n)
    {
        if (bits - position < n) {
            position = bits;
            failure = true;
            return;
        }
        position += n;
    }
    bool byteAligned() const { return (position & 7) == 0; }
    std::uint64_t bitsLeft() const { return bits - position; }
    std::uint64_t bitPosition() const { return position; }
    bool failed() const { return failure; }

    /** More data before the rbsp_trailing_bits (the last 1 bit and its zero padding). */
    bool moreRbspData() const { return stopBit != noStopBit && position < stopBit; }

private:
    unsigned bitAt(std::uint64_t index) const { return (data[index >> 3] >> (7 - (index & 7))) & 1u; }
    unsigned bit()
    {
        if (position >= bits) {
            failure = true;
            return 0;
        }
        return bitAt(position++);
    }

    const std::uint8_t* data;
    std::uint64_t bits;
    std::uint64_t position = 0;
    bool failure = false;
    static constexpr std::uint64_t noStopBit = ~std::uint64_t{0};
    std::uint64_t stopBit = noStopBit;
};

} // namespace Tevara::Lumiflux::Internal
