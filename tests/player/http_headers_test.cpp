// The application's HTTP headers on real GStreamer HTTP elements: the stock
// HTTP source (properties and "extra-headers"), an adaptive demuxer (neither
// structure), and an element type of this test with "auth-headers".

#include <cstdlib>
#include <string>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <lumiflux/log.h>

#include "core/glib_ref.h"
#include "player/http_headers.h"
#include "syslog_capture.h"

using namespace Tevara::Lumiflux;
using Tevara::Lumiflux::Internal::Ref;

namespace {

// An element with the "auth-headers" structure property that our HTTP
// elements carry, and nothing else.
struct AuthElement {
    GstElement parent;
    GstStructure* authHeaders;
};
struct AuthElementClass {
    GstElementClass parent;
};

G_DEFINE_TYPE(AuthElement, auth_element, GST_TYPE_ELEMENT)

void auth_element_init(AuthElement*) {}
void authSetProperty(GObject* object, guint, const GValue* value, GParamSpec*)
{
    auto* self = reinterpret_cast<AuthElement*>(object);
    if (self->authHeaders)
        gst_structure_free(self->authHeaders);
    const GstStructure* s = gst_value_get_structure(value);
    self->authHeaders = s ? gst_structure_copy(s) : nullptr;
}
void authGetProperty(GObject* object, guint, GValue* value, GParamSpec*)
{
    gst_value_set_structure(value, reinterpret_cast<AuthElement*>(object)->authHeaders);
}
void authFinalize(GObject* object)
{
    auto* self = reinterpret_cast<AuthElement*>(object);
    if (self->authHeaders)
        gst_structure_free(self->authHeaders);
    G_OBJECT_CLASS(auth_element_parent_class)->finalize(object);
}
void auth_element_class_init(AuthElementClass* klass)
{
    GObjectClass* object = G_OBJECT_CLASS(klass);
    object->set_property = authSetProperty;
    object->get_property = authGetProperty;
    object->finalize = authFinalize;
    g_object_class_install_property(object, 1,
                                    g_param_spec_boxed("auth-headers", "auth", "auth", GST_TYPE_STRUCTURE,
                                                       static_cast<GParamFlags>(G_PARAM_READWRITE)));
}

class HttpHeaders : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        LogInit();
        gst_init(nullptr, nullptr);
    }

    static Ref<GstElement> make(const char* factory)
    {
        GstElement* element = gst_element_factory_make(factory, nullptr);
        EXPECT_NE(element, nullptr) << factory << " is missing (scripts/install-deps provides it)";
        return Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(element)));
    }
    static Ref<GstStructure> structure(GstElement* element, const char* property)
    {
        GstStructure* s = nullptr;
        g_object_get(element, property, &s, nullptr);
        return Ref<GstStructure>::adopt(s);
    }
    static std::string field(GstStructure* s, const char* name)
    {
        const gchar* value = s ? gst_structure_get_string(s, name) : nullptr;
        return value ? value : "<none>";
    }
    static bool boolean(GstElement* element, const char* property)
    {
        gboolean value = FALSE;
        g_object_get(element, property, &value, nullptr);
        return value;
    }
};

TEST_F(HttpHeaders, StockHttpSourceGetsPropertiesAndExtraHeaders)
{
    auto src = make("souphttpsrc");
    ASSERT_TRUE(src);
    ASSERT_TRUE(boolean(src.get(), "keep-alive"));
    g_object_set(src.get(), "compress", TRUE, nullptr);
    lumiflux_test::clearSyslog();
    Internal::updateHttpHeaders(src.get(), {{"User-Agent", "LumifluxTest/1.0"},
                                            {"Connection", "close"},
                                            {"Accept-Encoding", "identity"},
                                            {"Authorization", "Bearer abc"},
                                            {"X-Trace", "1"},
                                            {"X-Trace", "2"}});
    gchar* agent = nullptr;
    g_object_get(src.get(), "user-agent", &agent, nullptr);
    EXPECT_STREQ(agent, "LumifluxTest/1.0");
    g_free(agent);
    EXPECT_FALSE(boolean(src.get(), "keep-alive"));
    EXPECT_FALSE(boolean(src.get(), "compress"));

    auto extra = structure(src.get(), "extra-headers");
    ASSERT_TRUE(extra);
    EXPECT_STREQ(gst_structure_get_name(extra.get()), "extra-headers");
    EXPECT_EQ(gst_structure_n_fields(extra.get()), 2) << "special headers turned into properties stay out";
    EXPECT_EQ(field(extra.get(), "Authorization"), "Bearer abc");
    EXPECT_EQ(field(extra.get(), "X-Trace"), "2") << "a later header of the same name wins";
    EXPECT_EQ(lumiflux_test::syslogRecordsContaining("updateHttpHeaders:").size(), 1u);
    EXPECT_EQ(lumiflux_test::syslogRecordsContaining("-- extraHeaders: extra-headers, ").size(), 1u);

    // A second update adds to what is there; an empty one changes nothing.
    Internal::updateHttpHeaders(src.get(), {{"Cookie", "a=b"}});
    Internal::updateHttpHeaders(src.get(), {});
    extra = structure(src.get(), "extra-headers");
    EXPECT_EQ(field(extra.get(), "Authorization"), "Bearer abc");
    EXPECT_EQ(field(extra.get(), "Cookie"), "a=b");
}

