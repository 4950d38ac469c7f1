#include <lumiflux/camera_base.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace Tevara::Lumiflux {

// Out-of-line destructors and listener setters give the interfaces one home
// for their virtual tables (in the library, exported).
CameraListener::~CameraListener() = default;
void CameraListener::onFrame(const std::shared_ptr<GraphicBuffer>&) {}
void CameraListener::onPictureTaken(const std::shared_ptr<GraphicBuffer>&) {}
void CameraListener::onError(const std::string&) {}
void CameraListener::onCaptureEnded() {}

Camera::~Camera() = default;

void Camera::setListener(CameraListener* newListener)
{
    std::lock_guard<std::recursive_mutex> lock(listenerMutex);
    listener = newListener;
}

CameraManagerListener::~CameraManagerListener() = default;

CameraManager::~CameraManager() = default;

void CameraManager::setListener(CameraManagerListener* newListener)
{
    std::lock_guard<std::recursive_mutex> lock(listenerMutex);
    listener = newListener;
}

namespace Internal {

namespace {

// Binary GCD (Stein): shifts and subtractions only. gcd(a, 0) is a.
std::uint32_t binaryGcd(std::uint32_t a, std::uint32_t b)
{
    if (a == 0)
        return b;
    if (b == 0)
        return a;
    unsigned shift = 0;
    while (((a | b) & 1u) == 0) {
        a >>= 1;
        b >>= 1;
        ++shift;
    }
    while ((a & 1u) == 0)
        a >>= 1;
    do {
        while ((b & 1u) == 0)
            b >>= 1;
        if (a > b) {
            const std::uint32_t t = a;
            a = b;
            b = t;
        }
        b -= a;
    } while (b != 0);
    return a << shift;
}

enum class Property { Width, Height, FrameRate };

std::uint32_t valueOf(const CameraCapability& capability, Property property)
{
    switch (property) {
    case Property::Width:
        return capability.width;
    case Property::Height:
        return capability.height;
    case Property::FrameRate:
        break;
    }
    return capability.frameRate;
}

// Distance as the signed 32-bit difference made absolute: modes on either
// side of the request are equally near, and the wrap-around keeps huge
// unsigned values from looking close to small ones only by accident of sign.
std::uint32_t distance(std::uint32_t value, std::uint32_t wanted)
{
    const auto difference = static_cast<std::int32_t>(value - wanted);
    const std::int64_t wide = difference;
    return static_cast<std::uint32_t>(wide < 0 ? -wide : wide);
}

std::vector<CameraCapability> closest(const std::vector<CameraCapability>& candidates, const CameraCapability& wanted,
                                      Property property)
{
    const std::uint32_t target = valueOf(wanted, property);
    std::uint32_t best = UINT32_MAX;
    for (const auto& candidate : candidates) {
        const std::uint32_t d = distance(valueOf(candidate, property), target);
        if (d < best)
            best = d;
    }
    std::vector<CameraCapability> result;
    for (const auto& candidate : candidates)
        if (distance(valueOf(candidate, property), target) == best)
            result.push_back(candidate);
    return result;
}

bool orderOf(CameraCapabilityPriority priority, Property (&order)[3])
{
    switch (priority) {
    case CameraCapabilityPriority::WidthHeightFrameRate:
        order[0] = Property::Width, order[1] = Property::Height, order[2] = Property::FrameRate;
        return true;
    case CameraCapabilityPriority::HeightWidthFrameRate:
        order[0] = Property::Height, order[1] = Property::Width, order[2] = Property::FrameRate;
        return true;
    case CameraCapabilityPriority::FrameRateWidthHeight:
        order[0] = Property::FrameRate, order[1] = Property::Width, order[2] = Property::Height;
        return true;
    case CameraCapabilityPriority::FrameRateHeightWidth:
        order[0] = Property::FrameRate, order[1] = Property::Height, order[2] = Property::Width;
        return true;
    }
    return false;
}

// A running minimum of 0 counts as "not yet set": modes that report 0 for a
// property (unknown) should not hide the real smallest value.
void takeMinimum(std::uint32_t& minimum, std::uint32_t value)
{
    if (minimum == 0 || minimum > value)
        minimum = value;
}

} // namespace

std::uint32_t frameRateToInteger(std::uint32_t numerator, std::uint32_t denominator)
{
    if (numerator == 0)
        return 0;
    const std::uint32_t divisor = binaryGcd(numerator, denominator);
    const double rate =
        std::round(static_cast<double>(numerator / divisor) / static_cast<double>(denominator / divisor));
    // x/0 is infinite: no meaningful rate, so 0 rather than an undefined conversion.
    if (!std::isfinite(rate))
        return 0;
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(rate));
}

