#pragma once

// Hand-written H.264 units for the tests: a sequence parameter set with every
// field the parsers look at, a picture parameter set, slice headers, access
// unit delimiters and SEI messages.

#include <cstdint>
#include <vector>

#include "bit_writer.h"

namespace lumiflux_test {

struct SpsFields {
    int profile = 66;
    int constraints = 0xc0;
    int level = 30;
    unsigned id = 0;
    unsigned chromaFormat = 1;
    bool separatePlanes = false;
    unsigned bitDepthLumaMinus8 = 0;
    unsigned bitDepthChromaMinus8 = 0;
    // Scaling lists: when non-empty, seq_scaling_matrix_present_flag is set and
    // list i is present when presentLists[i] is true (delta values written: one
    // non-zero delta then a zero that ends the list).
    std::vector<bool> presentLists;
    unsigned log2MaxFrameNumMinus4 = 0;
    unsigned pocType = 0;
    unsigned log2MaxPocLsbMinus4 = 2;
    std::vector<std::int64_t> pocCycle; ///< for pocType 1
    unsigned maxRefFrames = 1;
    std::uint64_t widthMbsMinus1 = 10;
    std::uint64_t heightMapUnitsMinus1 = 8;
    bool frameMbsOnly = true;
    bool crop = false;
    unsigned cropLeft = 0, cropRight = 0, cropTop = 0, cropBottom = 0;
    bool vui = false;
    int aspectRatioIdc = -1; ///< -1: no aspect ratio info
    unsigned sarWidth = 0, sarHeight = 0;
    bool timing = false;
    std::uint32_t numUnitsInTick = 1, timeScale = 50;
};

inline bool profileHasChroma(int profile)
{
    for (int p : {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135})
        if (p == profile)
            return true;
    return false;
}

/** The SPS RBSP (header byte 0x67 first, trailing bits last). */
inline std::vector<std::uint8_t> spsRbsp(const SpsFields& f)
{
    BitWriter w;
    w.u(8, 0x67).u(8, f.profile).u(8, f.constraints).u(8, f.level).ue(f.id);
    if (profileHasChroma(f.profile)) {
        w.ue(f.chromaFormat);
        if (f.chromaFormat == 3)
            w.flag(f.separatePlanes);
        w.ue(f.bitDepthLumaMinus8).ue(f.bitDepthChromaMinus8).flag(false);
        w.flag(!f.presentLists.empty());
        for (std::size_t i = 0; i < f.presentLists.size(); ++i) {
            w.flag(f.presentLists[i]);
            if (f.presentLists[i])
                w.se(5).se(-13); // nextScale 13, then 0, which ends the list
        }
    }
    w.ue(f.log2MaxFrameNumMinus4).ue(f.pocType);
    if (f.pocType == 0) {
        w.ue(f.log2MaxPocLsbMinus4);
    } else if (f.pocType == 1) {
        w.flag(false).se(-1).se(2).ue(f.pocCycle.size());
        for (auto v : f.pocCycle)
            w.se(v);
    }
    w.ue(f.maxRefFrames).flag(false).ue(f.widthMbsMinus1).ue(f.heightMapUnitsMinus1).flag(f.frameMbsOnly);
    if (!f.frameMbsOnly)
        w.flag(true); // mb_adaptive_frame_field_flag
    w.flag(true);     // direct_8x8_inference_flag
    w.flag(f.crop);
    if (f.crop)
        w.ue(f.cropLeft).ue(f.cropRight).ue(f.cropTop).ue(f.cropBottom);
    w.flag(f.vui);
    if (f.vui) {
        w.flag(f.aspectRatioIdc >= 0);
        if (f.aspectRatioIdc >= 0) {
            w.u(8, static_cast<std::uint64_t>(f.aspectRatioIdc));
            if (f.aspectRatioIdc == 255)
                w.u(16, f.sarWidth).u(16, f.sarHeight);
        }
        w.flag(false).flag(false).flag(false); // overscan, video signal, chroma location
        w.flag(f.timing);
        if (f.timing)
            w.u(32, f.numUnitsInTick).u(32, f.timeScale).flag(true);
        w.flag(false).flag(false).flag(false).flag(false); // HRD x2, pic_struct, restrictions
    }
    w.trailing();
    return w.bytes();
}

inline std::vector<std::uint8_t> ppsRbsp(unsigned id = 0, unsigned spsId = 0, bool bottomFieldPocPresent = false)
{
    BitWriter w;
    w.u(8, 0x68).ue(id).ue(spsId).flag(false).flag(bottomFieldPocPresent).ue(0).ue(0).ue(0).flag(false).u(2, 0);
    w.se(0).se(0).se(0).flag(true).flag(false).flag(false).trailing();
    return w.bytes();
}

struct SliceFields {
    bool idr = false;
    int nalRefIdc = 3;
    unsigned firstMb = 0;
    unsigned sliceType = 7; ///< I, all slices of the picture alike
    unsigned ppsId = 0;
    unsigned frameNum = 0;
    unsigned idrPicId = 0;
    unsigned pocLsb = 0;
    unsigned log2MaxFrameNum = 4; ///< must match the SPS
    unsigned log2MaxPocLsb = 6;   ///< must match the SPS (pocType 0)
};

/** A slice NAL unit: its header up to the POC, then a few payload bytes. */
inline std::vector<std::uint8_t> sliceRbsp(const SliceFields& s)
{
    BitWriter w;
    w.u(1, 0).u(2, static_cast<std::uint64_t>(s.nalRefIdc)).u(5, s.idr ? 5 : 1);
    w.ue(s.firstMb).ue(s.sliceType).ue(s.ppsId).u(static_cast<int>(s.log2MaxFrameNum), s.frameNum);
    if (s.idr)
        w.ue(s.idrPicId);
    w.u(static_cast<int>(s.log2MaxPocLsb), s.pocLsb);
    w.u(16, 0xa5c3).u(8, 0x00).u(8, 0x00).u(8, 0x01); // payload, with bytes that need escaping
    w.trailing();
    return w.bytes();
}

inline std::vector<std::uint8_t> audRbsp()
{
    BitWriter w;
    w.u(8, 0x09).u(3, 7).trailing();
    return w.bytes();
}

/** An SEI unit with a user-data message and, optionally, a recovery point. */
inline std::vector<std::uint8_t> seiRbsp(bool recoveryPoint)
{
    BitWriter w;
    w.u(8, 0x06);
    // user_data_unregistered, 300 bytes: the size takes two bytes (255 + 45).
    w.u(8, 5).u(8, 255).u(8, 45);
    for (int i = 0; i < 300; ++i)
        w.u(8, static_cast<std::uint64_t>(i == 100 ? 6 : 0x20));
    if (recoveryPoint) {
        BitWriter payload;
        payload.ue(0).flag(true).flag(false).u(2, 0).align();
        w.u(8, 6).u(8, payload.bytes().size());
        for (auto b : payload.bytes())
            w.u(8, b);
    }
    w.trailing();
    return w.bytes();
}

} // namespace lumiflux_test