TEST_F(HttpHeaders, SpecialHeadersWhoseRuleDoesNotApplyAreSentAsHeaders)
{
    auto src = make("souphttpsrc");
    ASSERT_TRUE(src);
    Internal::updateHttpHeaders(src.get(), {{"Connection", "Close"}, {"Accept-Encoding", "gzip"}});
    EXPECT_TRUE(boolean(src.get(), "keep-alive"));
    auto extra = structure(src.get(), "extra-headers");
    ASSERT_TRUE(extra);
    EXPECT_EQ(field(extra.get(), "Connection"), "Close");
    EXPECT_EQ(field(extra.get(), "Accept-Encoding"), "gzip");
}

TEST_F(HttpHeaders, HeadersWithLineBreaksOrNulAreRefused)
{
    auto src = make("souphttpsrc");
    ASSERT_TRUE(src);
    lumiflux_test::clearSyslog();
    Internal::updateHttpHeaders(src.get(), {{"X-Evil", "a\r\nInjected: yes"},
                                            {"X-Bad\n", "v"},
                                            {"User-Agent", std::string("ua\0x", 4)},
                                            {"X-Good", "fine"}});
    auto extra = structure(src.get(), "extra-headers");
    ASSERT_TRUE(extra);
    EXPECT_EQ(gst_structure_n_fields(extra.get()), 1);
    EXPECT_EQ(field(extra.get(), "X-Good"), "fine");
    gchar* agent = nullptr;
    g_object_get(src.get(), "user-agent", &agent, nullptr);
    EXPECT_STRNE(agent, "ua");
    g_free(agent);
    const auto refused = lumiflux_test::syslogRecordsContaining("Refusing HTTP header");
    ASSERT_EQ(refused.size(), 3u);
    EXPECT_EQ(refused[0].text.rfind("2[lumiflux-player] updateHttpHeaders:", 0), 0u) << refused[0].text;
}

TEST_F(HttpHeaders, AuthHeadersTakePrecedenceAndElementsWithoutEitherDropHeaders)
{
    Ref<GstElement> auth =
        Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(g_object_new(auth_element_get_type(), nullptr))));
    Internal::updateHttpHeaders(auth.get(), {{"User-Agent", "ua"}, {"Authorization", "x"}});
    auto headers = structure(auth.get(), "auth-headers");
    ASSERT_TRUE(headers);
    EXPECT_STREQ(gst_structure_get_name(headers.get()), "auth-headers");
    // No "user-agent" property here: the header goes into the structure.
    EXPECT_EQ(field(headers.get(), "User-Agent"), "ua");
    EXPECT_EQ(field(headers.get(), "Authorization"), "x");

    auto demux = make("hlsdemux2");
    ASSERT_TRUE(demux);
    lumiflux_test::clearSyslog();
    Internal::updateHttpHeaders(demux.get(), {{"Authorization", "x"}});
    EXPECT_TRUE(lumiflux_test::syslogRecordsContaining("extraHeaders").empty());
}

TEST_F(HttpHeaders, LogLevelFromTheEnvironment)
{
    auto src = make("souphttpsrc");
    ASSERT_TRUE(src);
    auto level = [&] {
        gint value = -1;
        g_object_get(src.get(), "http-log-level", &value, nullptr);
        return value;
    };
    g_object_set(src.get(), "http-log-level", 1, nullptr);
    unsetenv("LUMIFLUX_HTTP_LOG_LEVEL");
    Internal::setupHttpLogLevel(src.get());
    EXPECT_EQ(level(), 1);

    lumiflux_test::clearSyslog();
    setenv("LUMIFLUX_HTTP_LOG_LEVEL", "3", 1);
    Internal::setupHttpLogLevel(src.get());
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(lumiflux_test::syslogRecordsContaining("setupHttpLogLevel:").size(), 1u);
    EXPECT_EQ(lumiflux_test::syslogRecordsContaining("-- setting http-log-level to 3\n").size(), 1u);

    for (const char* bad : {"4", "-1"}) {
        lumiflux_test::clearSyslog();
        setenv("LUMIFLUX_HTTP_LOG_LEVEL", bad, 1);
        Internal::setupHttpLogLevel(src.get());
        EXPECT_EQ(level(), 3) << bad;
        const auto lines = lumiflux_test::syslogRecordsContaining("invalid http-log-level value " + std::string(bad));
        ASSERT_EQ(lines.size(), 1u) << bad;
        EXPECT_EQ(lines[0].text[0], '2');
    }
    setenv("LUMIFLUX_HTTP_LOG_LEVEL", "verbose", 1);
    Internal::setupHttpLogLevel(src.get());
    EXPECT_EQ(level(), 0) << "non-numeric text counts as 0";

    // An element without the property is left alone.
    auto demux = make("hlsdemux2");
    lumiflux_test::clearSyslog();
    Internal::setupHttpLogLevel(demux.get());
    EXPECT_TRUE(lumiflux_test::syslogRecordsContaining("http-log-level").empty());
    unsetenv("LUMIFLUX_HTTP_LOG_LEVEL");
}

} // namespace
