// Track and medium records, GStreamer tags turned into typed values, and
// GStreamer errors in the player's terms.

#include <map>
#include <string>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <lumiflux/log.h>

#include "player/error_mapping.h"
#include "player/tag_list.h"
#include "syslog_capture.h"

using namespace Tevara::Lumiflux;

namespace {

class MediaRecords : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        LogInit();
        gst_init(nullptr, nullptr);
        gst_tag_register("lumiflux-test-bool", GST_TAG_FLAG_META, G_TYPE_BOOLEAN, "b", "b", nullptr);
        gst_tag_register("lumiflux-test-int", GST_TAG_FLAG_META, G_TYPE_INT, "i", "i", nullptr);
        gst_tag_register("lumiflux-test-int64", GST_TAG_FLAG_META, G_TYPE_INT64, "l", "l", nullptr);
        gst_tag_register("lumiflux-test-uint64", GST_TAG_FLAG_META, G_TYPE_UINT64, "u", "u", nullptr);
        gst_tag_register("lumiflux-test-float", GST_TAG_FLAG_META, G_TYPE_FLOAT, "f", "f", nullptr);
    }
};

TEST_F(MediaRecords, TagListBecomesTypedTagsWithDebugLines)
{
    GstTagList* list = gst_tag_list_new_empty();
    GDateTime* when = g_date_time_new_utc(2024, 1, 2, 3, 4, 5);
    GstDateTime* date = gst_date_time_new_from_g_date_time(when);
    gst_tag_list_add(list, GST_TAG_MERGE_APPEND, GST_TAG_LANGUAGE_CODE, "de", GST_TAG_LANGUAGE_CODE, "fr",
                     GST_TAG_BITRATE, 128000u, GST_TAG_BEATS_PER_MINUTE, 120.5, "lumiflux-test-bool", TRUE,
                     "lumiflux-test-int", -7, "lumiflux-test-int64", G_GINT64_CONSTANT(-5000000000),
                     "lumiflux-test-uint64", G_GUINT64_CONSTANT(9000000000), "lumiflux-test-float", 0.25f,
                     GST_TAG_DATE_TIME, date, nullptr);
    gst_date_time_unref(date);
    lumiflux_test::clearSyslog();

    TrackInfo track;
    Internal::copyTags(list, [&](const std::string& name, TagValue value) { track.setTag(name, std::move(value)); });
    gst_tag_list_unref(list);

    EXPECT_EQ(track.lang(), "de") << "the first value of a tag";
    EXPECT_EQ(track.tag<std::uint32_t>(GST_TAG_BITRATE, 0), 128000u);
    EXPECT_EQ(track.tag<double>(GST_TAG_BEATS_PER_MINUTE, 0), 120.5);
    EXPECT_EQ(track.tag<bool>("lumiflux-test-bool", false), true);
    EXPECT_EQ(track.tag<std::int32_t>("lumiflux-test-int", 0), -7);
    EXPECT_EQ(track.tag<std::int64_t>("lumiflux-test-int64", 0), -5000000000);
    EXPECT_EQ(track.tag<std::uint64_t>("lumiflux-test-uint64", 0), 9000000000u);
    EXPECT_EQ(track.tag<float>("lumiflux-test-float", 0), 0.25f);
    EXPECT_EQ(track.findTag(GST_TAG_DATE_TIME), nullptr) << "types without a typed value are not stored";
    // The stored type decides; a different type asked for gives the fallback.
    EXPECT_EQ(track.tag<std::int32_t>(GST_TAG_BITRATE, 42), 42);
    EXPECT_EQ(track.tag("missing", "none"), "none");

    EXPECT_EQ(track.tagAsString(GST_TAG_BEATS_PER_MINUTE), "120.500000");
    EXPECT_EQ(track.tagAsString("lumiflux-test-float"), "0.250000");
    EXPECT_EQ(track.tagAsString("lumiflux-test-int64"), "-5000000000");
    EXPECT_EQ(track.tagAsString("missing"), "");

    std::map<std::string, std::string> expected = {
        {GST_TAG_LANGUAGE_CODE, "language-code: \"de\" \\ string"},
        {GST_TAG_BITRATE, "bitrate: 128000 \\ uint"},
        {GST_TAG_BEATS_PER_MINUTE, "beats-per-minute: 120.500000 \\ double"},
        {"lumiflux-test-bool", "lumiflux-test-bool: true \\ bool"},
        {"lumiflux-test-int", "lumiflux-test-int: -7 \\ int"},
        {"lumiflux-test-int64", "lumiflux-test-int64: -5000000000 \\ int64"},
        {"lumiflux-test-uint64", "lumiflux-test-uint64: 9000000000 \\ uint64"},
        {"lumiflux-test-float", "lumiflux-test-float: 0.250000 \\ float"},
        {GST_TAG_DATE_TIME, "datetime: <unknown>"},
    };
    for (const auto& [tag, line] : expected) {
        const auto records = lumiflux_test::syslogRecordsContaining(" -- " + line + "\n");
        ASSERT_EQ(records.size(), 1u) << line;
        EXPECT_EQ(records[0].text.rfind("0[lumiflux-player] processTag:", 0), 0u) << records[0].text;
    }

    // Visiting goes by tag name.
    std::string names;
    track.forEachTagAsString([&](const std::string& name, const std::string&) { names += name + ","; });
    EXPECT_EQ(names, "beats-per-minute,bitrate,language-code,lumiflux-test-bool,lumiflux-test-float,"
                     "lumiflux-test-int,lumiflux-test-int64,lumiflux-test-uint64,");
}

