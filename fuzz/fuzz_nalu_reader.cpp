// Cuts the input into NAL units and reads each one with every H264NaluReader
// operation, from an exact-size copy, so any read outside a unit trips
// AddressSanitizer.

#include <cstddef>
#include <cstdint>
#include <vector>

#include <lumiflux/h264_reader.h>

#include "quiet_log.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size)
{
    H264Reader reader;
    reader.setData(input, size);
    const bool allowLeading = size > 0 && (input[0] & 1) != 0;
    int units = 0;
    for (auto unit = reader.readNalUnit(allowLeading); unit.second > 0 && unit.first < size && units < 4096;
         unit = reader.readNalUnit(), ++units) {
        std::vector<unsigned char> copy(input + unit.first, input + unit.first + unit.second);
        H264NaluReader sps(copy.data(), copy.size());
        int width = 0, height = 0, level = 0, profile = 0;
        if (sps.parseSPS(width, height, level, profile) && (width <= 0 || height <= 0))
            __builtin_trap();

        H264NaluReader bits(copy.data(), copy.size());
        bits.naluType();
        bits.getBit(static_cast<unsigned>(copy.size()) * 8u + 3u);
        for (int i = 0; i < 64 && !bits.overrun(); ++i) {
            bits.readGolomb();
            bits.readUnsigned(i % 40 - 4);
        }
    }
    return 0;
}
