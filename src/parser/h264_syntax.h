#pragma once

// The H.264 syntax the stream parser reads in full: sequence and picture
// parameter sets, the start of slice headers and SEI payload types. Every
// field that sizes a later read or an array is range-checked; a set that
// fails carries the reason in `error`.

#include <cstdint>
#include <string>
#include <vector>

namespace Tevara::Lumiflux::Internal {

struct SequenceParameterSet {
    int profileIdc = 0;
    int constraintFlags = 0;
    int levelIdc = 0;
    unsigned id = 0;
    unsigned chromaFormatIdc = 1;
    bool separateColourPlane = false;
    unsigned bitDepthLuma = 8;
    unsigned bitDepthChroma = 8;
    bool scalingMatrixPresent = false;
    unsigned log2MaxFrameNum = 4;
    unsigned pocType = 0;
    unsigned log2MaxPocLsb = 4;
    bool deltaPicOrderAlwaysZero = false;
    unsigned maxNumRefFrames = 0;
    unsigned widthInMbs = 0;
    unsigned heightInMapUnits = 0;
    bool frameMbsOnly = true;
    bool mbAdaptiveFrameField = false;
    unsigned cropLeft = 0, cropRight = 0, cropTop = 0, cropBottom = 0; ///< in pixels
    // From the VUI; 0 when absent or unspecified.
    unsigned sarWidth = 0, sarHeight = 0;
    std::uint32_t numUnitsInTick = 0, timeScale = 0;
    bool fixedFrameRate = false;

    int codedWidth() const { return static_cast<int>(widthInMbs * 16); }
    int codedHeight() const { return static_cast<int>((frameMbsOnly ? 1 : 2) * heightInMapUnits * 16); }
    int displayWidth() const { return codedWidth() - static_cast<int>(cropLeft + cropRight); }
    int displayHeight() const { return codedHeight() - static_cast<int>(cropTop + cropBottom); }
};

struct PictureParameterSet {
    unsigned id = 0;
    unsigned spsId = 0;
    bool entropyCodingMode = false;
    bool bottomFieldPicOrderInFramePresent = false;
    unsigned numSliceGroups = 1;
    unsigned redundantPicCntPresent = 0;
};

/** The fields of a slice header that tell one primary coded picture from the next. */
struct SliceHeader {
    int nalType = 0;
    int nalRefIdc = 0;
    unsigned firstMbInSlice = 0;
    unsigned sliceType = 0;
    unsigned ppsId = 0;
    unsigned colourPlaneId = 0;
    std::uint32_t frameNum = 0;
    bool fieldPic = false;
    bool bottomField = false;
    unsigned idrPicId = 0;
    std::uint32_t pocLsb = 0;
    std::int64_t deltaPocBottom = 0;
    std::int64_t deltaPoc[2] = {0, 0};
    unsigned redundantPicCnt = 0;
};

/** Parses an SPS from its RBSP (header byte first). Empty `error` on success. */
SequenceParameterSet parseSequenceParameterSet(const std::vector<std::uint8_t>& rbsp, std::string& error);

/** Parses the leading fields of a PPS. Empty `error` on success. */
PictureParameterSet parsePictureParameterSet(const std::vector<std::uint8_t>& rbsp, std::string& error);

/**
 * Parses a slice header up to its picture order count fields. `spsFor` finds
 * the SPS of a PPS id, `ppsFor` the PPS (nullptr when unknown, which fails).
 */
SliceHeader parseSliceHeader(const std::vector<std::uint8_t>& rbsp, const PictureParameterSet* const* ppsTable,
                             const SequenceParameterSet* const* spsTable, std::string& error);

/** True when `next` starts a new primary coded picture after `previous`. */
bool startsNewPicture(const SliceHeader& previous, const SliceHeader& next, const SequenceParameterSet& sps);

/** True when the SEI RBSP carries a recovery point message (payload type 6). */
bool seiHasRecoveryPoint(const std::vector<std::uint8_t>& rbsp);

} // namespace Tevara::Lumiflux::Internal
