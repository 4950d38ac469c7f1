// Names of the shared enumerations, with the FourCC fallback of PixelFormat.

#include <gtest/gtest.h>

#include <lumiflux/types.h>

using namespace Tevara::Lumiflux;

namespace {

TEST(Types, NamesOfEveryValueAndOfNone)
{
    const std::pair<int, const char*> formats[] = {
        {0, "Invalid"},          {1, "YUV420Planar"},  {2, "YUV420SemiPlanar"},
        {0xFF, "YCbCrFlexible"}, {0xFFFB, "Mappable"}, {0xFFFC, "NotMappable"},
        {0xFFFD, "Raw"},         {0xFFFE, "Encoded"},  {0xFFFF, "Preferred"}};
    for (const auto& [value, name] : formats)
        EXPECT_EQ(toString(PixelFormat(value)), name);
    const char* tracks[] = {"Invalid", "Unknown", "Video", "Audio", "Subtitles", ""};
    for (unsigned i = 0; i < 6; ++i)
        EXPECT_EQ(toString(TrackType(i)), tracks[i]);
    const char* states[] = {"Empty", "Playing", "Paused", "EOS", ""};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(toString(PlayerState(i)), states[i]);
    EXPECT_EQ(toString(PlayerState(-1)), "");
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
                            "BackendFailed",
                            ""};
    for (unsigned i = 0; i < 15; ++i)
        EXPECT_EQ(toString(PlayerError(i)), errors[i]);
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

} // namespace
