#include "player/tag_list.h"

#include "player/player_impl.h"
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux::Internal {

namespace {

using Store = std::function<void(const std::string&, TagValue)>;

void processTag(const GstTagList* list, const gchar* tag, gpointer data)
{
    const Store& store = *static_cast<const Store*>(data);
    const GValue* value = gst_tag_list_get_value_index(list, tag, 0);
    if (!value)
        return;
    auto& log = LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << tag << ": ";
    switch (G_VALUE_TYPE(value)) {
    case G_TYPE_BOOLEAN: {
        const bool v = g_value_get_boolean(value);
        log << (v ? "true" : "false") << " \\ bool" << std::endl;
        store(tag, v);
        break;
    }
    case G_TYPE_INT: {
        const std::int32_t v = g_value_get_int(value);
        log << v << " \\ int" << std::endl;
        store(tag, v);
        break;
    }
    case G_TYPE_UINT: {
        const std::uint32_t v = g_value_get_uint(value);
        log << v << " \\ uint" << std::endl;
        store(tag, v);
        break;
    }
    case G_TYPE_INT64: {
        const std::int64_t v = g_value_get_int64(value);
        log << v << " \\ int64" << std::endl;
        store(tag, v);
        break;
    }
    case G_TYPE_UINT64: {
        const std::uint64_t v = g_value_get_uint64(value);
        log << v << " \\ uint64" << std::endl;
        store(tag, v);
        break;
    }
    case G_TYPE_FLOAT: {
        const float v = g_value_get_float(value);
        log << tagValueToString(v) << " \\ float" << std::endl;
        store(tag, v);
        break;
    }
    case G_TYPE_DOUBLE: {
        const double v = g_value_get_double(value);
        log << tagValueToString(v) << " \\ double" << std::endl;
        store(tag, v);
        break;
    }
    case G_TYPE_STRING: {
        const gchar* v = g_value_get_string(value);
        std::string text = v ? v : "";
        log << "\"" << text << "\" \\ string" << std::endl;
        store(tag, std::move(text));
        break;
    }
    default:
        log << "<unknown>" << std::endl;
        break;
    }
}

} // namespace

void copyTags(const GstTagList* tags, const Store& store)
{
    if (!tags)
        return;
    // The callback must not throw into GLib: exceptions are caught here.
    Store guarded = [&store](const std::string& name, TagValue value) {
        try {
            store(name, std::move(value));
        } catch (...) {
            LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "cannot store tag " << name << std::endl;
        }
    };
    gst_tag_list_foreach(tags, &processTag, &guarded);
}

} // namespace Tevara::Lumiflux::Internal
