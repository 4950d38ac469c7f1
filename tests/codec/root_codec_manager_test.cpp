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

// The root manager over a fresh plug-in directory holding the named fixtures.
CodecManager* rootOver(const std::string& name, const std::vector<std::string>& fixtures)
{
    const std::string dir = lumiflux_test::freshDirectory(name);
    for (const auto& fixture : fixtures)
        std::filesystem::copy_file(std::string(LUMIFLUX_FIXTURE_DIR) + "/" + fixture + ".so",
                                   dir + "/" + fixture + ".so");
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    return LumifluxCodecManager();
}

std::string ids(CodecManager* codecs)
{
    std::string result;
    for (const auto& info : codecs->listCodecs())
        result += (result.empty() ? "" : ",") + info.id;
    return result;
}

const std::vector<std::string> twoModules{"fixture_codecs_a", "fixture_codecs_b", "fixture_codecs_noinit",
                                          "fixture_valid_module"};

TEST(RootCodecsEmpty, NoCodecsMeansEveryQueryFails)
{
    CodecManager* codecs = rootOver("codecs-empty", {"fixture_valid_module", "fixture_codecs_noinit"});
    EXPECT_TRUE(codecs->init());
    EXPECT_EQ(LumifluxCodecManager(), codecs);
    EXPECT_TRUE(codecs->listCodecs().empty());
    for (CodecType type : {CodecType::H264, CodecType::VP8})
        for (bool hw : {false, true}) {
            EXPECT_FALSE(codecs->videoEncoderAvailable(type, hw) || codecs->videoDecoderAvailable(type, hw));
            EXPECT_EQ(codecs->createVideoEncoder(type, hw), nullptr);
            EXPECT_EQ(codecs->createVideoDecoder(type, hw), nullptr);
        }
    EXPECT_FALSE(codecs->isCodecIdAvailable("noinit.h264"));
    EXPECT_EQ(codecs->createVideoEncoderById("noinit.h264"), nullptr);
    EXPECT_TRUE(syslogRecordsContaining("Initialized codec plugin").empty()) << "a failed init is skipped silently";
}

TEST(RootCodecsTwoModules, PriorityArithmeticOrderAndLogLines)
{
    CodecManager* codecs = rootOver("codecs-two", twoModules);
    LumifluxCodecManager(); // init runs once
    // Hardware first, each group by descending final priority (codec
    // priority + 10 x module priority).
    const auto list = codecs->listCodecs();
    ASSERT_EQ(ids(codecs), "b.h264.hw.broken,b.h264.hw,b.h265.hwdec,a.h264.sw,a.h264.dec,dup,dup,b.vp8.none");
    const std::vector<int> priorities{60, 40, 30, 25, 23, 21, 19, 14};
    const auto listed = syslogRecordsContaining(" priority=");
    ASSERT_EQ(listed.size(), list.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(list[i].priority, priorities[i]) << list[i].id;
        EXPECT_EQ(std::regex_replace(listed[i].text, std::regex(":[0-9]+ "), ":N "),
                  "0codec init:N -- " + list[i].id + " priority=" + std::to_string(priorities[i]) +
                      " hw=" + (i < 3 ? "1" : "0") + "\n");
    }
    EXPECT_FALSE(list[2].encoder);
    EXPECT_EQ(list[2].type, CodecType::H265);
    // One "Initialized" line per module with codecs, with the digit in front.
    const auto initialized = syslogRecordsContaining("Initialized codec plugin at ");
    ASSERT_EQ(initialized.size(), 2u);
    for (const auto& record : initialized)
        EXPECT_TRUE(std::regex_match(
            record.text, std::regex("1codec init:[0-9]+ -- Initialized codec plugin at .*/fixture_codecs_[ab]\\.so\n")))
            << record.text;
    EXPECT_TRUE(syslogRecordsContaining("Ignore codec").empty());
}

