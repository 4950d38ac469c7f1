#include "player/http_headers.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "player/player_impl.h"
#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::Internal {

namespace {

GParamSpec* findProperty(GstElement* element, const char* name, GType type)
{
    GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element), name);
    if (!spec || !g_type_is_a(G_PARAM_SPEC_VALUE_TYPE(spec), type))
        return nullptr;
    return spec;
}

bool hasControlCharacter(std::string_view text)
{
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

// The structure property that takes the headers not turned into properties.
// "auth-headers" is the name our HTTP elements use; stock GStreamer's HTTP
// source calls the same kind of structure "extra-headers", so that one is used
// when the first is missing, or the headers would never reach the server.
const char* headerStructureProperty(GstElement* element)
{
    if (findProperty(element, "auth-headers", GST_TYPE_STRUCTURE))
        return "auth-headers";
    if (findProperty(element, "extra-headers", GST_TYPE_STRUCTURE))
        return "extra-headers";
    return nullptr;
}

} // namespace

void updateHttpHeaders(GstElement* element, const HttpHeaders& headers)
{
    if (!element || headers.empty())
        return;

    const char* structureProperty = headerStructureProperty(element);
    Ref<GstStructure> extraHeaders;
    bool structureRead = false;

    for (const auto& [name, value] : headers) {
        // A header is written into the request as "name: value\r\n"; a CR, LF
        // or NUL would let application input add headers or end the request.
        if (hasControlCharacter(name) || hasControlCharacter(value)) {
            LUMIFLUX_LOG_DIGIT(2, kPlayerLog)
                << "Refusing HTTP header with CR, LF or NUL in its name or value" << std::endl;
            continue;
        }
        if (name == "User-Agent" && findProperty(element, "user-agent", G_TYPE_STRING)) {
            g_object_set(element, "user-agent", value.c_str(), nullptr);
            continue;
        }
        if (name == "Connection" && value == "close" && findProperty(element, "keep-alive", G_TYPE_BOOLEAN)) {
            g_object_set(element, "keep-alive", FALSE, nullptr);
            continue;
        }
        if (name == "Accept-Encoding" && value == "identity" && findProperty(element, "compress", G_TYPE_BOOLEAN)) {
            g_object_set(element, "compress", FALSE, nullptr);
            continue;
        }
        if (!structureProperty)
            continue;
        if (!structureRead) {
            structureRead = true;
            GstStructure* current = nullptr;
            g_object_get(element, structureProperty, &current, nullptr);
            extraHeaders = Ref<GstStructure>::adopt(current);
            if (!extraHeaders || gst_structure_n_fields(extraHeaders.get()) == 0)
                extraHeaders = Ref<GstStructure>::adopt(gst_structure_new_empty(structureProperty));
        }
        gst_structure_set(extraHeaders.get(), name.c_str(), G_TYPE_STRING, value.c_str(), nullptr);
    }

    if (extraHeaders) {
        g_autofree gchar* text = gst_structure_to_string(extraHeaders.get());
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "extraHeaders: " << text << std::endl;
        g_object_set(element, structureProperty, extraHeaders.get(), nullptr);
    }
}

void setupHttpLogLevel(GstElement* element)
{
    if (!element || !g_object_class_find_property(G_OBJECT_GET_CLASS(element), "http-log-level"))
        return;
    const char* text = std::getenv("LUMIFLUX_HTTP_LOG_LEVEL");
    if (!text)
        return;
    const auto level = static_cast<std::int32_t>(std::strtol(text, nullptr, 10));
    if (static_cast<std::uint32_t>(level) > 3) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "invalid http-log-level value " << level << std::endl;
        return;
    }
    LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "setting http-log-level to " << level << std::endl;
    g_object_set(element, "http-log-level", level, nullptr);
}

} // namespace Tevara::Lumiflux::Internal
