// The codec base classes in-process: instance counts, searches, geometry, supports().
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <regex>
#include <thread>
#include <tuple>

#include <lumiflux/codec_base.h>
#include <lumiflux/log.h>

#include "syslog_capture.h"
#include "test_codecs.h"

using namespace Tevara::Lumiflux;
using Internal::VideoCodecDesc;
using lumiflux_test::syslogRecordsContaining;

namespace {

VideoCodecDesc desc(const std::string& id, CodecType type, bool encoder, int maxInstances, bool hw = false,
                    const SizeRange& range = {{16, 16}, {1920, 1080}}, const Size& alignment = {2, 2})
{
    return VideoCodecDesc({type, encoder, id, 0, maxInstances, hw}, range, alignment);
}

struct TestManager : lumiflux_test::TestCodecManager {
    explicit TestManager(const std::vector<VideoCodecDesc>& list) : TestCodecManager("", list)
    {
        LogInit();
        lumiflux_test::clearSyslog();
        init();
    }
};

TEST(CodecBase, InstancesAreCountedPerIdWithDebugLines)
{
    TestManager manager({desc("one", CodecType::H264, true, 1), desc("zero", CodecType::VP8, true, 0),
                         desc("negative", CodecType::VP8, false, -3)});
    auto first = manager.createVideoEncoderById("one");
    ASSERT_NE(first, nullptr);
    EXPECT_FALSE(manager.isCodecIdAvailable("one"));
    EXPECT_EQ(manager.createVideoEncoderById("one"), nullptr);
    first.reset();
    EXPECT_TRUE(manager.isCodecIdAvailable("one"));
    const std::pair<const char*, const char*> expected[] = {
        {"is not available", "2main createVideoEncoderById:[0-9]+ -- codec one is not available\n"},
        {"acquire one", "0main acquireCodecId:[0-9]+ -- acquire one of 1\n"},
        {"release one", "0main releaseCodecId:[0-9]+ -- release one of 0\n"}};
    for (const auto& [needle, pattern] : expected) {
        const auto records = syslogRecordsContaining(needle);
        ASSERT_FALSE(records.empty()) << needle;
        EXPECT_TRUE(std::regex_match(records[0].text, std::regex(pattern))) << records[0].text;
    }
    EXPECT_EQ(manager.listCodecs().size(), 3u);
    EXPECT_FALSE(manager.isCodecIdAvailable("zero") || manager.isCodecIdAvailable("negative"));
    EXPECT_FALSE(manager.videoEncoderAvailable(CodecType::VP8, false) ||
                 manager.videoDecoderAvailable(CodecType::VP8, false));
    EXPECT_EQ(manager.createVideoDecoderById("negative"), nullptr);
    EXPECT_EQ(manager.createVideoEncoder(CodecType::VP8, false), nullptr);
    manager.releaseCodecId("one"); // releasing has no upper bound
    manager.releaseCodecId("unknown");
    EXPECT_TRUE(manager.acquireCodecId("one") && manager.acquireCodecId("one"));
    EXPECT_FALSE(manager.acquireCodecId("one") || manager.acquireCodecId("unknown"));
}

TEST(CodecBase, ExtendedInfoNeedsAFreeEncoderAndTriesTwice)
{
    TestManager manager({desc("x", CodecType::H264, true, 1, false, {{2, 4}, {640, 480}}, {16, 8})});
    auto geometry = manager.getVideoCodecExtendedInfo("x");
    ASSERT_NE(geometry, nullptr);
    EXPECT_EQ(geometry->getSizeRange().min.height, 4);
    EXPECT_EQ(geometry->getAlignment().width, 16);
    EXPECT_TRUE(manager.isCodecIdAvailable("x")) << "the encoder made for the question is gone";
    auto busy = manager.createVideoEncoderById("x");
    lumiflux_test::clearSyslog();
    EXPECT_EQ(manager.getVideoCodecExtendedInfo("x"), nullptr);
    EXPECT_EQ(syslogRecordsContaining("codec x is not available").size(), 2u);
}

TEST(CodecBase, SupportsBoundsTheAreaNotEachSide)
{
    TestManager manager({desc("e", CodecType::H264, true, 1), desc("d", CodecType::H264, false, 1),
                         desc("neg", CodecType::H264, true, 1, false, {{16, 16}, {1920, -1}}),
                         desc("zero", CodecType::H264, true, 1, false, {{0, 0}, {64, 64}})});
    auto encoder = manager.createVideoEncoderById("e");
    auto decoder = manager.createVideoDecoderById("d");
    using Case = std::tuple<int, int, int, CodecType, bool>; // a frame is measured with its stride
                                                             // clang-format off
    for (const auto& [width, height, stride, type, supported] : std::vector<Case>{
             {2000, 1000, 0, CodecType::H264, true}, {1921, 1080, 0, CodecType::H264, false},
             {1920, 1080, 0, CodecType::H264, true}, {1920, 1080, 2048, CodecType::H264, false},
             {100, 100, 2048, CodecType::H264, true}, {15, 100, 0, CodecType::H264, false},
             {100, 15, 0, CodecType::H264, false}, {640, 480, 0, CodecType::VP8, false}}) {
                                                             // clang-format on
        EXPECT_EQ(encoder->supports({type, width, height, stride}), supported)
            << width << "x" << height << "/" << stride;
        EXPECT_TRUE(stride != 0 || decoder->supports({type, width, height}) == supported) << width << "x" << height;
    }
    EXPECT_FALSE(manager.createVideoEncoderById("neg")->supports({CodecType::H264, 100, 100}));
    EXPECT_TRUE(manager.createVideoEncoderById("zero")->supports({CodecType::H264, 8, 8}))
        << "zero is no negative bound";
}

TEST(CodecBase, SupportQueriesCreateAnInstanceAndWalkWithTheCallersId)
{
    TestManager manager({desc("sw", CodecType::H264, true, 1), desc("hw", CodecType::VP8, true, 1, true),
                         desc("dec", CodecType::H264, false, 1)});
    const VideoEncoderMetadata m{CodecType::H264, 640, 480};
    EXPECT_TRUE(manager.videoEncoderSupports("sw", m, false));
    EXPECT_FALSE(manager.videoEncoderSupports("sw", m, true));
    EXPECT_FALSE(manager.videoEncoderSupports("", m, false));
    EXPECT_TRUE(manager.videoDecoderSupports("dec", {CodecType::H264, 640, 480}, false));
    EXPECT_EQ(manager.createVideoDecoder(CodecType::H264, false)->getInfo().id, "dec") << "not the encoder";
    // Busy: one try by id, then one per qualifying entry, all with the caller's id.
    auto busy = manager.createVideoEncoderById("sw");
    for (const auto& [hw, tries] : {std::pair{false, 3u}, std::pair{true, 2u}}) {
        lumiflux_test::clearSyslog();
        EXPECT_FALSE(manager.videoEncoderSupports("sw", m, hw));
        EXPECT_EQ(syslogRecordsContaining("codec sw is not available").size(), tries) << hw;
    }
}

TEST(CodecBase, InstanceCountSurvivesContention)
{
    TestManager manager({desc("busy", CodecType::H264, true, 3)});
    std::atomic<int> live{0}, beyond{0};
    std::vector<std::thread> threads(8);
    for (auto& thread : threads)
        thread = std::thread([&] {
            for (int i = 0; i < 300; ++i)
                if (auto encoder = manager.createVideoEncoder(CodecType::H264, false))
                    beyond += ++live > 3, std::this_thread::yield(), --live;
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(beyond.load(), 0) << "more than 3 instances at once";
    std::vector<std::shared_ptr<VideoEncoder>> held(5);
    for (auto& encoder : held)
        encoder = manager.createVideoEncoderById("busy");
    EXPECT_EQ(std::count(held.begin(), held.end(), nullptr), 2) << "every instance came back, and no more";
}

} // namespace
