#include "device_description.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include <lumiflux/camera_base.h>

#include <lumiflux/gst_ref.h>

namespace Tevara::Lumiflux::GstCameras {

namespace {

using Internal::Ref;

std::string stringProperty(const GstStructure* properties, std::initializer_list<const char*> keys)
{
    if (properties == nullptr)
        return {};
    for (const char* key : keys) {
        const GValue* value = gst_structure_get_value(properties, key);
        if (value == nullptr)
            continue;
        if (G_VALUE_HOLDS_STRING(value) && g_value_get_string(value) != nullptr && *g_value_get_string(value) != 0)
            return g_value_get_string(value);
        if (G_VALUE_HOLDS_INT(value))
            return std::to_string(g_value_get_int(value));
        if (G_VALUE_HOLDS_UINT(value))
            return std::to_string(g_value_get_uint(value));
    }
    return {};
}

std::int32_t facingOf(const std::string& location)
{
    if (location == "front")
        return CameraFacing::Front;
    if (location == "back")
        return CameraFacing::Back;
    // USB cameras and anything that does not say where it is.
    return CameraFacing::External;
}

// Sizes offered for devices that accept a range of sizes: the ones people
// ask for, not every step of the range.
constexpr std::pair<std::uint32_t, std::uint32_t> commonSizes[] = {
    {160, 120},  {320, 240},  {352, 288},  {640, 360},   {640, 480},   {800, 600},
    {1024, 768}, {1280, 720}, {1280, 960}, {1920, 1080}, {2560, 1440}, {3840, 2160},
};
constexpr std::uint32_t commonRates[] = {5, 10, 15, 20, 24, 25, 30, 50, 60, 90, 120};

// The values a field can take: the fixed ones and, for a range, its bounds.
struct IntValues {
    std::vector<std::uint32_t> fixed;
    bool ranged = false;
    std::uint32_t minimum = 0, maximum = 0;
};

void collectInts(const GValue* value, IntValues& out)
{
    if (value == nullptr)
        return;
    if (G_VALUE_HOLDS_INT(value)) {
        if (g_value_get_int(value) > 0)
            out.fixed.push_back(static_cast<std::uint32_t>(g_value_get_int(value)));
    } else if (GST_VALUE_HOLDS_INT_RANGE(value)) {
        out.ranged = true;
        out.minimum = static_cast<std::uint32_t>(std::max(1, gst_value_get_int_range_min(value)));
        out.maximum = static_cast<std::uint32_t>(std::max(1, gst_value_get_int_range_max(value)));
    } else if (GST_VALUE_HOLDS_LIST(value)) {
        for (guint i = 0; i < gst_value_list_get_size(value); ++i)
            collectInts(gst_value_list_get_value(value, i), out);
    }
}

bool inRange(const IntValues& values, std::uint32_t v)
{
    return values.ranged && v >= values.minimum && v <= values.maximum;
}

std::vector<std::pair<std::uint32_t, std::uint32_t>> sizesOf(const GstStructure* s)
{
    IntValues widths, heights;
    collectInts(gst_structure_get_value(s, "width"), widths);
    collectInts(gst_structure_get_value(s, "height"), heights);
    std::vector<std::pair<std::uint32_t, std::uint32_t>> sizes;
    for (std::uint32_t w : widths.fixed)
        for (std::uint32_t h : heights.fixed)
            sizes.emplace_back(w, h);
    for (std::uint32_t w : widths.fixed)
        for (const auto& size : commonSizes)
            if (size.first == w && inRange(heights, size.second))
                sizes.push_back(size);
    for (std::uint32_t h : heights.fixed)
        for (const auto& size : commonSizes)
            if (size.second == h && inRange(widths, size.first))
                sizes.push_back(size);
    if (widths.ranged && heights.ranged) {
        for (const auto& size : commonSizes)
            if (inRange(widths, size.first) && inRange(heights, size.second))
                sizes.push_back(size);
        // A sensor that scales anywhere up to 8K would list absurd modes; the
        // largest common size is the ceiling of what is offered.
        const bool largestIsCommon = std::any_of(std::begin(commonSizes), std::end(commonSizes), [&](const auto& size) {
            return size.first == widths.maximum && size.second == heights.maximum;
        });
        if (!largestIsCommon && widths.maximum <= 3840 && heights.maximum <= 2160)
            sizes.emplace_back(widths.maximum, heights.maximum);
    }
    return sizes;
}

void collectRates(const GValue* value, std::vector<std::uint32_t>& out)
{
    if (value == nullptr)
        return;
    if (GST_VALUE_HOLDS_FRACTION(value)) {
        const std::uint32_t rate =
            Internal::frameRateToInteger(static_cast<std::uint32_t>(gst_value_get_fraction_numerator(value)),
                                         static_cast<std::uint32_t>(gst_value_get_fraction_denominator(value)));
        if (rate > 0)
            out.push_back(rate);
    } else if (GST_VALUE_HOLDS_FRACTION_RANGE(value)) {
        const GValue* low = gst_value_get_fraction_range_min(value);
        const GValue* high = gst_value_get_fraction_range_max(value);
        const double minimum =
            static_cast<double>(gst_value_get_fraction_numerator(low)) / gst_value_get_fraction_denominator(low);
        const double maximum =
            static_cast<double>(gst_value_get_fraction_numerator(high)) / gst_value_get_fraction_denominator(high);
        std::vector<std::uint32_t> rates;
        collectRates(low, rates);
        for (std::uint32_t rate : commonRates)
            if (rate >= minimum && rate <= maximum)
                rates.push_back(rate);
        // Upper bounds like 2147483647/1 mean "no limit", not a mode.
        if (maximum <= 1000)
            collectRates(high, rates);
        out.insert(out.end(), rates.begin(), rates.end());
    } else if (GST_VALUE_HOLDS_LIST(value)) {
        for (guint i = 0; i < gst_value_list_get_size(value); ++i)
            collectRates(gst_value_list_get_value(value, i), out);
    }
}

} // namespace

CameraInfo describeDevice(GstDevice* device)
{
    CameraInfo info;
    Ref<GstStructure> properties = Ref<GstStructure>::adopt(gst_device_get_properties(device));
    g_autofree gchar* displayName = gst_device_get_display_name(device);
    const std::string name = displayName != nullptr ? displayName : "camera";

    std::string api = stringProperty(properties.get(), {"device.api"});
    if (api.empty())
        api = "gst";
    std::string node = stringProperty(properties.get(), {"api.v4l2.path", "device.path", "object.path", "node.name"});
    if (node.empty())
        node = name;

    info.id = api + ":" + node;
    info.name = name;
    info.provider = api;
    info.facing = facingOf(stringProperty(properties.get(), {"api.libcamera.location", "camera.location"}));
    const std::string rotation = stringProperty(properties.get(), {"api.libcamera.rotation", "camera.rotation"});
    info.mountAngle = rotation.empty() ? 0 : static_cast<std::int32_t>(std::strtol(rotation.c_str(), nullptr, 10));
    std::string description = stringProperty(properties.get(), {"device.product.name", "v4l2.device.card"});
    info.description = description.empty() ? name : description;
    return info;
}

std::vector<CameraCapability> capabilitiesOf(const GstCaps* caps)
{
    std::vector<CameraCapability> result;
    if (caps == nullptr)
        return result;
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        const GstStructure* s = gst_caps_get_structure(caps, i);
        // Compressed modes would need a decoder in the capture pipeline.
        if (!gst_structure_has_name(s, "video/x-raw"))
            continue;
        std::vector<std::uint32_t> rates;
        collectRates(gst_structure_get_value(s, "framerate"), rates);
        if (rates.empty())
            rates.push_back(0);
        for (const auto& size : sizesOf(s))
            for (std::uint32_t rate : rates) {
                const CameraCapability mode{size.first, size.second, rate};
                const bool known = std::any_of(result.begin(), result.end(), [&](const CameraCapability& c) {
                    return c.width == mode.width && c.height == mode.height && c.frameRate == mode.frameRate;
                });
                if (!known)
                    result.push_back(mode);
            }
    }
    return result;
}

} // namespace Tevara::Lumiflux::GstCameras
