// The codec plug-in base classes: instance accounting, the search for a
// codec's geometry and support, and supports() itself. A small manager built
// on BaseCodecManager stands in for a plug-in, in-process.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <regex>
#include <thread>
#include <vector>

#include <lumiflux/codec_base.h>
#include <lumiflux/log.h>

#include "syslog_capture.h"

using namespace Tevara::Lumiflux;
using Internal::BaseCodecManager;
using Internal::VideoCodecDesc;
using lumiflux_test::syslogRecordsContaining;

namespace {

std::atomic<int> liveInstances{0};
std::atomic<int> mostLiveInstances{0};

void countInstance(int delta)
{
    const int now = liveInstances += delta;
    int most = mostLiveInstances.load();
    while (now > most && !mostLiveInstances.compare_exchange_weak(most, now)) {
    }
}

class TestEncoder : public Internal::BaseVideoEncoder {
public:
    TestEncoder(BaseCodecManager* owner, const VideoCodecDesc& codec) : BaseVideoEncoder(owner, codec)
    {
        countInstance(1);
    }
    ~TestEncoder() override { countInstance(-1); }
    bool configure(const VideoEncoderMetadata&) override { return true; }
    bool start() override { return true; }
    bool encode(const std::shared_ptr<GraphicBuffer>&, bool) override { return false; }
    bool flush() override { return true; }
    bool stop() override { return true; }
    bool setParameter(unsigned, const std::string&) override { return false; }
    std::string getParameter(unsigned) const override { return {}; }
    const Internal::ParameterSet& parameters() const override { return parameterSet; }
    int pendingFrames() const override { return 0; }

    // Calls the listener as a plug-in does: under listenerMutex.
    void notifyEos()
    {
        std::lock_guard<std::recursive_mutex> lock(listenerMutex);
        if (listener != nullptr)
            listener->onEncoderEos();
    }
};

class TestDecoder : public Internal::BaseVideoDecoder {
public:
    using BaseVideoDecoder::BaseVideoDecoder;
    bool configure(const VideoDecoderMetadata&) override { return true; }
    bool start() override { return true; }
    bool decode(const std::uint8_t*, std::size_t, std::int64_t) override { return false; }
    bool drain() override { return true; }
    bool flush() override { return true; }
    bool stop() override { return true; }
    bool setParameter(unsigned, const std::string&) override { return false; }
    std::string getParameter(unsigned) const override { return {}; }
    const Internal::ParameterSet& parameters() const override { return parameterSet; }
};

VideoCodecInfo info(const std::string& id, CodecType type, bool encoder, int maxInstances, bool hw = false)
{
    VideoCodecInfo result;
    result.id = id;
    result.type = type;
    result.encoder = encoder;
    result.maxInstances = maxInstances;
    result.hw = hw;
    return result;
}

const SizeRange fullHd{{16, 16}, {1920, 1080}};

class TestManager : public BaseCodecManager {
public:
    explicit TestManager(std::vector<VideoCodecDesc> codecList) : descs(std::move(codecList)) {}
    bool init() override
    {
        for (const auto& desc : descs)
            addCodec(desc);
        return true;
    }
    std::shared_ptr<VideoEncoder> instantiateVideoEncoder(const VideoCodecDesc& desc) override
    {
        ++encoderFactoryCalls;
        return std::make_shared<TestEncoder>(this, desc);
    }
    std::shared_ptr<VideoDecoder> instantiateVideoDecoder(const VideoCodecDesc& desc) override
    {
        return std::make_shared<TestDecoder>(this, desc);
    }

