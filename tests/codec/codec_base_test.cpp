// The codec plug-in base classes: instance accounting, the search for a
// codec's geometry and support, and supports() itself. A small manager built
// on BaseCodecManager stands in for a plug-in, in-process.

#include <gtest/gtest.h>

#include <atomic>
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

template <typename Base> class TestCodec : public Base {
public:
    TestCodec(BaseCodecManager* owner, const VideoCodecDesc& codec) : Base(owner, codec)
    {
        const int now = ++liveInstances;
        int most = mostLiveInstances.load();
        while (now > most && !mostLiveInstances.compare_exchange_weak(most, now)) {
        }
    }
    ~TestCodec() override { --liveInstances; }
    bool start() override { return true; }
    bool flush() override { return true; }
    bool stop() override { return true; }
    bool setParameter(unsigned, const std::string&) override { return false; }
    std::string getParameter(unsigned) const override { return {}; }
    const Internal::ParameterSet& parameters() const override { return this->parameterSet; }
};

class TestEncoder : public TestCodec<Internal::BaseVideoEncoder> {
public:
    using TestCodec::TestCodec;
    bool configure(const VideoEncoderMetadata&) override { return true; }
    bool encode(const std::shared_ptr<GraphicBuffer>&, bool) override { return false; }
    int pendingFrames() const override { return 0; }

    // Calls the listener as a plug-in does: under listenerMutex.
    void notifyEos()
    {
        std::lock_guard<std::recursive_mutex> lock(listenerMutex);
        if (listener != nullptr)
            listener->onEncoderEos();
    }
};

class TestDecoder : public TestCodec<Internal::BaseVideoDecoder> {
public:
    using TestCodec::TestCodec;
    bool configure(const VideoDecoderMetadata&) override { return true; }
    bool decode(const std::uint8_t*, std::size_t, std::int64_t) override { return false; }
    bool drain() override { return true; }
};

const SizeRange fullHd{{16, 16}, {1920, 1080}};

VideoCodecDesc desc(const std::string& id, CodecType type, bool encoder, int maxInstances, bool hw = false,
                    const SizeRange& range = fullHd, const Size& alignment = {2, 2})
{
    VideoCodecInfo info;
    info.id = id;
    info.type = type;
    info.encoder = encoder;
    info.maxInstances = maxInstances;
    info.hw = hw;
    return VideoCodecDesc(info, range, alignment);
}

class TestManager : public BaseCodecManager {
public:
    explicit TestManager(std::vector<VideoCodecDesc> codecList)
    {
        for (const auto& codec : codecList)
            addCodec(codec);
    }
    bool init() override { return true; }
    std::shared_ptr<VideoEncoder> instantiateVideoEncoder(const VideoCodecDesc& codec) override
    {
        return std::make_shared<TestEncoder>(this, codec);
    }
    std::shared_ptr<VideoDecoder> instantiateVideoDecoder(const VideoCodecDesc& codec) override
    {
        return std::make_shared<TestDecoder>(this, codec);
    }
};

template <typename Metadata> Metadata stream(int width, int height, CodecType type = CodecType::H264)
{
    Metadata metadata;
    metadata.codecType = type;
    metadata.width = width;
    metadata.height = height;
    return metadata;
}

// The first record containing `needle` matches `pattern`.
void expectLine(const std::string& needle, const std::string& pattern)
{
    const auto records = syslogRecordsContaining(needle);
    ASSERT_FALSE(records.empty()) << needle;
    EXPECT_TRUE(std::regex_match(records[0].text, std::regex(pattern))) << records[0].text;
}

class CodecBase : public ::testing::Test {
protected:
    void SetUp() override
    {
        LogInit();
        lumiflux_test::clearSyslog();
    }
};

TEST_F(CodecBase, InstancesAreCountedPerId)
{
    TestManager manager({desc("one", CodecType::H264, true, 1), desc("zero", CodecType::VP8, true, 0),
                         desc("negative", CodecType::VP8, false, -3)});
    EXPECT_TRUE(manager.isCodecIdAvailable("one"));
    auto first = manager.createVideoEncoderById("one");
    ASSERT_NE(first, nullptr);
    EXPECT_FALSE(manager.isCodecIdAvailable("one"));
    EXPECT_EQ(manager.createVideoEncoderById("one"), nullptr);
    EXPECT_EQ(syslogRecordsContaining("is not available").size(), 1u);
    expectLine("is not available", "^2main createVideoEncoderById:[0-9]+ -- codec one is not available\n$");
    expectLine("acquire one", "^0main acquireCodecId:[0-9]+ -- acquire one of 1\n$");
    first.reset();
    expectLine("release one", "^0main releaseCodecId:[0-9]+ -- release one of 0\n$");
    EXPECT_TRUE(manager.isCodecIdAvailable("one"));

    // Zero or negative counts: listed, never available.
    EXPECT_EQ(manager.listCodecs().size(), 3u);
    EXPECT_FALSE(manager.isCodecIdAvailable("zero"));
    EXPECT_FALSE(manager.isCodecIdAvailable("negative"));
    EXPECT_FALSE(manager.videoEncoderAvailable(CodecType::VP8, false));
    EXPECT_FALSE(manager.videoDecoderAvailable(CodecType::VP8, false));
    EXPECT_EQ(manager.createVideoDecoderById("negative"), nullptr);
    EXPECT_EQ(manager.createVideoEncoder(CodecType::VP8, false), nullptr);

    // Releasing has no upper bound; unknown ids are ignored.
    manager.releaseCodecId("one");
    manager.releaseCodecId("one");
    manager.releaseCodecId("unknown");
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(manager.acquireCodecId("one")) << i;
    EXPECT_FALSE(manager.acquireCodecId("one"));
    EXPECT_FALSE(manager.acquireCodecId("unknown"));
}

