#pragma once
// Hand-written H.264 units, field by field; an SPS from the library's own record plus what it does not hold.
#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "parser/h264_syntax.h"

namespace lumiflux_test {

using Bytes = std::vector<std::uint8_t>;

struct BitWriter {
    BitWriter& u(unsigned n, std::uint64_t value)
    {
        for (unsigned i = n; i-- > 0; ++count) {
            if (count % 8 == 0)
                out.push_back(0);
            out.back() |= static_cast<std::uint8_t>(((value >> i) & 1) << (7 - count % 8));
        }
        return *this;
    }
    BitWriter& flag(bool value) { return u(1, value); }
    BitWriter& ue(std::uint64_t value)
    {
        unsigned length = 0;
        while (((value + 1) >> length) > 1)
            ++length;
        return u(length, 0).u(length + 1, value + 1);
    }
    BitWriter& se(std::int64_t v) { return ue(static_cast<std::uint64_t>(v > 0 ? 2 * v - 1 : -2 * v)); }
    Bytes trailing() { return u(1, 1).u((8 - count % 8) % 8, 0).out; } ///< the stop bit and byte alignment
    Bytes out;
    std::uint64_t count = 0;
};

inline void appendNal(Bytes& stream, const Bytes& rbsp, int startCode = 4)
{
    stream.insert(stream.end(), static_cast<std::size_t>(startCode - 1), 0);
    stream.push_back(1);
    for (std::uint8_t byte : rbsp) {
        if (byte <= 3 && stream.end()[-1] == 0 && stream.end()[-2] == 0)
            stream.push_back(3);
        stream.push_back(byte);
    }
}

inline Bytes annexB(std::initializer_list<Bytes> units, Bytes stream = {})
{
    for (const Bytes& unit : units)
        appendNal(stream, unit);
    return stream;
}

struct SpsFields : Tevara::Lumiflux::Internal::SequenceParameterSet {
    explicit SpsFields(int profile = 66, unsigned mbsWide = 11, unsigned mapUnitsHigh = 9) // 176x144
    {
        profileIdc = profile, levelIdc = 30, log2MaxPocLsb = 6, maxNumRefFrames = 1;
        widthInMbs = mbsWide, heightInMapUnits = mapUnitsHigh;
    }
    std::array<unsigned, 4> cropUnits{}; ///< in frame_crop_*_offset units
    std::vector<bool> presentLists;      ///< scaling lists: `firstDelta`, then 0s (odd lists stop at once)
    int firstDelta = 5;
    std::vector<std::int64_t> pocCycle; ///< offset_for_ref_frame values, for pocType 1
};

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
        for (std::size_t i = 0; i < f.presentLists.size(); ++i)
            for (int j = (w.flag(f.presentLists[i]), 0); f.presentLists[i] && j < (i % 2 ? 2 : i < 6 ? 16 : 64); ++j)
                w.se(j == 0 ? f.firstDelta : i % 2 ? -8 - f.firstDelta : 0);
    }
    w.ue(f.log2MaxFrameNum - 4).ue(f.pocType);
    if (f.pocType == 0)
        w.ue(f.log2MaxPocLsb - 4);
    if (f.pocType == 1)
        w.flag(f.deltaPicOrderAlwaysZero).se(-1).se(2).ue(f.pocCycle.size());
    for (auto offset : f.pocCycle)
        w.se(offset);
    w.ue(f.maxNumRefFrames).flag(false).ue(f.widthInMbs - 1ull).ue(f.heightInMapUnits - 1ull).flag(f.frameMbsOnly);
    if (!f.frameMbsOnly)
        w.flag(f.mbAdaptiveFrameField);
    const bool crop = f.cropUnits != std::array<unsigned, 4>{};
    w.flag(true).flag(crop); // direct_8x8_inference_flag, frame_cropping_flag
    for (std::size_t i = 0; crop && i < 4; ++i)
        w.ue(f.cropUnits[i]);
    const bool sar = f.sarWidth != 0, timing = f.numUnitsInTick != 0 || f.timeScale != 0;
    if (w.flag(sar || timing), sar || timing) { // a VUI
        if (w.flag(sar), sar)
            w.u(8, 255).u(16, f.sarWidth).u(16, f.sarHeight);
        if (w.u(3, 0).flag(timing), timing) // no overscan, signal type or chroma location
            w.u(32, f.numUnitsInTick).u(32, f.timeScale).flag(f.fixedFrameRate);
        w.u(4, 0); // no HRD, pic_struct or restrictions
    }
    return w.trailing();
}

// PPS 0 of SPS 0: CAVLC, one slice group.
inline Bytes ppsRbsp()
{
    return BitWriter().u(8, 0x68).ue(0).ue(0).u(2, 0).ue(0).ue(0).ue(0).u(3, 0).se(0).se(0).se(0).u(3, 4).trailing();
}

/** An I slice of PPS 0 (log2 sizes as SpsFields has them): its header, then bytes that need escaping. */
inline Bytes sliceRbsp(int nalType, unsigned frameNum = 0, unsigned pocLsb = 0, unsigned firstMb = 0, int nalRefIdc = 3,
                       unsigned idrPicId = 0)
{
    BitWriter w;
    w.u(3, nalRefIdc).u(5, nalType).ue(firstMb).ue(7).ue(0).u(4, frameNum);
    if (nalType == 5)
        w.ue(idrPicId);
    return w.u(6, pocLsb).u(40, 0xa5c3000001).trailing();
}

/** An SEI: a 300-byte user-data message claiming `declaredSize` bytes, then a recovery point if asked. */
inline Bytes seiRbsp(bool recoveryPoint, unsigned declaredSize = 300)
{
    BitWriter w;
    for (w.u(8, 0x06).u(8, 5); declaredSize >= 255; declaredSize -= 255)
        w.u(8, 255);
    for (int i = -1; i < 300; ++i)
        w.u(8, i < 0 ? declaredSize : i == 100 ? 6 : 0x20);
    if (recoveryPoint)
        w.u(8, 6).u(8, 1).ue(0).flag(true).u(6, 0); // recovery_frame_cnt 0, exact_match_flag
    return w.trailing();
}

} // namespace lumiflux_test
