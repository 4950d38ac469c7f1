#include <lumiflux/types.h>

#include <cstring>

namespace Tevara::Lumiflux {

std::string toString(PixelFormat format)
{
    switch (format) {
    case PixelFormat::Invalid:
        return "Invalid";
    case PixelFormat::YUV420Planar:
        return "YUV420Planar";
    case PixelFormat::YUV420SemiPlanar:
        return "YUV420SemiPlanar";
    case PixelFormat::YCbCrFlexible:
        return "YCbCrFlexible";
    case PixelFormat::Mappable:
        return "Mappable";
    case PixelFormat::NotMappable:
        return "NotMappable";
    case PixelFormat::Raw:
        return "Raw";
    case PixelFormat::Encoded:
        return "Encoded";
    case PixelFormat::Preferred:
        return "Preferred";
    }
    // Any other value is a FourCC: its four bytes in memory order, unfiltered
    // (NUL and unprintable bytes included).
    const auto value = static_cast<std::int32_t>(format);
    char bytes[4];
    std::memcpy(bytes, &value, sizeof(bytes));
    return std::string(bytes, sizeof(bytes));
}

std::string toString(TrackType type)
{
    switch (type) {
    case TrackType::Invalid:
        return "Invalid";
    case TrackType::Unknown:
        return "Unknown";
    case TrackType::Video:
        return "Video";
    case TrackType::Audio:
        return "Audio";
    case TrackType::Subtitles:
        return "Subtitles";
    }
    return {};
}

std::string toString(PlayerState state)
{
    switch (state) {
    case PlayerState::Empty:
        return "Empty";
    case PlayerState::Playing:
        return "Playing";
    case PlayerState::Paused:
        return "Paused";
    case PlayerState::EOS:
        return "EOS";
    }
    return {};
}

std::string toString(PlayerError error)
{
    switch (error) {
    case PlayerError::Ok:
        return "Ok";
    case PlayerError::Unknown:
        return "Unknown";
    case PlayerError::NotFound:
        return "NotFound";
    case PlayerError::ReadFailed:
        return "ReadFailed";
    case PlayerError::ResourceBusy:
        return "ResourceBusy";
    case PlayerError::ResourceFailed:
        return "ResourceFailed";
    case PlayerError::StreamFailed:
        return "StreamFailed";
    case PlayerError::PlayFailed:
        return "PlayFailed";
    case PlayerError::PauseFailed:
        return "PauseFailed";
    case PlayerError::StopFailed:
        return "StopFailed";
    case PlayerError::SeekFailed:
        return "SeekFailed";
    case PlayerError::ApplyPlaybackRateFailed:
        return "ApplyPlaybackRateFailed";
    case PlayerError::SelectTracksFailed:
        return "SelectTracksFailed";
    case PlayerError::BackendFailed:
        return "BackendFailed";
    }
    return {};
}

} // namespace Tevara::Lumiflux
