// Names of the shared enumerations, with the FourCC fallback of PixelFormat.

#include <gtest/gtest.h>

#include <lumiflux/types.h>

using namespace Tevara::Lumiflux;

namespace {

TEST(Types, NamedPixelFormatsGiveTheirNames)
{
    EXPECT_EQ(toString(PixelFormat::Invalid), "Invalid");
    EXPECT_EQ(toString(PixelFormat::YUV420Planar), "YUV420Planar");
    EXPECT_EQ(toString(PixelFormat::YUV420SemiPlanar), "YUV420SemiPlanar");
    EXPECT_EQ(toString(PixelFormat::YCbCrFlexible), "YCbCrFlexible");
    EXPECT_EQ(toString(PixelFormat::Mappable), "Mappable");
    EXPECT_EQ(toString(PixelFormat::NotMappable), "NotMappable");
    EXPECT_EQ(toString(PixelFormat::Raw), "Raw");
    EXPECT_EQ(toString(PixelFormat::Encoded), "Encoded");
    EXPECT_EQ(toString(PixelFormat::Preferred), "Preferred");
}

TEST(Types, OtherPixelFormatsGiveTheirFourRawBytes)
{
    EXPECT_EQ(toString(PixelFormat(0x3231564E)), "NV12");
    EXPECT_EQ(toString(fourcc('Y', 'U', '1', '2')), "YU12");
    EXPECT_EQ(toString(PixelFormat(3)), std::string("\x03\x00\x00\x00", 4));
    EXPECT_EQ(toString(PixelFormat(0xFFFA)), std::string("\xFA\xFF\x00\x00", 4));
    EXPECT_EQ(toString(PixelFormat(0x10000)), std::string("\x00\x00\x01\x00", 4));
    EXPECT_EQ(toString(PixelFormat(-1)), std::string("\xFF\xFF\xFF\xFF", 4));
    EXPECT_EQ(toString(PixelFormat(0xFE)), std::string("\xFE\x00\x00\x00", 4));
}

TEST(Types, TrackTypeStateAndErrorNames)
{
    const char* tracks[] = {"Invalid", "Unknown", "Video", "Audio", "Subtitles"};
    for (unsigned i = 0; i < 5; ++i)
        EXPECT_EQ(toString(TrackType(i)), tracks[i]);
    const char* states[] = {"Empty", "Playing", "Paused", "EOS"};
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(toString(PlayerState(i)), states[i]);
    const char* errors[] = {"Ok",
                            "Unknown",
                            "NotFound",
                            "ReadFailed",
                            "ResourceBusy",
                            "ResourceFailed",
                            "StreamFailed",
                            "PlayFailed",
                            "PauseFailed",
                            "StopFailed",
                            "SeekFailed",
                            "ApplyPlaybackRateFailed",
                            "SelectTracksFailed",
                            "BackendFailed"};
    for (unsigned i = 0; i < 14; ++i)
        EXPECT_EQ(toString(PlayerError(i)), errors[i]);
}

TEST(Types, ValuesWithoutANameGiveTheEmptyString)
{
    EXPECT_EQ(toString(TrackType(5)), "");
    EXPECT_EQ(toString(PlayerState(4)), "");
    EXPECT_EQ(toString(PlayerState(-1)), "");
    EXPECT_EQ(toString(PlayerError(14)), "");
}

} // namespace