TEST_F(CodecBase, DuplicateIdKeepsTheFirstCountAndDescription)
{
    TestManager manager({desc("twice", CodecType::H264, true, 1),
                         desc("twice", CodecType::H265, true, 5, false, {{1, 1}, {64, 64}}, {8, 8})});
    const auto list = manager.listCodecs();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[1].maxInstances, 5);
    auto encoder = manager.createVideoEncoderById("twice");
    ASSERT_NE(encoder, nullptr);
    EXPECT_EQ(encoder->getInfo().type, CodecType::H264);
    EXPECT_EQ(encoder->getExtendedInfo()->getAlignment().width, 2);
    EXPECT_EQ(manager.createVideoEncoderById("twice"), nullptr) << "count of the first description";
}

TEST_F(CodecBase, DecoderIdReachesTheEncoderFactory)
{
    TestManager manager({desc("dec", CodecType::H264, false, 1)});
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
    // The copy handed out is independent of the instance.
    auto copy = busy->getExtendedInfo();
    busy.reset();
    EXPECT_EQ(copy->getSizeRange().max.width, 640);
}

TEST_F(CodecBase, SupportsBoundsTheAreaNotEachSide)
{
    TestManager manager({desc("e", CodecType::H264, true, 1), desc("d", CodecType::H264, false, 1),
                         desc("neg", CodecType::H264, true, 1, false, {{16, 16}, {1920, -1}})});
    auto encoder = manager.createVideoEncoderById("e");
    auto decoder = manager.createVideoDecoderById("d");
    auto negative = manager.createVideoEncoderById("neg");
    struct Case {
        int width, height, stride;
        CodecType type;
        bool encoderSupports;
    };
    for (const Case& c : std::vector<Case>{{2000, 1000, 0, CodecType::H264, true},
                                           {1921, 1080, 0, CodecType::H264, false},
                                           {1920, 1080, 0, CodecType::H264, true},
                                           {1920, 1080, 2048, CodecType::H264, false}, // measured with the stride
                                           {100, 100, 2048, CodecType::H264, true},
                                           {15, 100, 0, CodecType::H264, false},
                                           {100, 15, 0, CodecType::H264, false},
                                           {640, 480, 0, CodecType::VP8, false}}) {
        auto metadata = stream<VideoEncoderMetadata>(c.width, c.height, c.type);
        metadata.stride = c.stride;
        EXPECT_EQ(encoder->supports(metadata), c.encoderSupports) << c.width << "x" << c.height << "/" << c.stride;
    }
    EXPECT_TRUE(decoder->supports(stream<VideoDecoderMetadata>(2000, 1000)));
    EXPECT_FALSE(decoder->supports(stream<VideoDecoderMetadata>(1921, 1080)));
    EXPECT_FALSE(negative->supports(stream<VideoEncoderMetadata>(100, 100)));
}

TEST_F(CodecBase, SupportQueriesCreateAnInstanceAndWalkWithTheCallersId)
{
    TestManager manager({desc("sw", CodecType::H264, true, 1), desc("hw", CodecType::VP8, true, 1, true),
                         desc("dec", CodecType::H264, false, 1)});
    const auto m = stream<VideoEncoderMetadata>(640, 480);
    EXPECT_TRUE(manager.videoEncoderSupports("sw", m, false));
    EXPECT_FALSE(manager.videoEncoderSupports("sw", m, true));
    EXPECT_FALSE(manager.videoEncoderSupports("", m, false));
    EXPECT_TRUE(manager.videoDecoderSupports("dec", stream<VideoDecoderMetadata>(640, 480), false));

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
    TestManager manager({desc("busy", CodecType::H264, true, maxInstances)});
    liveInstances = 0;
    mostLiveInstances = 0;
    std::atomic<int> created{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                if (auto encoder = manager.createVideoEncoder(CodecType::H264, false)) {
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
    TestManager manager({desc("l", CodecType::H264, true, 1)});
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
