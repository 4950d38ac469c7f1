// HTTP headers and the HTTP log level on real GStreamer elements, tags as typed values.

#include <cstdlib>
#include <map>
#include <regex>
#include <string>
#include <tuple>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <lumiflux/gst_ref.h>
#include <lumiflux/log.h>

#include "player/http_headers.h"
#include "player/tag_list.h"
#include "syslog_capture.h"

using namespace Tevara::Lumiflux;
using namespace lumiflux_test;
using Internal::Ref;

namespace {

class PlayerInternals : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        LogInit();
        gst_init(nullptr, nullptr);
    }
};

Ref<GstElement> make(const char* factory)
{
    GstElement* element = gst_element_factory_make(factory, nullptr);
    EXPECT_NE(element, nullptr) << factory << " is missing (scripts/install-deps provides it)";
    return Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(element)));
}

using Fields = std::map<std::string, std::string>;
Fields fields(GstElement* element, const char* property)
{
    Ref<GstStructure> s;
    g_object_get(element, property, s.out(), nullptr);
    Fields result;
    for (int i = 0; s && i < gst_structure_n_fields(s.get()); ++i) {
        const char* name = gst_structure_nth_field_name(s.get(), i);
        const char* text = gst_structure_get_string(s.get(), name);
        result[name] = text ? text : "<not a string>";
    }
    EXPECT_TRUE(s && gst_structure_has_name(s.get(), property)) << property;
    return result;
}

TEST_F(PlayerInternals, HttpSourceTakesHeadersAsPropertiesOrExtraHeadersAndTheLogLevelOrRefusesThem)
{
    auto src = make("souphttpsrc");
    ASSERT_TRUE(src);
    g_object_set(src.get(), "compress", TRUE, "keep-alive", TRUE, nullptr);
    clearSyslog();
    Internal::updateHttpHeaders(src.get(), {{"User-Agent", "LumifluxTest/1.0"},
                                            {"Connection", "close"},
                                            {"Accept-Encoding", "identity"},
                                            {"Authorization", "Bearer abc"},
                                            {"X-Trace", "1"},
                                            {"X-Trace", "2"},
                                            {"X-Evil", "a\r\nInjected: yes"},
                                            {"X-Bad\n", "v"},
                                            {"User-Agent", std::string("ua\0x", 4)}});
    gboolean keepAlive = TRUE, compress = TRUE;
    g_autofree gchar* userAgent = nullptr;
    g_object_get(src.get(), "keep-alive", &keepAlive, "compress", &compress, "user-agent", &userAgent, nullptr);
    EXPECT_FALSE(keepAlive || compress);
    EXPECT_STREQ(userAgent, "LumifluxTest/1.0");
    // Special headers turned into properties stay out; a later header of the same name wins.
    EXPECT_EQ(fields(src.get(), "extra-headers"), (Fields{{"Authorization", "Bearer abc"}, {"X-Trace", "2"}}));
    EXPECT_EQ(syslogRecordsContaining("-- extraHeaders: extra-headers, ").size(), 1u);
    const auto refused = syslogRecordsContaining("Refusing HTTP header");
    ASSERT_EQ(refused.size(), 3u);
    EXPECT_EQ(refused[0].text.rfind("2[lumiflux-player] updateHttpHeaders:", 0), 0u) << refused[0].text;
    // A second update adds to what is there; an empty one changes nothing.
    Internal::updateHttpHeaders(src.get(), {{"Cookie", "a=b"}});
    Internal::updateHttpHeaders(src.get(), {});
    EXPECT_EQ(fields(src.get(), "extra-headers"),
              (Fields{{"Authorization", "Bearer abc"}, {"X-Trace", "2"}, {"Cookie", "a=b"}}));

    // An element without extra headers drops them.
    auto demux = make("hlsdemux2");
    clearSyslog();
    Internal::updateHttpHeaders(demux.get(), {{"Authorization", "x"}});
    EXPECT_TRUE(syslogRecordsContaining("extraHeaders").empty());

    // LUMIFLUX_HTTP_LOG_LEVEL, read at each source: 0 to 3 is set; above 3 as unsigned, negatives too, is refused.
    const std::string setLine = "0[lumiflux-player] setupHttpLogLevel:N -- setting http-log-level to ",
                      refusedLine = "2[lumiflux-player] setupHttpLogLevel:N -- invalid http-log-level value ";
    for (auto [text, level, line] :
         {std::tuple{"3", 3, setLine + "3\n"}, std::tuple{"4", 1, refusedLine + "4\n"},
          std::tuple{"-1", 1, refusedLine + "-1\n"}, std::tuple{"text", 0, setLine + "0\n"}}) {
        g_object_set(src.get(), "http-log-level", 1, nullptr);
        setenv("LUMIFLUX_HTTP_LOG_LEVEL", text, 1);
        clearSyslog();
        Internal::setupHttpLogLevel(src.get());
        int now = -1;
        g_object_get(src.get(), "http-log-level", &now, nullptr);
        std::string logged = std::to_string(now) + " ";
        for (const auto& record : syslogRecords())
            logged += std::regex_replace(record.text, std::regex(":[0-9]+ "), ":N ");
        EXPECT_EQ(logged, std::to_string(level) + " " + line);
    }
    unsetenv("LUMIFLUX_HTTP_LOG_LEVEL");
}

