#pragma once

// Hand-written H.264 units for the tests, field by field, so that each stream
// says what it holds: a bit writer (fixed-width fields, Exp-Golomb codes, the
// stop bit), emulation prevention and Annex B framing, and the units the
// parsers read. The fields are the library's own parameter set and slice
// header records; only what they do not hold is added here.

#include <array>
#include <cstdint>
#include <vector>

#include "parser/h264_syntax.h"

namespace lumiflux_test {

using Bytes = std::vector<std::uint8_t>;
using Tevara::Lumiflux::Internal::SequenceParameterSet;
using Tevara::Lumiflux::Internal::SliceHeader;

class BitWriter {
public:
    BitWriter& u(int n, std::uint64_t value)
    {
        for (int i = n - 1; i >= 0; --i) {
            if (count % 8 == 0)
                out.push_back(0);
            out.back() |= static_cast<std::uint8_t>(((value >> i) & 1) << (7 - count % 8));
            ++count;
        }
        return *this;
    }
    BitWriter& flag(bool value) { return u(1, value ? 1 : 0); }
    BitWriter& ue(std::uint64_t value)
    {
        int length = 0;
        while (((value + 1) >> length) > 1)
            ++length;
        return u(length, 0).u(length + 1, value + 1);
    }
    BitWriter& se(std::int64_t v) { return ue(v > 0 ? static_cast<std::uint64_t>(2 * v - 1) : static_cast<std::uint64_t>(-2 * v)); }
    /** Zero bits up to the byte boundary, after a stop bit when `stopBit`. */
    BitWriter& align(bool stopBit = true)
    {
        if (stopBit)
            u(1, 1);
        return u(static_cast<int>((8 - count % 8) % 8), 0);
    }
    const Bytes& bytes() const { return out; }

private:
    Bytes out;
    std::uint64_t count = 0;
};

/** Inserts an emulation-prevention 03 wherever two zeros meet a byte up to 03. */
inline Bytes escapeRbsp(const Bytes& rbsp)
{
    Bytes out;
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
inline void appendNal(Bytes& stream, const Bytes& rbsp, int startCode = 4)
{
    stream.insert(stream.end(), static_cast<std::size_t>(startCode - 1), 0);
    stream.push_back(1);
    const Bytes escaped = escapeRbsp(rbsp);
    stream.insert(stream.end(), escaped.begin(), escaped.end());
}

/**
 * An SPS to write. The base's values are written as they are named (bit
 * depths, log2 sizes and macroblock counts, each less its offset); the crop,
 * which the base holds in pixels, is written from `cropUnits`.
 */
struct SpsFields : SequenceParameterSet {
    SpsFields()
    {
        profileIdc = 66;
        levelIdc = 30;
        log2MaxPocLsb = 6;
        maxNumRefFrames = 1;
        widthInMbs = 11; // 176x144
        heightInMapUnits = 9;
    }
    /** frame_crop_{left,right,top,bottom}_offset; cropping is signalled when any is set. */
    std::array<unsigned, 4> cropUnits{};
    /**
     * Scaling list flags: when not empty, seq_scaling_matrix_present_flag is
     * set and list i is present when presentLists[i] is. Even lists run their
     * full length (16 or 64 values), odd ones end early with a zero scale.
     */
    std::vector<bool> presentLists;
    std::vector<std::int64_t> pocCycle; ///< offset_for_ref_frame values, for pocType 1
};

inline bool profileHasChroma(int profile)
{
    for (int p : {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135})
        if (p == profile)
            return true;
    return false;
}

/** The SPS RBSP, header byte 0x67 first, trailing bits last; a VUI when a SAR or timing is set. */
inline Bytes spsRbsp(const SpsFields& f)
{
    BitWriter w;
    w.u(8, 0x67).u(8, static_cast<std::uint64_t>(f.profileIdc)).u(8, static_cast<std::uint64_t>(f.constraintFlags));
    w.u(8, static_cast<std::uint64_t>(f.levelIdc)).ue(f.id);
    if (profileHasChroma(f.profileIdc)) {
        w.ue(f.chromaFormatIdc);
        if (f.chromaFormatIdc == 3)
            w.flag(f.separateColourPlane);
        w.ue(f.bitDepthLuma - 8).ue(f.bitDepthChroma - 8).flag(false).flag(!f.presentLists.empty());
        for (std::size_t i = 0; i < f.presentLists.size(); ++i) {
            w.flag(f.presentLists[i]);
            if (!f.presentLists[i])
                continue;
            w.se(5); // scale 13, then either 13 to the end of the list or 0, which ends it
            for (int j = 1, size = i < 6 ? 16 : 64; j < (i % 2 == 0 ? size : 2); ++j)
                w.se(i % 2 == 0 ? 0 : -13);
        }
    }
    w.ue(f.log2MaxFrameNum - 4).ue(f.pocType);
    if (f.pocType == 0)
        w.ue(f.log2MaxPocLsb - 4);
    if (f.pocType == 1) {
        w.flag(f.deltaPicOrderAlwaysZero).se(-1).se(2).ue(f.pocCycle.size());
        for (auto v : f.pocCycle)
            w.se(v);
    }
    w.ue(f.maxNumRefFrames).flag(false).ue(std::uint64_t{f.widthInMbs} - 1).ue(std::uint64_t{f.heightInMapUnits} - 1);
    w.flag(f.frameMbsOnly);
    if (!f.frameMbsOnly)
        w.flag(f.mbAdaptiveFrameField);
    const bool crop = f.cropUnits != std::array<unsigned, 4>{};
    w.flag(true).flag(crop); // direct_8x8_inference_flag, frame_cropping_flag
    for (std::size_t i = 0; crop && i < f.cropUnits.size(); ++i)
        w.ue(f.cropUnits[i]);
    const bool sar = f.sarWidth != 0, timing = f.numUnitsInTick != 0 || f.timeScale != 0;
    w.flag(sar || timing);
    if (sar || timing) {
        w.flag(sar);
        if (sar)
            w.u(8, 255).u(16, f.sarWidth).u(16, f.sarHeight);
        w.flag(false).flag(false).flag(false).flag(timing); // overscan, signal type, chroma location
        if (timing)
            w.u(32, f.numUnitsInTick).u(32, f.timeScale).flag(f.fixedFrameRate);
        w.u(4, 0); // HRD x2, pic_struct, restrictions
    }
    return w.align().bytes();
}

/** PPS 0 of SPS 0, CAVLC, one slice group. */
inline Bytes ppsRbsp()
{
    BitWriter w;
    w.u(8, 0x68).ue(0).ue(0).flag(false).flag(false).ue(0).ue(0).ue(0).flag(false).u(2, 0);
    return w.se(0).se(0).se(0).flag(true).flag(false).flag(false).align().bytes();
}

/** A slice of `sps` (pocType 0): its header up to the POC, then payload bytes that need escaping. */
inline Bytes sliceRbsp(const SliceHeader& s, const SequenceParameterSet& sps = SpsFields())
{
    BitWriter w;
    w.u(1, 0).u(2, static_cast<std::uint64_t>(s.nalRefIdc)).u(5, static_cast<std::uint64_t>(s.nalType));
    w.ue(s.firstMbInSlice).ue(s.sliceType).ue(s.ppsId).u(static_cast<int>(sps.log2MaxFrameNum), s.frameNum);
    if (s.nalType == 5)
        w.ue(s.idrPicId);
    w.u(static_cast<int>(sps.log2MaxPocLsb), s.pocLsb).u(40, 0xa5c3000001);
    return w.align().bytes();
}

/** A slice header with the fields the tests vary. */
inline SliceHeader slice(int nalType, std::uint32_t frameNum = 0, std::uint32_t pocLsb = 0, unsigned firstMb = 0,
                         int nalRefIdc = 3, unsigned idrPicId = 0)
{
    SliceHeader s;
    s.nalType = nalType;
    s.frameNum = frameNum;
    s.pocLsb = pocLsb;
    s.firstMbInSlice = firstMb;
    s.nalRefIdc = nalRefIdc;
    s.idrPicId = idrPicId;
    s.sliceType = 7; // I, all slices of the picture alike
    return s;
}

/** An SEI unit with a 300-byte user-data message (a two-byte size) and, optionally, a recovery point. */
inline Bytes seiRbsp(bool recoveryPoint)
{
    BitWriter w;
    w.u(8, 0x06).u(8, 5).u(8, 255).u(8, 45);
    for (int i = 0; i < 300; ++i)
        w.u(8, i == 100 ? 6 : 0x20);
    if (recoveryPoint)
        w.u(8, 6).u(8, 1).ue(0).flag(true).u(6, 0); // recovery_frame_cnt 0, exact_match_flag, padding
    return w.align().bytes();
}

/** SPS, PPS and one IDR picture of one slice. */
inline Bytes oneIdrPicture(const SpsFields& sps = SpsFields())
{
    Bytes stream;
    appendNal(stream, spsRbsp(sps));
    appendNal(stream, ppsRbsp());
    appendNal(stream, sliceRbsp(slice(5), sps));
    return stream;
}

} // namespace lumiflux_test
