// The root codec manager over real codec plug-ins. The scan, the init and
// LUMIFLUX_IGNORE_CODEC_ID happen once per process: one scenario per process.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <lumiflux/codec.h>
#include <lumiflux/plugin.h>

#include "syslog_capture.h"
#include "test_paths.h"

using namespace Tevara::Lumiflux;
using lumiflux_test::syslogRecordsContaining;

namespace {

// The root manager over a fresh plug-in directory holding the plug-ins named by LUMIFLUX_TEST_FIXTURES.
CodecManager* root()
{
    const std::string dir = lumiflux_test::freshDirectory("codecs");
    std::stringstream names(std::getenv("LUMIFLUX_TEST_FIXTURES"));
    for (std::string fixture; names >> fixture;)
        std::filesystem::copy_file(std::string(LUMIFLUX_FIXTURE_DIR) + "/" + fixture + ".so",
                                   dir + "/" + fixture + ".so");
    setenv("LUMIFLUX_PLUGIN_DIR", dir.c_str(), 1);
    return LumifluxCodecManager();
}

TEST(RootCodecsTwoModules, PriorityArithmeticOrderAndLogLines)
{
    // Hardware first, each group by final priority: codec priority + 10 x module priority.
    const auto list = root()->listCodecs();
    const std::vector<int> priorities{60, 40, 30, 25, 23, 21, 19, 14};
    const auto listed = syslogRecordsContaining(" priority=");
    ASSERT_EQ(list.size(), priorities.size());
    ASSERT_EQ(listed.size(), list.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(list[i].priority, priorities[i]) << list[i].id;
        EXPECT_EQ(std::regex_replace(listed[i].text, std::regex(":[0-9]+ "), ":N "),
                  "0codec init:N -- " + list[i].id + " priority=" + std::to_string(priorities[i]) +
                      " hw=" + (i < 3 ? "1" : "0") + "\n");
    }
    // One "Initialized" line per module with codecs, with the digit in front.
    const auto initialized = syslogRecordsContaining("Initialized codec plugin at ");
    ASSERT_EQ(initialized.size(), 2u);
    for (const auto& record : initialized)
        EXPECT_TRUE(std::regex_match(
            record.text, std::regex("1codec init:[0-9]+ -- Initialized codec plugin at .*/fixture_codecs_[ab]\\.so\n")))
            << record.text;
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
    // The first module's count: a second one is refused though the other module has one.
    EXPECT_FALSE(LumifluxCodecManager()->isCodecIdAvailable("dup"));
    EXPECT_EQ(LumifluxCodecManager()->createVideoEncoderById("dup"), nullptr);
    encoder.reset();
    EXPECT_TRUE(LumifluxCodecManager()->isCodecIdAvailable("dup"));
}

TEST(RootCodecsTwoModules, AvailabilityAndCreationWalkThePreferenceOrder)
{
    CodecManager* codecs = LumifluxCodecManager();
    EXPECT_TRUE(codecs->videoEncoderAvailable(CodecType::H264, true));
    // The first hardware candidate's factory fails: the walk stops there, the instance stays taken.
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
    EXPECT_FALSE(codecs->videoEncoderAvailable(CodecType::VP8, false));
    EXPECT_EQ(codecs->createVideoEncoder(CodecType::VP8, false), nullptr);
    EXPECT_TRUE(codecs->videoDecoderAvailable(CodecType::H265, true));
    EXPECT_FALSE(codecs->videoEncoderAvailable(CodecType::H265, false));
    EXPECT_FALSE(codecs->videoDecoderAvailable(CodecType::H264, true));
    EXPECT_EQ(codecs->createVideoDecoder(CodecType::H264, false)->getInfo().id, "a.h264.dec");
}

TEST(RootCodecsTwoModules, QueriesByIdAreRoutedAndUnknownIdsFail)
{
    CodecManager* codecs = LumifluxCodecManager();
    EXPECT_EQ(codecs->getVideoCodecExtendedInfo("a.h264.dec")->getSizeRange().max.width, 1920);
    const auto h264 = VideoEncoderMetadata{CodecType::H264, 1280, 720};
    const auto hevc = VideoDecoderMetadata{CodecType::H265, 640, 480};
    EXPECT_TRUE(codecs->videoEncoderSupports("b.h264.hw", h264, true) &&
                codecs->videoDecoderSupports("b.h265.hwdec", hevc, true));
    EXPECT_FALSE(codecs->videoEncoderSupports("a.h264.sw", h264, true)) << "software, hardware asked for";
    for (const std::string id : {"", "nope", "a.h264", "A.H264.SW"}) {
        EXPECT_FALSE(codecs->isCodecIdAvailable(id)) << id;
        EXPECT_EQ(codecs->createVideoEncoderById(id), nullptr) << id;
        EXPECT_EQ(codecs->createVideoDecoderById(id), nullptr) << id;
        EXPECT_EQ(codecs->getVideoCodecExtendedInfo(id), nullptr) << id;
        EXPECT_FALSE(codecs->videoEncoderSupports(id, h264, false) || codecs->videoDecoderSupports(id, hevc, false))
            << id;
    }
}

// Under LUMIFLUX_IGNORE_CODEC_ID, LUMIFLUX_TEST_EXPECTED lists the ids that remain,
// LUMIFLUX_TEST_COUNTS the numbers of ignored codecs and of initialised modules.
TEST(RootCodecsListed, WhatRemainsIsListedAndRouted)
{
    CodecManager* codecs = root();
    EXPECT_TRUE(codecs->init());
    EXPECT_EQ(LumifluxCodecManager(), codecs);
    const char* ignore = std::getenv("LUMIFLUX_IGNORE_CODEC_ID");
    std::string remaining, prefix = ignore ? ignore : "";
    for (const auto& info : codecs->listCodecs())
        remaining += (remaining.empty() ? "" : ",") + info.id;
    EXPECT_EQ(remaining, std::getenv("LUMIFLUX_TEST_EXPECTED"));
    const auto ignored = syslogRecordsContaining("Ignore codec ");
    EXPECT_EQ(std::to_string(ignored.size()) + " " +
                  std::to_string(syslogRecordsContaining("Initialized codec plugin at ").size()),
              std::getenv("LUMIFLUX_TEST_COUNTS"));
    for (const auto& record : ignored)
        EXPECT_TRUE(
            std::regex_match(record.text, std::regex("1codec init:[0-9]+ -- Ignore codec " +
                                                     std::regex_replace(prefix, std::regex("\\."), "\\.") + ".*\n")))
            << record.text;
    for (const std::string id : {"b.h264.hw", "a.h264.sw", "noinit.h264"}) // an ignored id is not routed
        EXPECT_EQ(codecs->isCodecIdAvailable(id), ("," + remaining + ",").find("," + id + ",") != std::string::npos)
            << id;
    // A request takes the first H.264 encoder listed, even where the order
    // is no strict weak order (pair), and stops there if its factory fails.
    std::string first;
    for (const auto& info : codecs->listCodecs())
        if (first.empty() && info.encoder && info.type == CodecType::H264)
            first = info.id.find("broken") == std::string::npos ? info.id : "-";
    auto encoder = codecs->createVideoEncoder(CodecType::H264, false);
    EXPECT_EQ(encoder ? encoder->getInfo().id : "-", first.empty() ? "-" : first);
}

} // namespace