TEST_F(PlayerInternals, TagListBecomesTypedTagsWithDebugLines)
{
    for (auto [name, type] : {std::pair{"lumiflux-test-bool", G_TYPE_BOOLEAN},
                              {"lumiflux-test-int", G_TYPE_INT},
                              {"lumiflux-test-int64", G_TYPE_INT64},
                              {"lumiflux-test-uint64", G_TYPE_UINT64},
                              {"lumiflux-test-float", G_TYPE_FLOAT}})
        gst_tag_register(name, GST_TAG_FLAG_META, type, name, name, nullptr);
    GstTagList* list = gst_tag_list_new_empty();
    GstDateTime* date = gst_date_time_new(0, 2024, 1, 2, 3, 4, 5);
    gst_tag_list_add(list, GST_TAG_MERGE_APPEND, GST_TAG_LANGUAGE_CODE, "de", GST_TAG_LANGUAGE_CODE, "fr",
                     GST_TAG_BITRATE, 128000u, GST_TAG_BEATS_PER_MINUTE, 120.5, "lumiflux-test-bool", TRUE,
                     "lumiflux-test-int", -7, "lumiflux-test-int64", G_GINT64_CONSTANT(-5000000000),
                     "lumiflux-test-uint64", G_GUINT64_CONSTANT(9000000000), "lumiflux-test-float", 0.25f,
                     GST_TAG_DATE_TIME, date, nullptr);
    gst_date_time_unref(date);
    clearSyslog();
    TrackInfo track;
    Internal::copyTags(list, [&](const std::string& name, TagValue value) { track.setTag(name, std::move(value)); });
    gst_tag_list_unref(list);

    EXPECT_EQ(track.lang(), "de") << "the first value of a tag";
    EXPECT_EQ(track.tag<std::uint32_t>(GST_TAG_BITRATE, 0), 128000u);
    EXPECT_EQ(track.tag<std::int64_t>("lumiflux-test-int64", 0), -5000000000);
    EXPECT_EQ(track.findTag(GST_TAG_DATE_TIME), nullptr) << "types without a typed value are not stored";
    // The stored type decides; a different type asked for gives the fallback.
    EXPECT_EQ(track.tag<std::int32_t>(GST_TAG_BITRATE, 42), 42);
    EXPECT_EQ(track.tag("missing", "none"), "none");
    EXPECT_EQ(track.tagAsString("missing"), "");
    std::string all;
    track.forEachTagAsString(
        [&](const std::string& name, const std::string& value) { all += name + "=" + value + ","; });
    EXPECT_EQ(all, "beats-per-minute=120.500000,bitrate=128000,language-code=de,lumiflux-test-bool=true,"
                   "lumiflux-test-float=0.250000,lumiflux-test-int=-7,lumiflux-test-int64=-5000000000,"
                   "lumiflux-test-uint64=9000000000,");
    for (const char* line :
         {"language-code: \"de\" \\ string", "bitrate: 128000 \\ uint", "beats-per-minute: 120.500000 \\ double",
          "lumiflux-test-bool: true \\ bool", "lumiflux-test-int: -7 \\ int",
          "lumiflux-test-int64: -5000000000 \\ int64", "lumiflux-test-uint64: 9000000000 \\ uint64",
          "lumiflux-test-float: 0.250000 \\ float", "datetime: <unknown>"}) {
        const auto records = syslogRecordsContaining(std::string(" -- ") + line + "\n");
        ASSERT_EQ(records.size(), 1u) << line;
        EXPECT_EQ(records[0].text.rfind("0[lumiflux-player] processTag:", 0), 0u) << records[0].text;
    }
}

} // namespace
