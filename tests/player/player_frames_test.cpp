// Frames reach the application's VideoSink zero copy, and stay valid for as
// long as the application holds them, even after the player is gone (this
// is what the AddressSanitizer build checks).

#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include <lumiflux/gst_graphic_buffer.h>

#include "recording_listener.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class KeepingSink : public VideoSink {
public:
    void onFrame(const VideoFrame& frame, bool preroll) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        (preroll ? prerolls : frames).push_back(frame);
    }
    std::mutex mutex;
    std::vector<VideoFrame> frames;
    std::vector<VideoFrame> prerolls;
};

TEST(PlayerFrames, FramesOutliveThePlayer)
{
    KeepingSink sink;
    std::vector<VideoFrame> kept;
    std::shared_ptr<YCbCrFrame> view;
    int videoTrack = -1;
    {
        ListenedPlayer session;
        EXPECT_TRUE(session.player.setVideoSink(&sink));
        ASSERT_TRUE(session.start(mediaUri("media.mkv")));
        ASSERT_TRUE(session.listener.waitForState(PlayerState::EOS));
        const MediaInfo info = session.listener.snapshot(session.listener.mediaInfos).back();
        for (const auto& track : info.tracks())
            if (track.type() == TrackType::Video)
                videoTrack = track.id();
        session.player.reset();
        std::lock_guard<std::mutex> lock(sink.mutex);
        ASSERT_FALSE(sink.prerolls.empty());
        kept = sink.frames;
        // A view mapped while the player lives; the buffer behind it is dropped.
        view = kept.front().buffer->mapYCbCr();
        kept.front().buffer.reset();
    }
    // 3 s at 30 frames per second, every frame delivered (the sink syncs, no QoS drops).
    ASSERT_GE(kept.size(), 85u);
    std::int64_t last = -1;
    for (const auto& frame : kept) {
        EXPECT_EQ(frame.trackId, videoTrack);
        EXPECT_EQ(frame.format, fourcc('N', 'V', '1', '2'));
        EXPECT_EQ(frame.width, 320u);
        EXPECT_EQ(frame.height, 240u);
        EXPECT_GT(frame.timestamp.count(), last);
        last = frame.timestamp.count();
    }
    // Read the pixels now that the player, its pipeline and its factories are gone.
    ASSERT_TRUE(view);
    ASSERT_EQ(view->width, 320u);
    ASSERT_EQ(view->height, 240u);
    std::uint64_t luma = 0;
    for (unsigned row = 0; row < view->height; ++row)
        for (unsigned x = 0; x < view->width; ++x)
            luma += view->y[row * view->yStride + x];
    EXPECT_GT(luma, 0u) << "the test pattern is not black";
    for (size_t i = 1; i < kept.size(); ++i) {
        auto mapped = kept[i].buffer->mapFrame();
        ASSERT_TRUE(mapped) << "frame " << i;
        EXPECT_EQ(mapped->fourcc, static_cast<std::uint32_t>(fourcc('N', 'V', '1', '2')));
        EXPECT_NE(mapped->planes[0].data, nullptr);
    }
}

} // namespace
