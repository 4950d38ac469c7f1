#include "element_families.h"

#include <algorithm>
#include <cstring>

namespace Tevara::Lumiflux::GstCodecs {

namespace {

using Kind = ParameterBinding::Kind;

constexpr int minBitRate = 16000;
constexpr int maxBitRate = 100000000;
constexpr int defaultBitRate = 2000000;
constexpr int maxKeyFrameInterval = 3000;
constexpr int defaultKeyFrameInterval = 60;

// Where a known element's parameters go; null: it has no such property.
struct KnownProperties {
    const char* bitRate = nullptr;
    int divisor = 1; ///< bits per second in one unit of the property
    const char* keyFrameInterval = nullptr;
    const char* rateControl = nullptr;
    const char* rateControlInitial = nullptr;
};

struct KnownElement {
    const char* factory; ///< the factory name, or a prefix when it ends in '_'
    const char* name;
    int quality;
    bool endAroundElement;
    std::vector<std::pair<std::string, std::string>> fixedProperties;
    KnownProperties properties;
};

// The short quality order: within a format, the better or faster element
// first. Live settings keep the slow encoders at camera rates.
const std::vector<KnownElement>& knownElements()
{
    static const std::vector<KnownElement> list{
        {"x264enc",
         "x264",
         9,
         false,
         {{"speed-preset", "veryfast"}, {"tune", "zerolatency"}},
         {"bitrate", 1000, "key-int-max", "pass", "cbr"}},
        // openh264 holds no frame, but its drain at the end of the stream
        // calls the library without a picture, which logs an error line.
        {"openh264enc", "openh264", 8, true, {}, {"bitrate", 1, "gop-size", "rate-control", "bitrate"}},
        {"x265enc",
         "x265",
         8,
         false,
         {{"speed-preset", "ultrafast"}, {"tune", "zerolatency"}, {"log-level", "none"}},
         {"bitrate", 1000, "key-int-max", nullptr, nullptr}},
        // A real-time deadline: the default "best" is far too slow for live frames.
        {"vp8enc",
         "vpx",
         8,
         false,
         {{"deadline", "1"}, {"cpu-used", "4"}},
         {"target-bitrate", 1, "keyframe-max-dist", "end-usage", "vbr"}},
        {"vp9enc",
         "vpx",
         8,
         false,
         {{"deadline", "1"}, {"cpu-used", "6"}, {"row-mt", "true"}},
         {"target-bitrate", 1, "keyframe-max-dist", "end-usage", "vbr"}},
        {"av1enc",
         "aom",
         8,
         false,
         {{"usage-profile", "realtime"}, {"cpu-used", "8"}, {"row-mt", "true"}},
         {"target-bitrate", 1000, "keyframe-max-dist", "end-usage", "vbr"}},
        {"avenc_", "avenc", 3, false, {}, {"bitrate", 1, "gop-size", nullptr, nullptr}},
        {"vp8dec", "vpx", 8, false, {}, {}},
        {"vp9dec", "vpx", 8, false, {}, {}},
        {"av1dec", "aom", 8, false, {}, {}},
        {"avdec_", "avdec", 7, false, {}, {}},
        {"openh264dec", "openh264", 6, false, {}, {}},
        {"libde265dec", "libde265", 6, false, {}, {}},
    };
    return list;
}

// Elements that pass a one-frame test but fail in real use.
const char* knownDefect(const std::string& factory)
{
    // Debian 12's libde265 element unmaps a picture it no longer owns after
    // some tens of frames: the process crashes (seen in every 60-frame run).
    if (factory == "libde265dec")
        return "it corrupts memory when it releases decoded pictures";
    return nullptr;
}

const KnownElement* findKnown(const std::string& factory)
{
    for (const auto& known : knownElements()) {
        const std::size_t length = std::strlen(known.factory);
        const bool prefix = known.factory[length - 1] == '_';
        if (prefix ? factory.compare(0, length, known.factory) == 0 : factory == known.factory)
            return &known;
    }
    return nullptr;
}

GParamSpec* findProperty(GstElement* element, const char* name)
{
    return name != nullptr ? g_object_class_find_property(G_OBJECT_GET_CLASS(element), name) : nullptr;
}

// The numbers a property takes; false when it is not an integer property.
bool integerRange(GParamSpec* spec, double* low, double* high)
{
    if (G_IS_PARAM_SPEC_INT(spec)) {
        *low = G_PARAM_SPEC_INT(spec)->minimum;
        *high = G_PARAM_SPEC_INT(spec)->maximum;
    } else if (G_IS_PARAM_SPEC_UINT(spec)) {
        *low = G_PARAM_SPEC_UINT(spec)->minimum;
        *high = G_PARAM_SPEC_UINT(spec)->maximum;
    } else if (G_IS_PARAM_SPEC_INT64(spec)) {
        *low = static_cast<double>(G_PARAM_SPEC_INT64(spec)->minimum);
        *high = static_cast<double>(G_PARAM_SPEC_INT64(spec)->maximum);
    } else if (G_IS_PARAM_SPEC_UINT64(spec)) {
        *low = static_cast<double>(G_PARAM_SPEC_UINT64(spec)->minimum);
        *high = static_cast<double>(G_PARAM_SPEC_UINT64(spec)->maximum);
    } else {
        return false;
    }
    return true;
}

// An integer parameter of [low, high] parameter units on `property`,
// narrowed to what the property takes; nothing when it takes none of them.
void addInteger(std::vector<ParameterBinding>* out, GstElement* element, unsigned id, const char* property, int divisor,
                int low, int high, int initial)
{
    GParamSpec* spec = findProperty(element, property);
    double propertyLow = 0;
    double propertyHigh = 0;
    if (spec == nullptr || !integerRange(spec, &propertyLow, &propertyHigh))
        return;
    const int min = static_cast<int>(std::max<double>(low, propertyLow * divisor));
    const int max = static_cast<int>(std::min<double>(high, propertyHigh * divisor));
    if (min > max)
        return;
    out->push_back(
        {id, Kind::Integer, property, {}, min, max, divisor, std::to_string(std::clamp(initial, min, max)), {}});
}

// A choice among the nicks of an enumeration property.
void addEnumChoice(std::vector<ParameterBinding>* out, GstElement* element, const char* property,
                   const std::string& preferred)
{
    GParamSpec* spec = findProperty(element, property);
    if (spec == nullptr || !G_IS_PARAM_SPEC_ENUM(spec))
        return;
    GEnumClass* enumClass = G_PARAM_SPEC_ENUM(spec)->enum_class;
    ParameterBinding binding{CodecParameter::RateControl, Kind::Choice, property, {}, 0, 0, 1, "", {}};
    for (guint i = 0; i < enumClass->n_values; ++i) {
        binding.choices.emplace_back(enumClass->values[i].value_nick, enumClass->values[i].value);
        if (enumClass->values[i].value == G_PARAM_SPEC_ENUM(spec)->default_value)
            binding.initial = enumClass->values[i].value_nick;
    }
    for (const auto& choice : binding.choices)
        if (choice.first == preferred)
            binding.initial = preferred;
    if (!binding.choices.empty())
        out->push_back(std::move(binding));
}

void addStandardParameters(std::vector<ParameterBinding>* out, GstElement* element, const KnownProperties& known)
{
    addInteger(out, element, CodecParameter::BitRate, known.bitRate, known.divisor, minBitRate, maxBitRate,
               defaultBitRate);
    addInteger(out, element, CodecParameter::KeyFrameInterval, known.keyFrameInterval, 1, 1, maxKeyFrameInterval,
               defaultKeyFrameInterval);
    if (known.rateControl != nullptr)
        addEnumChoice(out, element, known.rateControl, known.rateControlInitial);
}

// V4L2 encoders take their settings as controls in one structure; the
// controls and their units (bits per second, frames, a menu) are the
// kernel's, the same for every driver.
std::vector<ParameterBinding> v4l2Controls(CodecType type)
{
    const char* const property = "extra-controls";
    std::vector<std::string> keyFrameControls{"video_gop_size"};
    // Some H.264 drivers read the intra period instead of the GOP size.
    if (type == CodecType::H264)
        keyFrameControls.emplace_back("h264_i_frame_period");
    return {
        {CodecParameter::BitRate,
         Kind::Integer,
         property,
         {"video_bitrate"},
         minBitRate,
         maxBitRate,
         1,
         std::to_string(defaultBitRate),
         {}},
        {CodecParameter::KeyFrameInterval,
         Kind::Integer,
         property,
         keyFrameControls,
         1,
         maxKeyFrameInterval,
         1,
         std::to_string(defaultKeyFrameInterval),
         {}},
        {CodecParameter::RateControl,
         Kind::Choice,
         property,
         {"video_bitrate_mode"},
         0,
         0,
         1,
         "cbr",
         {{"vbr", 0}, {"cbr", 1}}},
    };
}

bool hasStructureProperty(GstElement* element, const char* name)
{
    GParamSpec* spec = findProperty(element, name);
    return spec != nullptr && G_IS_PARAM_SPEC_BOXED(spec) && spec->value_type == GST_TYPE_STRUCTURE;
}

// "vah264enc" gives "va", "v4l2slh264dec" "v4l2sl": the factory name less
// the format and the direction.
std::string genericName(const std::string& factory, CodecType type)
{
    std::string name = factory;
    for (const char* suffix : {"enc", "dec"}) {
        const std::size_t length = std::strlen(suffix);
        if (name.size() > length && name.compare(name.size() - length, length, suffix) == 0)
            name.erase(name.size() - length);
    }
    static const std::vector<std::pair<CodecType, std::vector<const char*>>> tokens{
        {CodecType::H264, {"h264", "avc"}}, {CodecType::H265, {"h265", "hevc"}}, {CodecType::VP8, {"vp8"}},
        {CodecType::VP9, {"vp9"}},          {CodecType::AV1, {"av1"}},           {CodecType::MPEG4, {"mpeg4"}},
        {CodecType::H263, {"h263"}}};
    for (const auto& [tokenType, names] : tokens) {
        if (tokenType != type)
            continue;
        for (const char* token : names)
            if (const auto at = name.find(token); at != std::string::npos) {
                name.erase(at, std::strlen(token));
                break;
            }
    }
    while (!name.empty() && (name.back() == '_' || name.back() == '-'))
        name.pop_back();
    return name.empty() ? factory : name;
}

} // namespace

ElementFamily describeElement(GstElement* element, const std::string& factory, CodecType type, bool encoder)
{
    ElementFamily family;
    if (const KnownElement* known = findKnown(factory)) {
        family.name = known->name;
        family.quality = known->quality;
        family.endAroundElement = known->endAroundElement;
        family.fixedProperties = known->fixedProperties;
        if (const char* defect = knownDefect(factory))
            family.defect = defect;
        if (encoder)
            addStandardParameters(&family.parameters, element, known->properties);
        return family;
    }
    family.name = genericName(factory, type);
    if (!encoder)
        return family;
    if (hasStructureProperty(element, "extra-controls")) {
        family.quality = 5;
        family.parameters = v4l2Controls(type);
    } else if (findProperty(element, "target-usage") != nullptr && findProperty(element, "bitrate") != nullptr) {
        // The VA encoders' surface: bit rate in kbit/s beside a target usage.
        family.quality = 5;
        addStandardParameters(&family.parameters, element, {"bitrate", 1000, "key-int-max", "rate-control", "cbr"});
    }
    return family;
}

} // namespace Tevara::Lumiflux::GstCodecs
