// The application's HTTP headers on real GStreamer HTTP elements: the stock
// HTTP source (properties and "extra-headers"), an adaptive demuxer (neither
// structure), and an element type of this test with "auth-headers".

#include <map>
#include <string>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <lumiflux/log.h>

#include "player/http_headers.h"
#include "syslog_capture.h"
#include <lumiflux/gst_ref.h>

using namespace Tevara::Lumiflux;
using lumiflux_test::clearSyslog;
using lumiflux_test::syslogRecordsContaining;
using Tevara::Lumiflux::Internal::Ref;

namespace {

// An element with the "auth-headers" structure property that our HTTP
// elements carry, and nothing else. The value lives in the object's data.
struct AuthElement {
    GstElement parent;
};
struct AuthElementClass {
    GstElementClass parent;
};

G_DEFINE_TYPE(AuthElement, auth_element, GST_TYPE_ELEMENT)

void auth_element_init(AuthElement*) {}
void auth_element_class_init(AuthElementClass* klass)
{
    GObjectClass* object = G_OBJECT_CLASS(klass);
    object->set_property = [](GObject* self, guint, const GValue* value, GParamSpec*) {
        const GstStructure* s = gst_value_get_structure(value);
        g_object_set_data_full(self, "auth-headers", s ? gst_structure_copy(s) : nullptr,
                               reinterpret_cast<GDestroyNotify>(gst_structure_free));
    };
    object->get_property = [](GObject* self, guint, GValue* value, GParamSpec*) {
        gst_value_set_structure(value, static_cast<GstStructure*>(g_object_get_data(self, "auth-headers")));
    };
    g_object_class_install_property(object, 1,
                                    g_param_spec_boxed("auth-headers", "auth", "auth", GST_TYPE_STRUCTURE,
                                                       static_cast<GParamFlags>(G_PARAM_READWRITE)));
}

class HttpHeaderRules : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        LogInit();
        gst_init(nullptr, nullptr);
    }

    // `factory` null: the element type above.
    static Ref<GstElement> make(const char* factory)
    {
        GstElement* element = factory ? gst_element_factory_make(factory, nullptr)
                                      : GST_ELEMENT(g_object_new(auth_element_get_type(), nullptr));
        EXPECT_NE(element, nullptr) << factory << " is missing (scripts/install-deps provides it)";
        return Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(element)));
    }
    template <typename T> static T get(GstElement* element, const char* property)
    {
        T value{};
        g_object_get(element, property, &value, nullptr);
        return value;
    }
    using Fields = std::map<std::string, std::string>;
    // The fields of a structure property, which must carry the property's name.
    static Fields fields(GstElement* element, const char* property)
    {
        auto s = Ref<GstStructure>::adopt(get<GstStructure*>(element, property));
        Fields result;
        if (!s)
            return {{"<no structure>", property}};
        for (int i = 0; i < gst_structure_n_fields(s.get()); ++i) {
            const char* name = gst_structure_nth_field_name(s.get(), i);
            const char* value = gst_structure_get_string(s.get(), name);
            result[name] = value ? value : "<not a string>";
        }
        if (std::string(gst_structure_get_name(s.get())) != property)
            result["<structure name>"] = gst_structure_get_name(s.get());
        return result;
    }
    static std::string string(GstElement* element, const char* property)
    {
        gchar* value = get<gchar*>(element, property);
        std::string text = value ? value : "<none>";
        g_free(value);
        return text;
    }
};

TEST_F(HttpHeaderRules, StockHttpSourceGetsPropertiesAndExtraHeaders)
{
    auto src = make("souphttpsrc");
    ASSERT_TRUE(src);
    ASSERT_TRUE(get<gboolean>(src.get(), "keep-alive"));
    g_object_set(src.get(), "compress", TRUE, nullptr);
    clearSyslog();
    Internal::updateHttpHeaders(src.get(), {{"User-Agent", "LumifluxTest/1.0"},
                                            {"Connection", "close"},
                                            {"Accept-Encoding", "identity"},
                                            {"Authorization", "Bearer abc"},
                                            {"X-Trace", "1"},
                                            {"X-Trace", "2"}});
    EXPECT_EQ(string(src.get(), "user-agent"), "LumifluxTest/1.0");
    EXPECT_FALSE(get<gboolean>(src.get(), "keep-alive"));
    EXPECT_FALSE(get<gboolean>(src.get(), "compress"));
    // Special headers turned into properties stay out; a later header of the same name wins.
    EXPECT_EQ(fields(src.get(), "extra-headers"), (Fields{{"Authorization", "Bearer abc"}, {"X-Trace", "2"}}));
    EXPECT_EQ(syslogRecordsContaining("updateHttpHeaders:").size(), 1u);
    EXPECT_EQ(syslogRecordsContaining("-- extraHeaders: extra-headers, ").size(), 1u);

    // A second update adds to what is there; an empty one changes nothing.
    Internal::updateHttpHeaders(src.get(), {{"Cookie", "a=b"}});
    Internal::updateHttpHeaders(src.get(), {});
    EXPECT_EQ(fields(src.get(), "extra-headers"),
              (Fields{{"Authorization", "Bearer abc"}, {"X-Trace", "2"}, {"Cookie", "a=b"}}));

    // Special headers whose rule does not apply are sent as headers.
    src = make("souphttpsrc");
    Internal::updateHttpHeaders(src.get(), {{"Connection", "Close"}, {"Accept-Encoding", "gzip"}});
    EXPECT_TRUE(get<gboolean>(src.get(), "keep-alive"));
    EXPECT_EQ(fields(src.get(), "extra-headers"), (Fields{{"Connection", "Close"}, {"Accept-Encoding", "gzip"}}));
}

TEST_F(HttpHeaderRules, HeadersWithLineBreaksOrNulAreRefused)
{
    auto src = make("souphttpsrc");
    ASSERT_TRUE(src);
    const std::string agent = string(src.get(), "user-agent");
    clearSyslog();
    Internal::updateHttpHeaders(src.get(), {{"X-Evil", "a\r\nInjected: yes"},
                                            {"X-Bad\n", "v"},
                                            {"User-Agent", std::string("ua\0x", 4)},
                                            {"X-Good", "fine"}});
    EXPECT_EQ(fields(src.get(), "extra-headers"), (Fields{{"X-Good", "fine"}}));
    EXPECT_EQ(string(src.get(), "user-agent"), agent);
    const auto refused = syslogRecordsContaining("Refusing HTTP header");
    ASSERT_EQ(refused.size(), 3u);
    EXPECT_EQ(refused[0].text.rfind("2[lumiflux-player] updateHttpHeaders:", 0), 0u) << refused[0].text;
}

TEST_F(HttpHeaderRules, AuthHeadersTakePrecedenceAndElementsWithoutEitherDropHeaders)
{
    // No "user-agent" property here: the header goes into the structure.
    auto auth = make(nullptr);
    Internal::updateHttpHeaders(auth.get(), {{"User-Agent", "ua"}, {"Authorization", "x"}});
    EXPECT_EQ(fields(auth.get(), "auth-headers"), (Fields{{"User-Agent", "ua"}, {"Authorization", "x"}}));

    auto demux = make("hlsdemux2");
    ASSERT_TRUE(demux);
    clearSyslog();
    Internal::updateHttpHeaders(demux.get(), {{"Authorization", "x"}});
    EXPECT_TRUE(syslogRecordsContaining("extraHeaders").empty());
}

} // namespace
