#pragma once

/**
 * @file types.h
 * Enumerations shared by several subsystems, and their names.
 */

#include <cstdint>
#include <string>

#include <lumiflux/export.h>

namespace Tevara::Lumiflux {

/**
 * A pixel format. Besides the named values, any other value is a FourCC code:
 * four ASCII characters packed little-endian (first character in the lowest
 * byte). The values from 0xFFFB to 0xFFFF name classes of formats.
 */
enum class PixelFormat : std::int32_t {
    Invalid = 0,
    YUV420Planar = 1,
    YUV420SemiPlanar = 2,
    YCbCrFlexible = 0xFF,
    Mappable = 0xFFFB,
    NotMappable = 0xFFFC,
    Raw = 0xFFFD,
    Encoded = 0xFFFE,
    Preferred = 0xFFFF,
};

/** The kind of a media track. */
enum class TrackType : std::uint32_t {
    Invalid = 0,
    Unknown = 1,
    Video = 2,
    Audio = 3,
    Subtitles = 4,
};

/** The state a player reports to its listener. */
enum class PlayerState : std::int32_t {
    Empty = 0,
    Playing = 1,
    Paused = 2,
    EOS = 3,
};

/** The error a player reports to its listener. */
enum class PlayerError : std::uint32_t {
    Ok = 0,
    Unknown = 1,
    NotFound = 2,
    ReadFailed = 3,
    ResourceBusy = 4,
    ResourceFailed = 5,
    StreamFailed = 6,
    PlayFailed = 7,
    PauseFailed = 8,
    StopFailed = 9,
    SeekFailed = 10,
    ApplyPlaybackRateFailed = 11,
    SelectTracksFailed = 12,
    BackendFailed = 13,
};

/** Packs four characters into a FourCC pixel format, first character lowest. */
constexpr PixelFormat fourcc(char a, char b, char c, char d)
{
    return static_cast<PixelFormat>(static_cast<std::uint32_t>(static_cast<unsigned char>(a)) |
                                    (static_cast<std::uint32_t>(static_cast<unsigned char>(b)) << 8) |
                                    (static_cast<std::uint32_t>(static_cast<unsigned char>(c)) << 16) |
                                    (static_cast<std::uint32_t>(static_cast<unsigned char>(d)) << 24));
}

/**
 * The name of a pixel format. A named value gives its name; any other value
 * gives exactly four characters, the value's bytes lowest first, unfiltered.
 */
LUMIFLUX_EXPORT std::string toString(PixelFormat format);
/** The name of a track type, or "" for a value without a name. */
LUMIFLUX_EXPORT std::string toString(TrackType type);
/** The name of a player state, or "" for a value without a name. */
LUMIFLUX_EXPORT std::string toString(PlayerState state);
/** The name of a player error, or "" for a value without a name. */
LUMIFLUX_EXPORT std::string toString(PlayerError error);

} // namespace Tevara::Lumiflux
