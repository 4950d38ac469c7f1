// The root codec manager over real codec plug-ins in per-scenario plug-in
// directories. The scan, the root's init and LUMIFLUX_IGNORE_CODEC_ID happen
// once per process, so each suite runs in its own process (CMakeLists.txt).

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <lumiflux/codec.h>
#include <lumiflux/plugin.h>

#include "syslog_capture.h"
#include "test_paths.h"

using namespace Tevara::Lumiflux;
using lumiflux_test::syslogRecordsContaining;

namespace {

namespace fs = std::filesystem;

constexpr unsigned moduleParameter = 100; // set by the fixture to its module's name

// Fills a fresh plug-in directory with the named fixture modules and selects it.
void usePlugins(const std::string& name, const std::vector<std::string>& fixtures)
{
    const std::string dir = lumiflux_test::freshDirectory(name);
    for (const auto& fixture : fixtures)
        fs::copy_file(std::string(LUMIFLUX_FIXTURE_DIR) + "/" + fixture + ".so", fs::path(dir) / (fixture + ".so"));
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
}

std::vector<std::string> ids(const std::vector<VideoCodecInfo>& codecs)
{
    std::vector<std::string> result;
    for (const auto& info : codecs)
        result.push_back(info.id);
    return result;
}

const std::vector<std::string> twoModules{"fixture_codecs_a", "fixture_codecs_b", "fixture_codecs_noinit",
                                          "fixture_valid_module"};

template <typename Metadata> Metadata stream(CodecType type, int width, int height)
{
    Metadata metadata;
    metadata.codecType = type;
    metadata.width = width;
    metadata.height = height;
    return metadata;
}

TEST(RootCodecsEmpty, NoCodecsMeansEveryQueryFails)
{
    usePlugins("codecs-empty", {"fixture_valid_module", "fixture_codecs_noinit"});
    CodecManager* codecs = LumifluxCodecManager();
    ASSERT_NE(codecs, nullptr);
    EXPECT_TRUE(codecs->init());
    EXPECT_EQ(LumifluxCodecManager(), codecs);
    EXPECT_TRUE(codecs->listCodecs().empty());
    for (CodecType type : {CodecType::H264, CodecType::H265, CodecType::VP8}) {
        for (bool hw : {false, true}) {
            EXPECT_FALSE(codecs->videoEncoderAvailable(type, hw));
            EXPECT_FALSE(codecs->videoDecoderAvailable(type, hw));
            EXPECT_EQ(codecs->createVideoEncoder(type, hw), nullptr);
            EXPECT_EQ(codecs->createVideoDecoder(type, hw), nullptr);
        }
    }
    EXPECT_FALSE(codecs->isCodecIdAvailable("noinit.h264"));
    EXPECT_EQ(codecs->createVideoEncoderById("noinit.h264"), nullptr);
    // A manager whose init fails is skipped without a message.
    EXPECT_TRUE(syslogRecordsContaining("Initialized codec plugin").empty());
}

TEST(RootCodecsTwoModules, PriorityArithmeticOrderAndLogLines)
{
    usePlugins("codecs-two", twoModules);
    CodecManager* codecs = LumifluxCodecManager();
    LumifluxCodecManager(); // init runs once

    const auto list = codecs->listCodecs();
    // Hardware first, each group by descending final priority
    // (codec priority + 10 x module priority).
    ASSERT_EQ(ids(list), (std::vector<std::string>{"b.h264.hw.broken", "b.h264.hw", "b.h265.hwdec", "a.h264.sw",
                                                   "a.h264.dec", "dup", "dup", "b.vp8.none"}));
    const std::vector<int> priorities{60, 40, 30, 25, 23, 21, 19, 14};
    for (std::size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(list[i].priority, priorities[i]) << list[i].id;
        EXPECT_EQ(list[i].hw, i < 3) << list[i].id;
    }
    EXPECT_FALSE(list[2].encoder);
    EXPECT_EQ(list[2].type, CodecType::H265);

    // One "Initialized" line per module with codecs, with the digit in front.
    const auto initialized = syslogRecordsContaining("Initialized codec plugin at ");
    ASSERT_EQ(initialized.size(), 2u);
    const std::regex initLine("^1codec init:[0-9]+ -- Initialized codec plugin at .*/fixture_codecs_[ab]\\.so\n$");
    for (const auto& record : initialized)
        EXPECT_TRUE(std::regex_match(record.text, initLine)) << record.text;
    // The sorted list, one line per entry.
    const auto listed = syslogRecordsContaining(" priority=");
    ASSERT_EQ(listed.size(), list.size());
    for (std::size_t i = 0; i < list.size(); ++i)
        EXPECT_EQ(std::regex_replace(listed[i].text, std::regex(":[0-9]+ "), ":N "),
                  "0codec init:N -- " + list[i].id + " priority=" + std::to_string(priorities[i]) +
                      " hw=" + (i < 3 ? "1" : "0") + "\n");
    EXPECT_TRUE(syslogRecordsContaining("Ignore codec").empty());
}

TEST(RootCodecsTwoModules, DuplicateIdIsListedTwiceAndRoutedToTheFirstModule)
{
    const auto plugins = PluginManager::get().listPlugins();
    std::string first;
    for (const auto& plugin : plugins) {
        const std::string file = fs::path(plugin.path).filename();
        if (file == "fixture_codecs_a.so" || file == "fixture_codecs_b.so") {
            first = file == "fixture_codecs_a.so" ? "a" : "b";
            break;
        }
    }
    ASSERT_FALSE(first.empty());
    auto encoder = LumifluxCodecManager()->createVideoEncoderById("dup");
    ASSERT_NE(encoder, nullptr);
    EXPECT_EQ(encoder->getParameter(moduleParameter), first);
    // The instance count is the first module's: a second instance is refused
    // even though the other module also offers one.
    EXPECT_FALSE(LumifluxCodecManager()->isCodecIdAvailable("dup"));
    EXPECT_EQ(LumifluxCodecManager()->createVideoEncoderById("dup"), nullptr);
    encoder.reset();
    EXPECT_TRUE(LumifluxCodecManager()->isCodecIdAvailable("dup"));
}

TEST(RootCodecsTwoModules, AvailabilityAndCreationWalkThePreferenceOrder)
{
    CodecManager* codecs = LumifluxCodecManager();
    EXPECT_TRUE(codecs->videoEncoderAvailable(CodecType::H264, true));
    // The first available hardware candidate's factory fails: the walk stops
    // there instead of trying the next one, and the instance stays taken.
    EXPECT_EQ(codecs->createVideoEncoder(CodecType::H264, true), nullptr);
    EXPECT_FALSE(codecs->isCodecIdAvailable("b.h264.hw.broken"));

    auto hardware = codecs->createVideoEncoder(CodecType::H264, true);
    ASSERT_NE(hardware, nullptr);
    EXPECT_EQ(hardware->getInfo().id, "b.h264.hw");
    EXPECT_TRUE(hardware->getInfo().hw);
    // The instance's own record is the plug-in's, without the module's share.
    EXPECT_EQ(hardware->getInfo().priority, 30);

    // No hardware encoder left: never falls back to software when asked for hardware.
    EXPECT_FALSE(codecs->videoEncoderAvailable(CodecType::H264, true));
    EXPECT_EQ(codecs->createVideoEncoder(CodecType::H264, true), nullptr);
    auto software = codecs->createVideoEncoder(CodecType::H264, false);
    ASSERT_NE(software, nullptr);
    EXPECT_EQ(software->getInfo().id, "a.h264.sw");

    hardware.reset();
    auto again = codecs->createVideoEncoder(CodecType::H264, false);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->getInfo().id, "b.h264.hw") << "without hw, the first available codec in list order";

