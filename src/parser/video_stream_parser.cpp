#include <lumiflux/video_stream_parser.h>

#include <array>
#include <numeric>

#include <glib.h>
#include <lumiflux/h264_reader.h>

#include "parser/h264_syntax.h"
#include "parser/rbsp_reader.h"
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux {

using Internal::PictureParameterSet;
using Internal::SequenceParameterSet;
using Internal::SliceHeader;

struct VideoStreamMetadata::Impl {
    bool valid = false;
    SequenceParameterSet sps;
    std::uint64_t accessUnits = 0;
    std::uint64_t keyFrames = 0;
};

VideoStreamMetadata::VideoStreamMetadata() : impl(std::make_unique<Impl>()) {}
// A moved-from description has no Impl; every accessor then answers "empty".
VideoStreamMetadata::VideoStreamMetadata(const VideoStreamMetadata& other)
    : impl(other.impl ? std::make_unique<Impl>(*other.impl) : std::make_unique<Impl>())
{
}
VideoStreamMetadata& VideoStreamMetadata::operator=(const VideoStreamMetadata& other)
{
    if (this != &other)
        impl = other.impl ? std::make_unique<Impl>(*other.impl) : std::make_unique<Impl>();
    return *this;
}
VideoStreamMetadata::VideoStreamMetadata(VideoStreamMetadata&& other) noexcept = default;
VideoStreamMetadata& VideoStreamMetadata::operator=(VideoStreamMetadata&& other) noexcept = default;
VideoStreamMetadata::~VideoStreamMetadata() = default;

bool VideoStreamMetadata::isValid() const
{
    return impl && impl->valid;
}
std::string VideoStreamMetadata::codecName() const
{
    return isValid() ? "h264" : "";
}
int VideoStreamMetadata::profile() const
{
    return isValid() ? impl->sps.profileIdc : 0;
}
int VideoStreamMetadata::level() const
{
    return isValid() ? impl->sps.levelIdc : 0;
}
int VideoStreamMetadata::constraintFlags() const
{
    return isValid() ? impl->sps.constraintFlags : 0;
}
int VideoStreamMetadata::codedWidth() const
{
    return isValid() ? impl->sps.codedWidth() : 0;
}
int VideoStreamMetadata::codedHeight() const
{
    return isValid() ? impl->sps.codedHeight() : 0;
}
int VideoStreamMetadata::displayWidth() const
{
    return isValid() ? impl->sps.displayWidth() : 0;
}
int VideoStreamMetadata::displayHeight() const
{
    return isValid() ? impl->sps.displayHeight() : 0;
}
int VideoStreamMetadata::cropLeft() const
{
    return isValid() ? static_cast<int>(impl->sps.cropLeft) : 0;
}
int VideoStreamMetadata::cropRight() const
{
    return isValid() ? static_cast<int>(impl->sps.cropRight) : 0;
}
int VideoStreamMetadata::cropTop() const
{
    return isValid() ? static_cast<int>(impl->sps.cropTop) : 0;
}
int VideoStreamMetadata::cropBottom() const
{
    return isValid() ? static_cast<int>(impl->sps.cropBottom) : 0;
}
int VideoStreamMetadata::sarWidth() const
{
    return isValid() ? static_cast<int>(impl->sps.sarWidth) : 0;
}
int VideoStreamMetadata::sarHeight() const
{
    return isValid() ? static_cast<int>(impl->sps.sarHeight) : 0;
}

namespace {
// time_scale counts ticks per second and a frame lasts two ticks.
std::pair<std::uint64_t, std::uint64_t> frameRateOf(const SequenceParameterSet& sps)
{
    if (sps.numUnitsInTick == 0 || sps.timeScale == 0)
        return {0, 0};
    std::uint64_t numerator = sps.timeScale;
    std::uint64_t denominator = std::uint64_t{2} * sps.numUnitsInTick;
    const std::uint64_t divisor = std::gcd(numerator, denominator);
    return {numerator / divisor, denominator / divisor};
}
} // namespace

int VideoStreamMetadata::frameRateNumerator() const
{
    return isValid() ? static_cast<int>(std::min<std::uint64_t>(frameRateOf(impl->sps).first, INT32_MAX)) : 0;
}
int VideoStreamMetadata::frameRateDenominator() const
{
    return isValid() ? static_cast<int>(std::min<std::uint64_t>(frameRateOf(impl->sps).second, INT32_MAX)) : 0;
}
double VideoStreamMetadata::frameRate() const
{
    if (!isValid())
        return 0.0;
    const auto rate = frameRateOf(impl->sps);
    return rate.second != 0 ? static_cast<double>(rate.first) / static_cast<double>(rate.second) : 0.0;
}
int VideoStreamMetadata::bitDepthLuma() const
{
    return isValid() ? static_cast<int>(impl->sps.bitDepthLuma) : 0;
}
int VideoStreamMetadata::bitDepthChroma() const
{
    return isValid() ? static_cast<int>(impl->sps.bitDepthChroma) : 0;
}
int VideoStreamMetadata::chromaFormat() const
{
    return isValid() ? static_cast<int>(impl->sps.chromaFormatIdc) : 0;
}
bool VideoStreamMetadata::frameMbsOnly() const
{
    return isValid() ? impl->sps.frameMbsOnly : false;
}
std::uint64_t VideoStreamMetadata::accessUnitCount() const
{
    return impl ? impl->accessUnits : 0;
}
std::uint64_t VideoStreamMetadata::keyFrameCount() const
{
    return impl ? impl->keyFrames : 0;
}

namespace {

// Slice headers need only their first few dozen bytes.
constexpr std::size_t sliceHeaderBytes = 96;

bool isSlice(int type)
{
    return type == 1 || type == 2 || type == 5;
}

bool isVcl(int type)
{
    return type >= 1 && type <= 5;
}

// NAL units that, after a picture's last VCL unit, begin the next access unit.
bool beginsAccessUnit(int type)
{
    return type == 6 || type == 7 || type == 8 || type == 9 || (type >= 14 && type <= 18);
}

} // namespace

struct VideoStreamParser::Impl {
    explicit Impl(const VideoStreamParserSettings& parserSettings) : settings(parserSettings) {}

    bool fail(std::string message)
    {
        error = std::move(message);
        LUMIFLUX_LOG(LogLevel::Debug, "main ") << error << std::endl;
        return false;
    }

    void reset()
    {
        metadata = VideoStreamMetadata();
        units.clear();
        nalCounts.assign(32, 0);
        error.clear();
        for (auto& entry : spsTable)
            entry.reset();
        for (auto& entry : ppsTable)
            entry.reset();
        current = Pending();
        firstPictureSps.reset();
        firstSps.reset();
    }

    // The access unit being collected.
    struct Pending {
        bool open = false;
        bool hasPicture = false;
        bool sliceKnown = false;
        VideoAccessUnit unit;
        SliceHeader lastSlice;
        SequenceParameterSet sliceSps;
    };

    void closeUnit(std::uint64_t end)
    {
        if (current.open && current.hasPicture) {
            VideoAccessUnit& unit = current.unit;
            unit.size = end - unit.offset;
            unit.keyFrame = unit.idr || (settings.recoveryPointIsKeyFrame && unit.recoveryPoint);
            metadata.impl->accessUnits++;
            if (unit.keyFrame)
                metadata.impl->keyFrames++;
            if (settings.keepAccessUnits)
                units.push_back(std::move(unit));
            current = Pending();
        }
    }

    void startUnitIfNeeded(std::uint64_t offset)
    {
        if (!current.open) {
            current.open = true;
            current.unit.offset = offset;
        }
    }

    bool handleNal(const std::uint8_t* data, std::uint64_t offset, std::size_t headerAt, std::size_t end)
    {
        const std::uint8_t* nal = data + headerAt;
        const std::size_t nalSize = end - headerAt;
        const int type = nal[0] & 0x1f;
        nalCounts[static_cast<std::size_t>(type)]++;
        if ((nal[0] & 0x80) != 0)
            return fail("NAL unit at offset " + std::to_string(offset) + " has its forbidden_zero_bit set");

        if (beginsAccessUnit(type) && current.hasPicture)
            closeUnit(offset);

        std::string problem;
        if (type == 7) {
            auto sps = Internal::parseSequenceParameterSet(Internal::unescapeRbsp(nal, nalSize), problem);
            if (!problem.empty())
                return fail(problem + " (NAL unit at offset " + std::to_string(offset) + ")");
            if (!firstSps)
                firstSps = std::make_unique<SequenceParameterSet>(sps);
            spsTable[sps.id] = std::make_unique<SequenceParameterSet>(sps);
        } else if (type == 8) {
            auto pps = Internal::parsePictureParameterSet(Internal::unescapeRbsp(nal, nalSize), problem);
            if (!problem.empty())
                return fail(problem + " (NAL unit at offset " + std::to_string(offset) + ")");
            ppsTable[pps.id] = std::make_unique<PictureParameterSet>(pps);
        } else if (type == 6) {
            startUnitIfNeeded(offset);
            if (Internal::seiHasRecoveryPoint(Internal::unescapeRbsp(nal, nalSize)))
                current.unit.recoveryPoint = true;
        } else if (isSlice(type)) {
            if (!handleSlice(nal, nalSize, offset))
                return false;
        } else if (isVcl(type)) {
            // Data partitions B and C carry no picture boundary of their own.
            startUnitIfNeeded(offset);
            current.hasPicture = true;
        }
        startUnitIfNeeded(offset);
        if (settings.keepAccessUnits)
            current.unit.nalTypes.push_back(static_cast<std::uint8_t>(type));
        return true;
    }

    bool handleSlice(const std::uint8_t* nal, std::size_t nalSize, std::uint64_t offset)
    {
        std::array<const PictureParameterSet*, 256> pps{};
        std::array<const SequenceParameterSet*, 32> sps{};
        for (std::size_t i = 0; i < pps.size(); ++i)
            pps[i] = ppsTable[i].get();
        for (std::size_t i = 0; i < sps.size(); ++i)
            sps[i] = spsTable[i].get();
        std::string problem;
        const SliceHeader slice = Internal::parseSliceHeader(Internal::unescapeRbsp(nal, nalSize, sliceHeaderBytes),
                                                             pps.data(), sps.data(), problem);
        const bool known = problem.empty();
        const bool setsKnown =
            slice.ppsId <= 255 && pps[slice.ppsId] != nullptr && sps[pps[slice.ppsId]->spsId] != nullptr;
        if (!known && (setsKnown || slice.ppsId > 255))
            return fail(problem + " (NAL unit at offset " + std::to_string(offset) + ")");
        // A slice whose parameter sets are missing (a stream cut after them)
        // can only be placed by where its first macroblock is.
        bool newPicture = false;
        if (current.hasPicture) {
            if (known && current.sliceKnown)
                newPicture = Internal::startsNewPicture(current.lastSlice, slice, current.sliceSps);
            else
                newPicture = slice.firstMbInSlice == 0;
        }
        if (newPicture)
            closeUnit(offset);
        startUnitIfNeeded(offset);
        current.hasPicture = true;
        current.sliceKnown = known;
        if (known) {
            current.lastSlice = slice;
            current.sliceSps = *sps[pps[slice.ppsId]->spsId];
            if (!firstPictureSps)
                firstPictureSps = std::make_unique<SequenceParameterSet>(current.sliceSps);
        }
        if (slice.nalType == 5)
            current.unit.idr = true;
        return true;
    }

    bool run(const std::uint8_t* data, std::size_t size)
    {
        reset();
        if (data == nullptr || size == 0) {
            error = "no data to parse";
            LUMIFLUX_LOG(LogLevel::Error, "main ") << error << std::endl;
            return false;
        }
        H264Reader reader;
        reader.setData(data, size);
        auto unit = reader.readNalUnit(settings.allowLeadingBytes);
        if (reader.error() != H264Reader::NoError)
            return fail("the stream does not begin with a start code");
        if (unit.first >= size)
            return fail("the stream holds no start code");
        bool ok = true;
        for (; ok && unit.first < size && unit.second > 0; unit = reader.readNalUnit()) {
            const std::size_t end = unit.first + unit.second;
            std::size_t header = unit.first;
            while (header < end && data[header] == 0)
                ++header;
            ++header; // the start code's 0x01
            if (header >= end)
                continue; // a start code with nothing after it
            ok = handleNal(data, unit.first, header, end);
        }
        if (ok)
            closeUnit(size);
        const SequenceParameterSet* described = firstPictureSps ? firstPictureSps.get() : firstSps.get();
        if (described != nullptr) {
            metadata.impl->valid = true;
            metadata.impl->sps = *described;
        }
        if (ok && described == nullptr)
            return fail("the stream holds no sequence parameter set");
        return ok;
    }

    VideoStreamParserSettings settings;
    VideoStreamMetadata metadata;
    std::vector<VideoAccessUnit> units;
    std::vector<std::uint64_t> nalCounts = std::vector<std::uint64_t>(32, 0);
    std::string error;
    std::array<std::unique_ptr<SequenceParameterSet>, 32> spsTable;
    std::array<std::unique_ptr<PictureParameterSet>, 256> ppsTable;
    Pending current;
    std::unique_ptr<SequenceParameterSet> firstPictureSps;
    std::unique_ptr<SequenceParameterSet> firstSps;
};

VideoStreamParser::VideoStreamParser(const VideoStreamParserSettings& settings) : impl(std::make_unique<Impl>(settings))
{
}

VideoStreamParser::~VideoStreamParser() = default;

bool VideoStreamParser::parse(const std::uint8_t* data, std::size_t size)
{
    LogInit();
    return impl->run(data, size);
}

bool VideoStreamParser::parseFile(const std::string& path)
{
    LogInit();
    GError* rawError = nullptr;
    // Mapped rather than read: a long recording is only paged in as it is scanned.
    const std::unique_ptr<GMappedFile, decltype(&g_mapped_file_unref)> file(
        g_mapped_file_new(path.c_str(), FALSE, &rawError), &g_mapped_file_unref);
    if (!file) {
        impl->reset();
        impl->error = "cannot read " + path + ": " + (rawError != nullptr ? rawError->message : "");
        g_clear_error(&rawError);
        LUMIFLUX_LOG(LogLevel::Error, "main ") << impl->error << std::endl;
        return false;
    }
    return impl->run(reinterpret_cast<const std::uint8_t*>(g_mapped_file_get_contents(file.get())),
                     g_mapped_file_get_length(file.get()));
}

const VideoStreamMetadata& VideoStreamParser::metadata() const
{
    return impl->metadata;
}

const std::vector<VideoAccessUnit>& VideoStreamParser::accessUnits() const
{
    return impl->units;
}

const std::vector<std::uint64_t>& VideoStreamParser::nalUnitCounts() const
{
    return impl->nalCounts;
}

const std::string& VideoStreamParser::errorMessage() const
{
    return impl->error;
}

} // namespace Tevara::Lumiflux
