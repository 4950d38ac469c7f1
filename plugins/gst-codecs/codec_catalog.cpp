#include "codec_catalog.h"

#include <gst/gst.h>

namespace Tevara::Lumiflux::GstCodecs {

namespace {

using Kind = ParameterBinding::Kind;

// Frames these codecs take: 4:2:0 needs even sizes; the upper bound is the
// area of 4096x2304, which the software codecs still handle.
const SizeRange softwareRange{{16, 16}, {4096, 2304}};

// Encoders deliver whole access units; decoders take any cut of the byte
// stream, which their parser frames.
const char* const h264Caps = "video/x-h264,stream-format=byte-stream,alignment=au";
const char* const h264InputCaps = "video/x-h264,stream-format=byte-stream";
const char* const h265InputCaps = "video/x-h265,stream-format=byte-stream";
const char* const vp8Caps = "video/x-vp8";

ParameterBinding bitRate(const std::string& property, int divisor, int maxBitsPerSecond)
{
    return {CodecParameter::BitRate, Kind::Integer, property, 16000, maxBitsPerSecond, divisor, "2000000"};
}

ParameterBinding keyFrameInterval(const std::string& property)
{
    return {CodecParameter::KeyFrameInterval, Kind::Integer, property, 1, 3000, 1, "60"};
}

ParameterBinding rateControl(const std::string& property, const std::string& initial)
{
    return {CodecParameter::RateControl, Kind::Choice, property, 0, 0, 1, initial};
}

ParameterBinding profile(const std::string& initial)
{
    return {CodecParameter::Profile, Kind::ReadOnly, "", 0, 0, 1, initial};
}

std::vector<CodecEntry> makeCatalog()
{
    std::vector<CodecEntry> catalog;
    // Encoders, preferred in this order within the module.
    catalog.push_back({"gst.h264.x264.enc",
                       CodecType::H264,
                       true,
                       "x264enc",
                       "h264parse",
                       h264Caps,
                       5,
                       softwareRange,
                       {{"speed-preset", "veryfast"}, {"tune", "zerolatency"}},
                       {bitRate("bitrate", 1000, 100000000), keyFrameInterval("key-int-max"),
                        rateControl("pass", "cbr"), profile("unknown")}});
    catalog.push_back({"gst.h264.openh264.enc",
                       CodecType::H264,
                       true,
                       "openh264enc",
                       "h264parse",
                       h264Caps,
                       4,
                       softwareRange,
                       {},
                       {bitRate("bitrate", 1, 100000000), keyFrameInterval("gop-size"),
                        rateControl("rate-control", "bitrate"), profile("unknown")}});
    catalog.push_back({"gst.vp8.vpx.enc",
                       CodecType::VP8,
                       true,
                       "vp8enc",
                       "",
                       vp8Caps,
                       4,
                       softwareRange,
                       // Real-time deadline: the default "best" is far too slow for live frames.
                       {{"deadline", "1"}, {"cpu-used", "4"}},
                       {bitRate("target-bitrate", 1, 100000000), keyFrameInterval("keyframe-max-dist"),
                        rateControl("end-usage", "vbr"), profile("0")}});
    // Decoders.
    catalog.push_back({"gst.h264.avdec.dec",
                       CodecType::H264,
                       false,
                       "avdec_h264",
                       "h264parse",
                       h264InputCaps,
                       5,
                       softwareRange,
                       {},
                       {profile("unknown")}});
    catalog.push_back({"gst.h264.openh264.dec",
                       CodecType::H264,
                       false,
                       "openh264dec",
                       "h264parse",
                       h264InputCaps,
                       4,
                       softwareRange,
                       {},
                       {profile("unknown")}});
    catalog.push_back({"gst.vp8.vpx.dec", CodecType::VP8, false, "vp8dec", "", vp8Caps, 4, softwareRange, {}, {}});
    catalog.push_back({"gst.h265.avdec.dec",
                       CodecType::H265,
                       false,
                       "avdec_h265",
                       "h265parse",
                       h265InputCaps,
                       4,
                       softwareRange,
                       {},
                       {profile("unknown")}});
    return catalog;
}

bool elementExists(const std::string& name)
{
    GstElementFactory* factory = gst_element_factory_find(name.c_str());
    if (factory == nullptr)
        return false;
    gst_object_unref(factory);
    return true;
}

} // namespace

const std::vector<CodecEntry>& codecCatalog()
{
    static const std::vector<CodecEntry> catalog = makeCatalog();
    return catalog;
}

bool elementsAvailable(const CodecEntry& entry)
{
    // Every pipeline also needs the app elements and the converter.
    for (const char* common : {"appsrc", "appsink", "videoconvert"})
        if (!elementExists(common))
            return false;
    return elementExists(entry.element) && (entry.parser.empty() || elementExists(entry.parser));
}

const CodecEntry* findCodec(const std::string& id)
{
    for (const auto& entry : codecCatalog())
        if (entry.id == id)
            return &entry;
    return nullptr;
}

} // namespace Tevara::Lumiflux::GstCodecs