    // Listed but with no instances at all.
    EXPECT_FALSE(codecs->videoEncoderAvailable(CodecType::VP8, false));
    EXPECT_EQ(codecs->createVideoEncoder(CodecType::VP8, false), nullptr);

    // Decoders are walked separately from encoders.
    EXPECT_TRUE(codecs->videoDecoderAvailable(CodecType::H265, true));
    EXPECT_FALSE(codecs->videoEncoderAvailable(CodecType::H265, false));
    EXPECT_FALSE(codecs->videoDecoderAvailable(CodecType::H264, true));
    auto decoder = codecs->createVideoDecoder(CodecType::H264, false);
    ASSERT_NE(decoder, nullptr);
    EXPECT_EQ(decoder->getInfo().id, "a.h264.dec");
    EXPECT_FALSE(decoder->getInfo().encoder);
}

TEST(RootCodecsTwoModules, QueriesByIdAreRoutedAndUnknownIdsFail)
{
    CodecManager* codecs = LumifluxCodecManager();
    auto geometry = codecs->getVideoCodecExtendedInfo("a.h264.dec");
    ASSERT_NE(geometry, nullptr);
    EXPECT_EQ(geometry->getSizeRange().max.width, 1920);
    EXPECT_EQ(geometry->getAlignment().height, 2);

    const auto h264 = [](int width, int height) {
        return stream<VideoEncoderMetadata>(CodecType::H264, width, height);
    };
    EXPECT_TRUE(codecs->videoEncoderSupports("b.h264.hw", h264(1280, 720), true));
    EXPECT_FALSE(codecs->videoEncoderSupports("b.h264.hw", h264(4096, 2160), false));
    // A software codec when hardware is asked for.
    EXPECT_FALSE(codecs->videoEncoderSupports("a.h264.sw", h264(640, 480), true));
    const auto hevc = stream<VideoDecoderMetadata>(CodecType::H265, 640, 480);
    EXPECT_TRUE(codecs->videoDecoderSupports("b.h265.hwdec", hevc, true));

    for (const std::string id : {"", "nope", "a.h264", "A.H264.SW"}) {
        EXPECT_FALSE(codecs->isCodecIdAvailable(id)) << id;
        EXPECT_EQ(codecs->createVideoEncoderById(id), nullptr) << id;
        EXPECT_EQ(codecs->createVideoDecoderById(id), nullptr) << id;
        EXPECT_EQ(codecs->getVideoCodecExtendedInfo(id), nullptr) << id;
        EXPECT_FALSE(codecs->videoEncoderSupports(id, h264(640, 480), false)) << id;
        EXPECT_FALSE(codecs->videoDecoderSupports(id, hevc, false)) << id;
    }
}

