#pragma once

// Writes H.264 syntax by hand: fixed-width fields, Exp-Golomb codes, the
// RBSP stop bit, emulation prevention and Annex B framing. Tests build their
// streams with it field by field, so each stream says what it contains.

#include <cstdint>
#include <vector>

namespace lumiflux_test {

class BitWriter {
public:
    BitWriter& u(int n, std::uint64_t value)
    {
        for (int i = n - 1; i >= 0; --i)
            bit(static_cast<unsigned>((value >> i) & 1));
        return *this;
    }
    BitWriter& flag(bool value) { return u(1, value ? 1 : 0); }
    BitWriter& ue(std::uint64_t value)
    {
        const std::uint64_t code = value + 1;
        int length = 0;
        while ((code >> length) > 1)
            ++length;
        u(length, 0);
        return u(length + 1, code);
    }
    BitWriter& se(std::int64_t value)
    {
        return ue(value > 0 ? static_cast<std::uint64_t>(2 * value - 1) : static_cast<std::uint64_t>(-2 * value));
    }
    /** rbsp_trailing_bits: a 1 and zeros up to the byte boundary. */
    BitWriter& trailing()
    {
        bit(1);
        while (bitCount % 8 != 0)
            bit(0);
        return *this;
    }
    /** Zero bits up to the byte boundary (no stop bit). */
    BitWriter& align()
    {
        while (bitCount % 8 != 0)
            bit(0);
        return *this;
    }
    const std::vector<std::uint8_t>& bytes() const { return out; }

private:
    void bit(unsigned value)
    {
        if (bitCount % 8 == 0)
            out.push_back(0);
        if (value != 0)
            out.back() |= static_cast<std::uint8_t>(0x80u >> (bitCount % 8));
        ++bitCount;
    }

    std::vector<std::uint8_t> out;
    std::uint64_t bitCount = 0;
};

/** Inserts an emulation-prevention 03 wherever two zeros meet a byte up to 03. */
inline std::vector<std::uint8_t> escapeRbsp(const std::vector<std::uint8_t>& rbsp)
{
    std::vector<std::uint8_t> out;
    int zeros = 0;
    for (std::uint8_t byte : rbsp) {
        if (zeros >= 2 && byte <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        out.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    return out;
}

/** Appends a start code (3 or 4 bytes) and the escaped unit to `stream`. */
inline void appendNal(std::vector<std::uint8_t>& stream, const std::vector<std::uint8_t>& rbsp, int startCode = 4)
{
    for (int i = 0; i < startCode - 1; ++i)
        stream.push_back(0);
    stream.push_back(1);
    const auto escaped = escapeRbsp(rbsp);
    stream.insert(stream.end(), escaped.begin(), escaped.end());
}

} // namespace lumiflux_test
