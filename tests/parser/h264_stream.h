#pragma once

// Hand-written H.264 units for the tests, field by field, so that each stream
// says what it holds: a bit writer (fixed-width fields, Exp-Golomb codes, the
// stop bit), emulation prevention and Annex B framing, and the units the
// parsers read. An SPS is written from the library's own parameter set
// record; only what that record does not hold is added here.

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "parser/h264_syntax.h"

namespace lumiflux_test {

using Bytes = std::vector<std::uint8_t>;
using Tevara::Lumiflux::Internal::SequenceParameterSet;

class BitWriter {
public:
    BitWriter& u(unsigned n, std::uint64_t value)
    {
        for (unsigned i = n; i-- > 0;) {
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
        unsigned length = 0;
        while (((value + 1) >> length) > 1)
            ++length;
        return u(length, 0).u(length + 1, value + 1);
    }
    BitWriter& se(std::int64_t v)
    {
        return ue(v > 0 ? static_cast<std::uint64_t>(2 * v - 1) : static_cast<std::uint64_t>(-2 * v));
    }
    /** rbsp_trailing_bits: a stop bit and zeros up to the byte boundary. */
    BitWriter& trailing()
    {
        u(1, 1);
        return u(static_cast<unsigned>((8 - count % 8) % 8), 0);
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
    explicit SpsFields(int profile = 66, unsigned mbsWide = 11, unsigned mapUnitsHigh = 9) // 176x144
    {
        profileIdc = profile;
        levelIdc = 30;
        log2MaxPocLsb = 6;
        maxNumRefFrames = 1;
        widthInMbs = mbsWide;
        heightInMapUnits = mapUnitsHigh;
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

/** The SPS RBSP, header byte 0x67 first, trailing bits last; a VUI when a SAR or timing is set. */
inline Bytes spsRbsp(const SpsFields& f)
{
    BitWriter w;
    w.u(8, 0x67).u(8, f.profileIdc).u(8, f.constraintFlags).u(8, f.levelIdc).ue(f.id);
    const int chromaProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    if (std::count(std::begin(chromaProfiles), std::end(chromaProfiles), f.profileIdc) != 0) {
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
    return w.trailing().bytes();
}

/** PPS 0 of SPS 0, CAVLC, one slice group. */
inline Bytes ppsRbsp()
{
    BitWriter w;
    w.u(8, 0x68).ue(0).ue(0).flag(false).flag(false).ue(0).ue(0).ue(0).flag(false).u(2, 0);
    return w.se(0).se(0).se(0).flag(true).flag(false).flag(false).trailing().bytes();
}

/** A slice of `sps` (pocType 0): its header up to the POC, then payload bytes that need escaping. */
inline Bytes sliceRbsp(int nalType, std::uint32_t frameNum = 0, std::uint32_t pocLsb = 0, unsigned firstMb = 0,
                       int nalRefIdc = 3, unsigned idrPicId = 0, const SequenceParameterSet& sps = SpsFields())
{
    BitWriter w;
    w.u(1, 0).u(2, nalRefIdc).u(5, nalType).ue(firstMb).ue(7).ue(0).u(sps.log2MaxFrameNum, frameNum); // I, PPS 0
    if (nalType == 5)
        w.ue(idrPicId);
    return w.u(sps.log2MaxPocLsb, pocLsb).u(40, 0xa5c3000001).trailing().bytes();
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
    return w.trailing().bytes();
}

/** SPS, PPS and one IDR picture of one slice. */
inline Bytes oneIdrPicture(const SpsFields& sps = SpsFields())
{
    Bytes stream;
    appendNal(stream, spsRbsp(sps));
    appendNal(stream, ppsRbsp());
    appendNal(stream, sliceRbsp(5, 0, 0, 0, 3, 0, sps));
    return stream;
}

} // namespace lumiflux_test