BaseCamera::~BaseCamera() = default;

std::vector<PixelFormat> BaseCamera::getSupportedPixelFormats()
{
    std::vector<PixelFormat> formats;
    for (const auto& description : getSupportedFormats())
        formats.push_back(description.format);
    return formats;
}

bool BaseCamera::isFormatSupported(const PixelFormatDescription& description)
{
    for (const auto& entry : getSupportedFormats())
        if (entry.format == description.format && entry.modifier == description.modifier)
            return true;
    return false;
}

bool BaseCamera::isFormatSupported(PixelFormat format)
{
    for (const auto& entry : getSupportedFormats())
        if (entry.format == format)
            return true;
    return false;
}

bool BaseCamera::queryCapabilityRanges(PixelFormat format, CameraCapabilityRanges& ranges)
{
    if (!isFormatSupported(format))
        return false;
    std::vector<CameraCapability> capabilities;
    if (!queryCapabilities(capabilities) || capabilities.empty())
        return false;

    CameraCapability minimum, maximum;
    for (const auto& capability : capabilities) {
        takeMinimum(minimum.width, capability.width);
        takeMinimum(minimum.height, capability.height);
        takeMinimum(minimum.frameRate, capability.frameRate);
        maximum.width = std::max(maximum.width, capability.width);
        maximum.height = std::max(maximum.height, capability.height);
        maximum.frameRate = std::max(maximum.frameRate, capability.frameRate);
    }
    ranges.minWidth = minimum.width;
    ranges.maxWidth = maximum.width;
    ranges.stepWidth = 0;
    ranges.minHeight = minimum.height;
    ranges.maxHeight = maximum.height;
    ranges.stepHeight = 0;
    ranges.minFrameRate = {minimum.frameRate, 1};
    ranges.maxFrameRate = {maximum.frameRate, 1};
    ranges.stepFrameRate = {0, 1};
    return true;
}

bool BaseCamera::findClosestCapability(PixelFormat /*format*/, const CameraCapabilityEx& wanted,
                                       CameraCapabilityEx& found, CameraCapabilityPriority priority)
{
    // Every mode takes part whatever its format: plug-ins list modes once
    // for all formats they convert between.
    std::vector<CameraCapability> candidates;
    if (!queryCapabilities(candidates) || candidates.empty())
        return false;

    const CameraCapability target{wanted.width, wanted.height,
                                  frameRateToInteger(wanted.frameRate.numerator, wanted.frameRate.denominator)};
    Property order[3];
    if (orderOf(priority, order))
        for (Property property : order)
            candidates = closest(candidates, target, property);

    const CameraCapability& best = candidates.front();
    found.width = best.width;
    found.height = best.height;
    found.frameRate = {best.frameRate, 1};
    return true;
}

bool BaseCamera::startCapture(const CameraCapabilityEx& capability, PixelFormat format)
{
    const CameraCapability whole{capability.width, capability.height,
                                 frameRateToInteger(capability.frameRate.numerator, capability.frameRate.denominator)};
    return startCapture(whole, format);
}

BaseCameraManager::~BaseCameraManager() = default;

std::vector<PixelFormatDescription> BaseCameraManager::getSupportedFormats(const std::string& id)
{
    const std::shared_ptr<Camera> camera = openCamera(id);
    if (!camera)
        return {};
    return camera->getSupportedFormats();
}

bool BaseCameraManager::queryCapabilityRanges(const std::string& id, PixelFormat format, CameraCapabilityRanges& ranges)
{
    const std::shared_ptr<Camera> camera = openCamera(id);
    if (!camera)
        return false;
    return camera->queryCapabilityRanges(format, ranges);
}

bool BaseCameraManager::findClosestCapability(const std::string& id, PixelFormat format,
                                              const CameraCapabilityEx& wanted, CameraCapabilityEx& found,
                                              CameraCapabilityPriority priority)
{
    const std::shared_ptr<Camera> camera = openCamera(id);
    if (!camera)
        return false;
    return camera->findClosestCapability(format, wanted, found, priority);
}

} // namespace Internal
} // namespace Tevara::Lumiflux
