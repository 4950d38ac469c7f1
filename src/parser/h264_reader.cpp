#include <lumiflux/h264_reader.h>

#include <algorithm>
#include <climits>

#include "parser/start_code_scan.h"
#include <lumiflux/log_line.h>

using Tevara::Lumiflux::LogInit;
using Tevara::Lumiflux::LogLevel;

H264Reader::H264Reader() : errorNames{"NoError", "FormatError", "EmptyError"} {}

void H264Reader::setData(const unsigned char* newData, unsigned long size)
{
    data = newData;
    dataSize = data != nullptr ? size : 0;
    scanOffset = -1;
    naluOffset = 0;
}

const std::string& H264Reader::errorName(Error which) const
{
    static const std::string unknown;
    if (which < NoError || which > EmptyError)
        return unknown;
    return errorNames[which];
}

unsigned long H264Reader::findNextNaluOffset()
{
    const std::size_t begin = scanOffset < 0 ? 0 : static_cast<std::size_t>(scanOffset);
    const auto found = Tevara::Lumiflux::Internal::scanForStartCode(data, begin, dataSize, zeroCount);
    if (found.onePosition >= dataSize) {
        scanOffset = static_cast<std::int64_t>(dataSize);
        return dataSize;
    }
    codeSize = found.zeros + 1;
    scanOffset = static_cast<std::int64_t>(found.onePosition + 1);
    // Unsigned on purpose: a start code whose zeros were in the previous
    // chunk lies before this chunk's first byte.
    return static_cast<unsigned long>(found.onePosition) - static_cast<unsigned long>(found.zeros);
}

std::pair<unsigned long, unsigned long> H264Reader::readNalUnit(bool allowLeadingBytes)
{
    constexpr unsigned long failed = static_cast<unsigned long>(-1);
    if (dataSize == 0) {
        throwError(EmptyError);
        return {failed, 0};
    }
    unsigned long start;
    if (scanOffset < 0) {
        scanOffset = 0;
        start = findNextNaluOffset();
        if (start != 0 && !allowLeadingBytes) {
            throwError(FormatError);
            return {failed, 0};
        }
    } else {
        start = static_cast<unsigned long>(naluOffset);
    }
    const unsigned long next = findNextNaluOffset();
    naluOffset = next;
    return {start, next - start};
}

H264NaluReader::H264NaluReader(unsigned char* unit, unsigned long size)
{
    // Byte 3 is only looked at when the unit has one.
    if (unit != nullptr && size >= 4 && unit[3] == 1) {
        unitData = unit + 4;
        length = size - 4;
    } else if (unit != nullptr && size >= 3 && unit[2] == 1) {
        unitData = unit + 3;
        length = size - 3;
    } else {
        LogInit();
        LUMIFLUX_LOG(LogLevel::Error, "main ") << "Invalid NAL Unit" << std::endl;
    }
}

unsigned int H264NaluReader::bitAt(std::uint64_t index) const
{
    if (index >= static_cast<std::uint64_t>(length) * 8)
        return 0;
    return (unitData[index >> 3] >> (7 - (index & 7))) & 1u;
}

unsigned int H264NaluReader::naluType() const
{
    return length > 0 ? unitData[0] & 0x1fu : 0u;
}

unsigned int H264NaluReader::getBit(unsigned int n) const
{
    return bitAt(n);
}

unsigned int H264NaluReader::readUnsigned(int n)
{
    if (n < 1)
        return 0;
    const std::uint64_t total = static_cast<std::uint64_t>(length) * 8;
    const std::uint64_t start = position;
    const std::uint64_t end = start + static_cast<std::uint64_t>(n);
    // Only the last 32 bits of a longer read survive in the result.
    const std::uint64_t first = std::max(start, end > 32 ? end - 32 : 0);
    std::uint32_t value = 0;
    for (std::uint64_t i = first; i < end; ++i)
        value = (value << 1) | bitAt(i);
    if (end > total)
        overran = true;
    // Saturates rather than wrapping back into the unit.
    position = static_cast<std::uint32_t>(std::min<std::uint64_t>(end, UINT32_MAX));
    return value;
}

unsigned int H264NaluReader::readGolomb()
{
    const std::uint64_t total = static_cast<std::uint64_t>(length) * 8;
    int zeros = 0;
    for (;;) {
        if (position >= total) {
            overran = true;
            return 0;
        }
        if (readUnsigned(1) != 0)
            break;
        ++zeros;
    }
    if (zeros >= 32) {
        readUnsigned(zeros);
        overran = true;
        return UINT32_MAX;
    }
    const std::uint64_t value = ((std::uint64_t{1} << zeros) - 1) + readUnsigned(zeros);
    if (value > UINT32_MAX) {
        overran = true;
        return UINT32_MAX;
    }
    return static_cast<unsigned int>(value);
}

bool H264NaluReader::parseSPS(int& width, int& height, int& level, int& profile)
{
    profile = static_cast<int>(readUnsigned(8));
    readUnsigned(8); // constraint flags and reserved bits
    level = static_cast<int>(readUnsigned(8));
    readGolomb(); // seq_parameter_set_id

    // The high profiles that carry chroma and bit-depth fields. 128 and above
    // other than 244 are left out on purpose.
    switch (profile) {
    case 100:
    case 110:
    case 122:
    case 244:
    case 44:
    case 83:
    case 86:
    case 118: {
        const unsigned int chromaFormat = readGolomb();
        if (chromaFormat == 3)
            readUnsigned(1); // separate_colour_plane_flag
        readGolomb();        // bit_depth_luma_minus8
        readGolomb();        // bit_depth_chroma_minus8
        readUnsigned(1);     // qpprime_y_zero_transform_bypass_flag
        if (readUnsigned(1) != 0)
            readUnsigned(chromaFormat == 3 ? 12 : 8); // the present flags only, not the lists
        break;
    }
    default:
        break;
    }

    readGolomb(); // log2_max_frame_num_minus4
    const unsigned int pocType = readGolomb();
    if (pocType == 0) {
        readGolomb(); // log2_max_pic_order_cnt_lsb_minus4
    } else if (pocType == 1) {
        readUnsigned(1); // delta_pic_order_always_zero_flag
        readGolomb();    // offset_for_non_ref_pic, read as it stands
        readGolomb();    // offset_for_top_to_bottom_field
        const unsigned int cycle = readGolomb();
        for (unsigned int i = 0; i < cycle && !overran; ++i)
            readGolomb();
    }
    readGolomb();    // max_num_ref_frames
    readUnsigned(1); // gaps_in_frame_num_value_allowed_flag
    const std::uint64_t widthInMbs = std::uint64_t{readGolomb()} + 1;
    const std::uint64_t heightInMapUnits = std::uint64_t{readGolomb()} + 1;
    const unsigned int frameMbsOnly = readUnsigned(1);
    if (overran)
        return false;

    const std::uint64_t codedWidth = widthInMbs * 16;
    const std::uint64_t codedHeight = (2 - frameMbsOnly) * heightInMapUnits * 16;
    if (codedWidth > INT_MAX || codedHeight > INT_MAX)
        return false;
    width = static_cast<int>(codedWidth);
    height = static_cast<int>(codedHeight);
    return true;
}