TEST(RootCodecsTwoModules, DuplicateIdIsRoutedToTheFirstModule)
{
    std::string first;
    for (const auto& plugin : PluginManager::get().listPlugins()) {
        const std::string file = std::filesystem::path(plugin.path).filename();
        if (first.empty() && (file == "fixture_codecs_a.so" || file == "fixture_codecs_b.so"))
            first = file.substr(15, 1);
    }
    auto encoder = LumifluxCodecManager()->createVideoEncoderById("dup");
    ASSERT_NE(encoder, nullptr);
    EXPECT_EQ(encoder->getParameter(100), first) << "the fixture's parameter 100 names its module";
    // The first module's instance count: a second one is refused though the other module has one.
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
    // there, and the instance stays taken.
    EXPECT_EQ(codecs->createVideoEncoder(CodecType::H264, true), nullptr);
    EXPECT_FALSE(codecs->isCodecIdAvailable("b.h264.hw.broken"));
    auto hardware = codecs->createVideoEncoder(CodecType::H264, true);
    ASSERT_NE(hardware, nullptr);
    EXPECT_EQ(hardware->getInfo().id, "b.h264.hw");
    EXPECT_EQ(hardware->getInfo().priority, 30) << "the plug-in's record, without the module's share";
    // Asked for hardware, never falls back to software.
    EXPECT_FALSE(codecs->videoEncoderAvailable(CodecType::H264, true));
    EXPECT_EQ(codecs->createVideoEncoder(CodecType::H264, true), nullptr);
    auto software = codecs->createVideoEncoder(CodecType::H264, false);
    ASSERT_NE(software, nullptr);
    EXPECT_EQ(software->getInfo().id, "a.h264.sw");
    hardware.reset();
    EXPECT_EQ(codecs->createVideoEncoder(CodecType::H264, false)->getInfo().id, "b.h264.hw")
        << "without hw, the first available codec in list order";
    // Listed but with no instances at all.
    EXPECT_FALSE(codecs->videoEncoderAvailable(CodecType::VP8, false));
    EXPECT_EQ(codecs->createVideoEncoder(CodecType::VP8, false), nullptr);
    // Decoders are walked apart from encoders.
    EXPECT_TRUE(codecs->videoDecoderAvailable(CodecType::H265, true));
    EXPECT_FALSE(codecs->videoEncoderAvailable(CodecType::H265, false));
    EXPECT_FALSE(codecs->videoDecoderAvailable(CodecType::H264, true));
    EXPECT_EQ(codecs->createVideoDecoder(CodecType::H264, false)->getInfo().id, "a.h264.dec");
}

TEST(RootCodecsTwoModules, QueriesByIdAreRoutedAndUnknownIdsFail)
{
    CodecManager* codecs = LumifluxCodecManager();
    auto geometry = codecs->getVideoCodecExtendedInfo("a.h264.dec");
    ASSERT_NE(geometry, nullptr);
    EXPECT_EQ(geometry->getSizeRange().max.width, 1920);
    EXPECT_EQ(geometry->getAlignment().height, 2);
    const auto h264 = VideoEncoderMetadata{CodecType::H264, 1280, 720};
    EXPECT_TRUE(codecs->videoEncoderSupports("b.h264.hw", h264, true));
    EXPECT_FALSE(codecs->videoEncoderSupports("b.h264.hw", VideoEncoderMetadata{CodecType::H264, 4096, 2160}, false));
    EXPECT_FALSE(codecs->videoEncoderSupports("a.h264.sw", h264, true)) << "software, hardware asked for";
    const auto hevc = VideoDecoderMetadata{CodecType::H265, 640, 480};
    EXPECT_TRUE(codecs->videoDecoderSupports("b.h265.hwdec", hevc, true));
    for (const std::string id : {"", "nope", "a.h264", "A.H264.SW"}) {
        EXPECT_FALSE(codecs->isCodecIdAvailable(id)) << id;
        EXPECT_EQ(codecs->createVideoEncoderById(id), nullptr) << id;
        EXPECT_EQ(codecs->createVideoDecoderById(id), nullptr) << id;
        EXPECT_EQ(codecs->getVideoCodecExtendedInfo(id), nullptr) << id;
        EXPECT_FALSE(codecs->videoEncoderSupports(id, h264, false) || codecs->videoDecoderSupports(id, hevc, false))
            << id;
    }
}

TEST(RootCodecsPair, HardwareTenAndSoftwareTwentyEndSecondFirst)
{
    // Each counts as placed before the other; the insertion pass moves the
    // second element to the front, and a request takes the first available.
    CodecManager* codecs = rootOver("codecs-pair", {"fixture_codecs_pair"});
    EXPECT_EQ(ids(codecs), "pair.sw,pair.hw");
    EXPECT_EQ(codecs->createVideoEncoder(CodecType::H264, false)->getInfo().id, "pair.sw");
}

// LUMIFLUX_IGNORE_CODEC_ID is set by the scenario; LUMIFLUX_TEST_EXPECTED
// lists the ids that must remain.
TEST(RootCodecsIgnore, PrefixRemovesMatchingIds)
{
    CodecManager* codecs = rootOver("codecs-ignore", twoModules);
    const std::string remaining = ids(codecs), prefix = std::getenv("LUMIFLUX_IGNORE_CODEC_ID");
    EXPECT_EQ(remaining, std::getenv("LUMIFLUX_TEST_EXPECTED"));
    const auto ignored = syslogRecordsContaining("Ignore codec ");
    EXPECT_EQ(ignored.size(), 8 - codecs->listCodecs().size());
    for (const auto& record : ignored)
        EXPECT_TRUE(
            std::regex_match(record.text, std::regex("1codec init:[0-9]+ -- Ignore codec " +
                                                     std::regex_replace(prefix, std::regex("\\."), "\\.") + ".*\n")))
            << record.text;
    EXPECT_EQ(syslogRecordsContaining("Initialized codec plugin at ").size(), 2u) << "all modules still initialised";
    for (const std::string id : {"b.h264.hw", "a.h264.sw"}) // an ignored id is not routed
        EXPECT_EQ(codecs->isCodecIdAvailable(id), ("," + remaining + ",").find("," + id + ",") != std::string::npos)
            << id;
}

} // namespace