TEST(RootCodecsPair, HardwareTenAndSoftwareTwentyEndSecondFirst)
{
    usePlugins("codecs-pair", {"fixture_codecs_pair"});
    // Each counts as placed before the other; the insertion pass moves the
    // second element to the front.
    EXPECT_EQ(ids(LumifluxCodecManager()->listCodecs()), (std::vector<std::string>{"pair.sw", "pair.hw"}));
    // Asking for any codec takes the first available in that order.
    auto encoder = LumifluxCodecManager()->createVideoEncoder(CodecType::H264, false);
    ASSERT_NE(encoder, nullptr);
    EXPECT_EQ(encoder->getInfo().id, "pair.sw");
}

// LUMIFLUX_IGNORE_CODEC_ID is set by the scenario; LUMIFLUX_TEST_EXPECTED
// lists the ids that must remain, separated by ",".
TEST(RootCodecsIgnore, PrefixRemovesMatchingIds)
{
    usePlugins("codecs-ignore", twoModules);
    const char* expectedText = std::getenv("LUMIFLUX_TEST_EXPECTED");
    ASSERT_NE(expectedText, nullptr);
    ASSERT_NE(std::getenv("LUMIFLUX_IGNORE_CODEC_ID"), nullptr);
    std::string remaining;
    const auto list = LumifluxCodecManager()->listCodecs();
    for (const auto& id : ids(list))
        remaining += (remaining.empty() ? "" : ",") + id;
    EXPECT_EQ(remaining, expectedText);

    const std::string prefix = std::getenv("LUMIFLUX_IGNORE_CODEC_ID");
    const std::size_t all = 8;
    EXPECT_EQ(syslogRecordsContaining("Ignore codec ").size(), all - list.size());
    for (const auto& record : syslogRecordsContaining("Ignore codec "))
        EXPECT_TRUE(
            std::regex_match(record.text, std::regex("^1codec init:[0-9]+ -- Ignore codec " +
                                                     std::regex_replace(prefix, std::regex("\\."), "\\.") + ".*\n$")))
            << record.text;
    // The modules are still initialised even when all their codecs are left out.
    EXPECT_EQ(syslogRecordsContaining("Initialized codec plugin at ").size(), 2u);
    // An ignored id is not routed.
    for (const std::string id : {"b.h264.hw", "a.h264.sw"})
        EXPECT_EQ(LumifluxCodecManager()->isCodecIdAvailable(id),
                  ("," + remaining + ",").find("," + id + ",") != std::string::npos)
            << id;
}

} // namespace