    std::atomic<int> encoderFactoryCalls{0};

private:
    std::vector<VideoCodecDesc> descs;
};

class CodecBase : public ::testing::Test {
protected:
    void SetUp() override
    {
        LogInit();
        lumiflux_test::clearSyslog();
    }
};

TEST_F(CodecBase, OneInstanceIsTakenAndGivenBack)
{
    TestManager manager({VideoCodecDesc(info("one", CodecType::H264, true, 1), fullHd, {2, 2})});
    ASSERT_TRUE(manager.init());
    EXPECT_TRUE(manager.isCodecIdAvailable("one"));
    auto first = manager.createVideoEncoderById("one");
    ASSERT_NE(first, nullptr);
    EXPECT_FALSE(manager.isCodecIdAvailable("one"));
    EXPECT_EQ(manager.createVideoEncoderById("one"), nullptr);
    const auto refused = syslogRecordsContaining("is not available");
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_TRUE(std::regex_match(refused[0].text,
                                 std::regex("^2main createVideoEncoderById:[0-9]+ -- codec one is not available\n$")))
        << refused[0].text;
    EXPECT_TRUE(std::regex_match(syslogRecordsContaining("acquire one")[0].text,
                                 std::regex("^0main acquireCodecId:[0-9]+ -- acquire one of 1\n$")));
    first.reset();
    EXPECT_TRUE(std::regex_match(syslogRecordsContaining("release one")[0].text,
                                 std::regex("^0main releaseCodecId:[0-9]+ -- release one of 0\n$")));
    EXPECT_TRUE(manager.isCodecIdAvailable("one"));
    EXPECT_NE(manager.createVideoEncoderById("one"), nullptr);
}

TEST_F(CodecBase, ZeroOrNegativeInstancesAreListedButNeverAvailable)
{
    TestManager manager({VideoCodecDesc(info("zero", CodecType::VP8, true, 0), fullHd, {2, 2}),
                         VideoCodecDesc(info("negative", CodecType::VP8, false, -3), fullHd, {2, 2})});
    manager.init();
    EXPECT_EQ(manager.listCodecs().size(), 2u);
    EXPECT_FALSE(manager.isCodecIdAvailable("zero"));
    EXPECT_FALSE(manager.isCodecIdAvailable("negative"));
    EXPECT_FALSE(manager.videoEncoderAvailable(CodecType::VP8, false));
    EXPECT_FALSE(manager.videoDecoderAvailable(CodecType::VP8, false));
    EXPECT_EQ(manager.createVideoDecoderById("negative"), nullptr);
    EXPECT_EQ(manager.createVideoEncoder(CodecType::VP8, false), nullptr);
}

TEST_F(CodecBase, DuplicateIdKeepsTheFirstCountAndDescription)
{
    TestManager manager({VideoCodecDesc(info("twice", CodecType::H264, true, 1), fullHd, {2, 2}),
                         VideoCodecDesc(info("twice", CodecType::H265, true, 5), {{1, 1}, {64, 64}}, {8, 8})});
    manager.init();
    const auto list = manager.listCodecs();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[1].maxInstances, 5);
    auto encoder = manager.createVideoEncoderById("twice");
    ASSERT_NE(encoder, nullptr);
    EXPECT_EQ(encoder->getInfo().type, CodecType::H264);
    EXPECT_EQ(encoder->getExtendedInfo()->getAlignment().width, 2);
    EXPECT_EQ(manager.createVideoEncoderById("twice"), nullptr) << "count of the first description";
}

TEST_F(CodecBase, ReleaseHasNoUpperBound)
{
    TestManager manager({VideoCodecDesc(info("id", CodecType::H264, true, 1), fullHd, {2, 2})});
    manager.init();
    manager.releaseCodecId("id");
    manager.releaseCodecId("id");
    manager.releaseCodecId("unknown");
    EXPECT_TRUE(manager.acquireCodecId("id"));
    EXPECT_TRUE(manager.acquireCodecId("id"));
    EXPECT_TRUE(manager.acquireCodecId("id"));
    EXPECT_FALSE(manager.acquireCodecId("id"));
    EXPECT_FALSE(manager.acquireCodecId("unknown"));
}

TEST_F(CodecBase, DecoderIdReachesTheEncoderFactory)
{
    TestManager manager({VideoCodecDesc(info("dec", CodecType::H264, false, 1), fullHd, {2, 2})});
    manager.init();
    auto encoder = manager.createVideoEncoderById("dec");
    ASSERT_NE(encoder, nullptr);
    EXPECT_FALSE(encoder->getInfo().encoder);
    // The walk by type does look at the flag.
    encoder.reset();
    EXPECT_EQ(manager.createVideoEncoder(CodecType::H264, false), nullptr);
    EXPECT_NE(manager.createVideoDecoder(CodecType::H264, false), nullptr);
}

TEST_F(CodecBase, ExtendedInfoNeedsAFreeEncoderAndTriesTwice)
{
    TestManager manager({VideoCodecDesc(info("x", CodecType::H264, true, 1), {{2, 4}, {640, 480}}, {16, 8})});
    manager.init();
    auto geometry = manager.getVideoCodecExtendedInfo("x");
    ASSERT_NE(geometry, nullptr);
    EXPECT_EQ(geometry->getSizeRange().min.height, 4);
    EXPECT_EQ(geometry->getAlignment().width, 16);
    EXPECT_TRUE(manager.isCodecIdAvailable("x")) << "the encoder made for the question is gone";

    auto busy = manager.createVideoEncoderById("x");
    lumiflux_test::clearSyslog();
    EXPECT_EQ(manager.getVideoCodecExtendedInfo("x"), nullptr);
    EXPECT_EQ(syslogRecordsContaining("codec x is not available").size(), 2u);
    // The copy handed out is independent of the instance.
    auto copy = busy->getExtendedInfo();
    busy.reset();
    EXPECT_EQ(copy->getSizeRange().max.width, 640);
}

