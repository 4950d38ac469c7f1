// Names of the shared enumerations, with the FourCC fallback of PixelFormat.
#include <gtest/gtest.h>

#include <sstream>

#include <lumiflux/types.h>

using namespace Tevara::Lumiflux;

namespace {

// `names` lists the name of each value from 0 up, "-" for the empty one.
template <typename Enum> void expectNames(const std::string& names, int first = 0)
{
    std::istringstream in(names);
    int value = first;
    for (std::string name; in >> name; ++value)
        EXPECT_EQ(toString(static_cast<Enum>(value)), name == "-" ? "" : name) << value;
}

TEST(Types, NamesOfEveryValueAndOfNone)
{
    expectNames<TrackType>("Invalid Unknown Video Audio Subtitles -");
    expectNames<PlayerState>("- Empty Playing Paused EOS -", -1);
    expectNames<PlayerError>("Ok Unknown NotFound ReadFailed ResourceBusy ResourceFailed StreamFailed PlayFailed "
                             "PauseFailed StopFailed SeekFailed ApplyPlaybackRateFailed SelectTracksFailed "
                             "BackendFailed -");
    expectNames<PixelFormat>("Invalid YUV420Planar YUV420SemiPlanar");
    expectNames<PixelFormat>("YCbCrFlexible", 0xFF);
    expectNames<PixelFormat>("Mappable NotMappable Raw Encoded Preferred", 0xFFFB);
}

TEST(Types, OtherPixelFormatsGiveTheirFourRawBytes)
{
    EXPECT_EQ(toString(PixelFormat(0x3231564E)), "NV12");
    EXPECT_EQ(toString(fourcc('Y', 'U', '1', '2')), "YU12");
    const std::pair<int, std::string> raw[] = {{3, {"\x03\x00\x00\x00", 4}},
                                               {0xFE, {"\xFE\x00\x00\x00", 4}},
                                               {0xFFFA, {"\xFA\xFF\x00\x00", 4}},
                                               {0x10000, {"\x00\x00\x01\x00", 4}},
                                               {-1, {"\xFF\xFF\xFF\xFF", 4}}};
    for (const auto& [value, bytes] : raw)
        EXPECT_EQ(toString(PixelFormat(value)), bytes) << value;
}

} // namespace
