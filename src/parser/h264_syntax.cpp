#include "parser/h264_syntax.h"

#include <array>

#include "parser/rbsp_reader.h"

namespace Tevara::Lumiflux::Internal {

namespace {

// Sizes beyond this are not video we can describe; rejecting them keeps every
// product of macroblock counts well inside an int.
constexpr std::uint64_t maxCodedDimension = 32768;

// Sample aspect ratios by aspect_ratio_idc 1..16, as H.264 numbers them.
constexpr std::array<std::array<unsigned, 2>, 17> sampleAspectRatios{{{0, 0},
                                                                      {1, 1},
                                                                      {12, 11},
                                                                      {10, 11},
                                                                      {16, 11},
                                                                      {40, 33},
                                                                      {24, 11},
                                                                      {20, 11},
                                                                      {32, 11},
                                                                      {80, 33},
                                                                      {18, 11},
                                                                      {15, 11},
                                                                      {64, 33},
                                                                      {160, 99},
                                                                      {4, 3},
                                                                      {3, 2},
                                                                      {2, 1}}};

bool hasChromaFields(int profileIdc)
{
    switch (profileIdc) {
    case 100:
    case 110:
    case 122:
    case 244:
    case 44:
    case 83:
    case 86:
    case 118:
    case 128:
    case 138:
    case 139:
    case 134:
    case 135:
        return true;
    default:
        return false;
    }
}

// Checks one field; fills `error` with its name, value and range when it is out of range.
bool inRange(const char* what, std::uint64_t value, std::uint64_t maximum, std::string& error)
{
    if (value <= maximum)
        return true;
    error =
        std::string("SPS ") + what + " is " + std::to_string(value) + ", out of range 0.." + std::to_string(maximum);
    return false;
}

// Reads past one scaling list: its values only matter to the decoder.
bool skipScalingList(RbspReader& bits, int size, std::string& error)
{
    int lastScale = 8;
    int nextScale = 8;
    for (int j = 0; j < size; ++j) {
        if (nextScale != 0) {
            const std::int64_t delta = bits.se();
            if (delta < -128 || delta > 127) {
                error = "SPS delta_scale is " + std::to_string(delta) + ", out of range -128..127";
                return false;
            }
            nextScale = static_cast<int>((lastScale + delta + 256) % 256);
        }
        lastScale = nextScale == 0 ? lastScale : nextScale;
    }
    return true;
}

bool parseVui(RbspReader& bits, SequenceParameterSet& sps, std::string& error)
{
    if (bits.flag()) { // aspect_ratio_info_present_flag
        const unsigned idc = bits.u(8);
        if (idc == 255) {
            sps.sarWidth = bits.u(16);
            sps.sarHeight = bits.u(16);
            if (sps.sarWidth == 0 || sps.sarHeight == 0)
                sps.sarWidth = sps.sarHeight = 0; // unspecified
        } else if (idc < sampleAspectRatios.size()) {
            sps.sarWidth = sampleAspectRatios[idc][0];
            sps.sarHeight = sampleAspectRatios[idc][1];
        }
    }
    if (bits.flag())   // overscan_info_present_flag
        bits.skip(1);  // overscan_appropriate_flag
    if (bits.flag()) { // video_signal_type_present_flag
        bits.skip(4);  // video_format, video_full_range_flag
        if (bits.flag())
            bits.skip(24); // colour primaries, transfer, matrix
    }
    if (bits.flag()) { // chroma_loc_info_present_flag
        bits.ue();
        bits.ue();
    }
    if (bits.flag()) { // timing_info_present_flag
        sps.numUnitsInTick = bits.u(32);
        sps.timeScale = bits.u(32);
        sps.fixedFrameRate = bits.flag();
        if (!bits.failed() && (sps.numUnitsInTick == 0 || sps.timeScale == 0)) {
            error = "SPS timing info has num_units_in_tick " + std::to_string(sps.numUnitsInTick) + " and time_scale " +
                    std::to_string(sps.timeScale) + "; both must be above 0";
            return false;
        }
    }
    // What follows (HRD, bitstream restrictions) describes buffering only.
    return true;
}

} // namespace

std::vector<std::uint8_t> unescapeRbsp(const std::uint8_t* nal, std::size_t size, std::size_t limit)
{
    std::vector<std::uint8_t> out;
    out.reserve(size < limit ? size : limit);
    int zeros = 0;
    for (std::size_t i = 0; i < size && out.size() < limit; ++i) {
        const std::uint8_t byte = nal[i];
        if (zeros >= 2 && byte == 3) {
            zeros = 0; // emulation_prevention_three_byte
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        out.push_back(byte);
    }
    return out;
}

SequenceParameterSet parseSequenceParameterSet(const std::vector<std::uint8_t>& rbsp, std::string& error)
{
    SequenceParameterSet sps;
    error.clear();
    RbspReader bits(rbsp.data(), rbsp.size());
    bits.skip(8); // NAL header
    sps.profileIdc = static_cast<int>(bits.u(8));
    sps.constraintFlags = static_cast<int>(bits.u(8));
    sps.levelIdc = static_cast<int>(bits.u(8));
    sps.id = bits.ue();
    if (!inRange("seq_parameter_set_id", sps.id, 31, error))
        return sps;
    if (hasChromaFields(sps.profileIdc)) {
        sps.chromaFormatIdc = bits.ue();
        if (!inRange("chroma_format_idc", sps.chromaFormatIdc, 3, error))
            return sps;
        if (sps.chromaFormatIdc == 3)
            sps.separateColourPlane = bits.flag();
        const unsigned lumaMinus8 = bits.ue();
        const unsigned chromaMinus8 = bits.ue();
        if (!inRange("bit_depth_luma_minus8", lumaMinus8, 6, error) ||
            !inRange("bit_depth_chroma_minus8", chromaMinus8, 6, error))
            return sps;
        sps.bitDepthLuma = lumaMinus8 + 8;
        sps.bitDepthChroma = chromaMinus8 + 8;
        bits.skip(1); // qpprime_y_zero_transform_bypass_flag
        sps.scalingMatrixPresent = bits.flag();
        if (sps.scalingMatrixPresent) {
            const int lists = sps.chromaFormatIdc != 3 ? 8 : 12;
            for (int i = 0; i < lists && !bits.failed(); ++i) {
                if (bits.flag() && !skipScalingList(bits, i < 6 ? 16 : 64, error))
                    return sps;
            }
        }
    }
    const unsigned log2MaxFrameNumMinus4 = bits.ue();
    if (!inRange("log2_max_frame_num_minus4", log2MaxFrameNumMinus4, 12, error))
        return sps;
    sps.log2MaxFrameNum = log2MaxFrameNumMinus4 + 4;
    sps.pocType = bits.ue();
    if (!inRange("pic_order_cnt_type", sps.pocType, 2, error))
        return sps;
    if (sps.pocType == 0) {
        const unsigned log2MaxPocLsbMinus4 = bits.ue();
        if (!inRange("log2_max_pic_order_cnt_lsb_minus4", log2MaxPocLsbMinus4, 12, error))
            return sps;
        sps.log2MaxPocLsb = log2MaxPocLsbMinus4 + 4;
    } else if (sps.pocType == 1) {
        sps.deltaPicOrderAlwaysZero = bits.flag();
        bits.se(); // offset_for_non_ref_pic
        bits.se(); // offset_for_top_to_bottom_field
        const unsigned cycle = bits.ue();
        if (!inRange("num_ref_frames_in_pic_order_cnt_cycle", cycle, 255, error))
            return sps;
        for (unsigned i = 0; i < cycle; ++i)
            bits.se();
    }
    sps.maxNumRefFrames = bits.ue();
    if (!inRange("max_num_ref_frames", sps.maxNumRefFrames, 16, error))
        return sps;
    bits.skip(1); // gaps_in_frame_num_value_allowed_flag
    const std::uint64_t widthInMbs = std::uint64_t{bits.ue()} + 1;
    const std::uint64_t heightInMapUnits = std::uint64_t{bits.ue()} + 1;
    sps.frameMbsOnly = bits.flag();
    if (bits.failed()) {
        error = "SPS is truncated before its picture size";
        return sps;
    }
    if (!inRange("pic_width_in_mbs_minus1", widthInMbs - 1, maxCodedDimension / 16 - 1, error) ||
        !inRange("pic_height_in_map_units_minus1", heightInMapUnits - 1,
                 maxCodedDimension / 16 / (sps.frameMbsOnly ? 1 : 2) - 1, error))
        return sps;
    sps.widthInMbs = static_cast<unsigned>(widthInMbs);
    sps.heightInMapUnits = static_cast<unsigned>(heightInMapUnits);
    if (!sps.frameMbsOnly)
        sps.mbAdaptiveFrameField = bits.flag();
    bits.skip(1);      // direct_8x8_inference_flag
    if (bits.flag()) { // frame_cropping_flag
        const std::uint64_t left = bits.ue(), right = bits.ue(), top = bits.ue(), bottom = bits.ue();
        // Crop offsets count in chroma samples, and in field lines for field coding.
        const unsigned chromaArrayType = sps.separateColourPlane ? 0 : sps.chromaFormatIdc;
        const std::uint64_t subWidth = chromaArrayType == 1 || chromaArrayType == 2 ? 2 : 1;
        const std::uint64_t subHeight = chromaArrayType == 1 ? 2 : 1;
        const std::uint64_t unitX = subWidth;
        const std::uint64_t unitY = subHeight * (sps.frameMbsOnly ? 1 : 2);
        if ((left + right) * unitX >= static_cast<std::uint64_t>(sps.codedWidth()) ||
            (top + bottom) * unitY >= static_cast<std::uint64_t>(sps.codedHeight())) {
            error = "SPS frame cropping (" + std::to_string(left) + ", " + std::to_string(right) + ", " +
                    std::to_string(top) + ", " + std::to_string(bottom) + ") leaves nothing of the coded " +
                    std::to_string(sps.codedWidth()) + "x" + std::to_string(sps.codedHeight()) + " picture";
            return sps;
        }
        sps.cropLeft = static_cast<unsigned>(left * unitX);
        sps.cropRight = static_cast<unsigned>(right * unitX);
        sps.cropTop = static_cast<unsigned>(top * unitY);
        sps.cropBottom = static_cast<unsigned>(bottom * unitY);
    }
    if (bits.flag() && !parseVui(bits, sps, error)) // vui_parameters_present_flag
        return sps;
    if (bits.failed())
        error = "SPS is truncated";
    return sps;
}

PictureParameterSet parsePictureParameterSet(const std::vector<std::uint8_t>& rbsp, std::string& error)
{
    PictureParameterSet pps;
    error.clear();
    RbspReader bits(rbsp.data(), rbsp.size());
    bits.skip(8);
    pps.id = bits.ue();
    pps.spsId = bits.ue();
    pps.entropyCodingMode = bits.flag();
    pps.bottomFieldPicOrderInFramePresent = bits.flag();
    if (bits.failed())
        error = "PPS is truncated";
    else if (pps.id > 255)
        error = "PPS pic_parameter_set_id is " + std::to_string(pps.id) + ", out of range 0..255";
    else if (pps.spsId > 31)
        error = "PPS seq_parameter_set_id is " + std::to_string(pps.spsId) + ", out of range 0..31";
    return pps;
}

SliceHeader parseSliceHeader(const std::vector<std::uint8_t>& rbsp, const PictureParameterSet* const* ppsTable,
                             const SequenceParameterSet* const* spsTable, std::string& error)
{
    SliceHeader slice;
    error.clear();
    RbspReader bits(rbsp.data(), rbsp.size());
    const unsigned header = bits.u(8);
    slice.nalRefIdc = static_cast<int>((header >> 5) & 3);
    slice.nalType = static_cast<int>(header & 0x1f);
    slice.firstMbInSlice = bits.ue();
    slice.sliceType = bits.ue();
    slice.ppsId = bits.ue();
    if (bits.failed()) {
        error = "slice header is truncated";
        return slice;
    }
    if (slice.sliceType > 9) {
        error = "slice_type is " + std::to_string(slice.sliceType) + ", out of range 0..9";
        return slice;
    }
    const PictureParameterSet* pps = slice.ppsId <= 255 ? ppsTable[slice.ppsId] : nullptr;
    if (pps == nullptr) {
        error = "slice refers to PPS " + std::to_string(slice.ppsId) + ", which the stream has not defined";
        return slice;
    }
    const SequenceParameterSet* sps = spsTable[pps->spsId];
    if (sps == nullptr) {
        error = "PPS " + std::to_string(pps->id) + " refers to SPS " + std::to_string(pps->spsId) +
                ", which the stream has not defined";
        return slice;
    }
    if (sps->separateColourPlane)
        slice.colourPlaneId = bits.u(2);
    slice.frameNum = bits.u(static_cast<int>(sps->log2MaxFrameNum));
    if (!sps->frameMbsOnly) {
        slice.fieldPic = bits.flag();
        if (slice.fieldPic)
            slice.bottomField = bits.flag();
    }
    if (slice.nalType == 5)
        slice.idrPicId = bits.ue();
    if (sps->pocType == 0) {
        slice.pocLsb = bits.u(static_cast<int>(sps->log2MaxPocLsb));
        if (pps->bottomFieldPicOrderInFramePresent && !slice.fieldPic)
            slice.deltaPocBottom = bits.se();
    } else if (sps->pocType == 1 && !sps->deltaPicOrderAlwaysZero) {
        slice.deltaPoc[0] = bits.se();
        if (pps->bottomFieldPicOrderInFramePresent && !slice.fieldPic)
            slice.deltaPoc[1] = bits.se();
    }
    if (bits.failed())
        error = "slice header is truncated";
    return slice;
}

bool startsNewPicture(const SliceHeader& previous, const SliceHeader& next, const SequenceParameterSet& sps)
{
    // The first VCL NAL unit of a new primary coded picture differs from the
    // previous picture's slices in one of these.
    if (next.frameNum != previous.frameNum || next.ppsId != previous.ppsId || next.fieldPic != previous.fieldPic ||
        next.bottomField != previous.bottomField)
        return true;
    if ((next.nalRefIdc == 0) != (previous.nalRefIdc == 0))
        return true;
    if (sps.pocType == 0 && (next.pocLsb != previous.pocLsb || next.deltaPocBottom != previous.deltaPocBottom))
        return true;
    if (sps.pocType == 1 && (next.deltaPoc[0] != previous.deltaPoc[0] || next.deltaPoc[1] != previous.deltaPoc[1]))
        return true;
    const bool nextIdr = next.nalType == 5;
    const bool previousIdr = previous.nalType == 5;
    if (nextIdr != previousIdr)
        return true;
    return nextIdr && next.idrPicId != previous.idrPicId;
}

bool seiHasRecoveryPoint(const std::vector<std::uint8_t>& rbsp)
{
    RbspReader bits(rbsp.data(), rbsp.size());
    bits.skip(8);
    while (bits.moreRbspData() && !bits.failed()) {
        std::uint64_t type = 0;
        unsigned byte;
        while ((byte = bits.u(8)) == 0xff && !bits.failed())
            type += 255;
        type += byte;
        std::uint64_t size = 0;
        while ((byte = bits.u(8)) == 0xff && !bits.failed())
            size += 255;
        size += byte;
        if (bits.failed())
            return false;
        if (type == 6)
            return true;
        if (size > bits.bitsLeft() / 8)
            return false;
        bits.skip(size * 8);
    }
    return false;
}

} // namespace Tevara::Lumiflux::Internal