TEST_F(CodecBase, SupportsBoundsTheAreaNotEachSide)
{
    TestManager manager({VideoCodecDesc(info("e", CodecType::H264, true, 4), fullHd, {2, 2}),
                         VideoCodecDesc(info("d", CodecType::H264, false, 4), fullHd, {2, 2}),
                         VideoCodecDesc(info("neg", CodecType::H264, true, 4), {{16, 16}, {1920, -1}}, {2, 2})});
    manager.init();
    auto encoder = manager.createVideoEncoderById("e");
    auto decoder = manager.createVideoDecoderById("d");
    auto negative = manager.createVideoEncoderById("neg");

    auto enc = [](int w, int h, int stride = 0, CodecType type = CodecType::H264) {
        VideoEncoderMetadata m;
        m.codecType = type;
        m.width = w;
        m.height = h;
        m.stride = stride;
        return m;
    };
    auto dec = [](int w, int h) {
        VideoDecoderMetadata m;
        m.codecType = CodecType::H264;
        m.width = w;
        m.height = h;
        return m;
    };
    EXPECT_TRUE(encoder->supports(enc(2000, 1000)));
    EXPECT_FALSE(encoder->supports(enc(1921, 1080)));
    EXPECT_TRUE(encoder->supports(enc(1920, 1080)));
    EXPECT_FALSE(encoder->supports(enc(1920, 1080, 2048))) << "measured with the stride";
    EXPECT_TRUE(encoder->supports(enc(100, 100, 2048)));
    EXPECT_FALSE(encoder->supports(enc(15, 100)));
    EXPECT_FALSE(encoder->supports(enc(100, 15)));
    EXPECT_FALSE(encoder->supports(enc(640, 480, 0, CodecType::VP8)));
    EXPECT_TRUE(decoder->supports(dec(2000, 1000)));
    EXPECT_FALSE(decoder->supports(dec(1921, 1080)));
    EXPECT_FALSE(negative->supports(enc(100, 100)));
}

TEST_F(CodecBase, SupportQueriesCreateAnInstanceAndWalkWithTheCallersId)
{
    TestManager manager({VideoCodecDesc(info("sw", CodecType::H264, true, 1), fullHd, {2, 2}),
                         VideoCodecDesc(info("hw", CodecType::VP8, true, 1, true), fullHd, {2, 2}),
                         VideoCodecDesc(info("dec", CodecType::H264, false, 1), fullHd, {2, 2})});
    manager.init();
    VideoEncoderMetadata m;
    m.codecType = CodecType::H264;
    m.width = 640;
    m.height = 480;
    EXPECT_TRUE(manager.videoEncoderSupports("sw", m, false));
    EXPECT_FALSE(manager.videoEncoderSupports("sw", m, true));
    EXPECT_FALSE(manager.videoEncoderSupports("", m, false));
    VideoDecoderMetadata d;
    d.codecType = CodecType::H264;
    d.width = 640;
    d.height = 480;
    EXPECT_TRUE(manager.videoDecoderSupports("dec", d, false));

    // While "sw" is busy: one try by id, then one per encoder entry, all
    // with the caller's id, so all fail.
    auto busy = manager.createVideoEncoderById("sw");
    lumiflux_test::clearSyslog();
    EXPECT_FALSE(manager.videoEncoderSupports("sw", m, false));
    EXPECT_EQ(syslogRecordsContaining("codec sw is not available").size(), 3u);
    lumiflux_test::clearSyslog();
    EXPECT_FALSE(manager.videoEncoderSupports("sw", m, true));
    EXPECT_EQ(syslogRecordsContaining("codec sw is not available").size(), 2u) << "only the hardware entry qualifies";
}

TEST_F(CodecBase, InstanceCountSurvivesContention)
{
    constexpr int maxInstances = 3;
    TestManager manager({VideoCodecDesc(info("busy", CodecType::H264, true, maxInstances), fullHd, {2, 2})});
    manager.init();
    liveInstances = 0;
    mostLiveInstances = 0;
    std::atomic<int> created{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                auto encoder = manager.createVideoEncoder(CodecType::H264, false);
                if (encoder) {
                    ++created;
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_GT(created.load(), 0);
    EXPECT_LE(mostLiveInstances.load(), maxInstances);
    EXPECT_EQ(liveInstances.load(), 0);
    // The count is back where it started: exactly maxInstances can be taken.
    std::vector<std::shared_ptr<VideoEncoder>> held;
    for (int i = 0; i < maxInstances + 2; ++i)
        if (auto encoder = manager.createVideoEncoderById("busy"))
            held.push_back(encoder);
    EXPECT_EQ(held.size(), static_cast<std::size_t>(maxInstances));
}

TEST_F(CodecBase, ListenerCanRemoveItselfFromInsideACall)
{
    TestManager manager({VideoCodecDesc(info("l", CodecType::H264, true, 1), fullHd, {2, 2})});
    manager.init();
    auto encoder = std::static_pointer_cast<TestEncoder>(manager.createVideoEncoderById("l"));
    ASSERT_NE(encoder, nullptr);
    struct Listener : VideoEncoderListener {
        TestEncoder* owner = nullptr;
        int calls = 0;
        void onEncodedFrame(const EncodedFrame&) override {}
        void onEncoderError(const std::string&) override {}
        void onEncoderEos() override
        {
            ++calls;
            owner->lockAndSetListener(nullptr); // same thread, mutex already held
        }
    } listener;
    listener.owner = encoder.get();
    encoder->lockAndSetListener(&listener);
    encoder->notifyEos();
    encoder->notifyEos();
    EXPECT_EQ(listener.calls, 1);
    encoder->eos(); // the base's eos does nothing and calls nobody
    EXPECT_EQ(listener.calls, 1);
}

} // namespace