TEST_F(MediaRecords, RecordsAreIndependentValues)
{
    TrackInfo track;
    track.setId(3);
    track.setName("Audio 1 (en)");
    track.setTag("language-code", std::string("en"));
    MediaInfo info;
    info.setUri("file:///a");
    info.setHttpHeaders({{"A", "1"}});
    info.addTrack(track);
    MediaInfo copy = info;
    track.setName("changed");
    info.setUri("file:///b");
    MediaInfo moved = std::move(info);

    EXPECT_EQ(copy.uri(), "file:///a");
    EXPECT_EQ(moved.uri(), "file:///b");
    EXPECT_EQ(info.uri(), "") << "a moved-from record is empty, not broken";
    std::string visited;
    copy.forEachTrack([&](const TrackInfo& t) { visited += std::to_string(t.id()) + t.name() + t.lang() + ";"; });
    EXPECT_EQ(visited, "3Audio 1 (en)en;");

    // Tags and tracks move in; URI and headers stay.
    MediaInfo fresh;
    fresh.addTrack(TrackInfo());
    fresh.setTag("title", std::string("t"));
    copy.takeTagsAndTracks(std::move(fresh));
    EXPECT_EQ(copy.uri(), "file:///a");
    EXPECT_EQ(copy.httpHeaders().size(), 1u);
    ASSERT_EQ(copy.tracks().size(), 1u);
    EXPECT_EQ(copy.tracks()[0].id(), 0);
    EXPECT_EQ(copy.tagAsString("title"), "t");
}

TEST(PlayerErrors, GStreamerErrorsMapToPlayerErrors)
{
    gst_init(nullptr, nullptr);
    struct Case {
        GQuark domain;
        int code;
        PlayerError expected;
    };
    const Case cases[] = {
        {GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NOT_FOUND, PlayerError::NotFound},
        {GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_BUSY, PlayerError::ResourceBusy},
        {GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_READ, PlayerError::ReadFailed},
        {GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, PlayerError::ReadFailed},
        {GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SEEK, PlayerError::SeekFailed},
        {GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_WRITE, PlayerError::ResourceFailed},
        {GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NOT_AUTHORIZED, PlayerError::ResourceFailed},
        {GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE, PlayerError::StreamFailed},
        {GST_STREAM_ERROR, GST_STREAM_ERROR_TYPE_NOT_FOUND, PlayerError::StreamFailed},
        {GST_CORE_ERROR, GST_CORE_ERROR_MISSING_PLUGIN, PlayerError::Unknown},
        {GST_LIBRARY_ERROR, GST_LIBRARY_ERROR_INIT, PlayerError::Unknown},
    };
    for (const auto& c : cases) {
        GError* error = g_error_new_literal(c.domain, c.code, "x");
        EXPECT_EQ(Internal::playerErrorFromGError(error), c.expected) << g_quark_to_string(c.domain) << " " << c.code;
        g_error_free(error);
    }
}

} // namespace
