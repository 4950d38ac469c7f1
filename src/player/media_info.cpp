#include <lumiflux/media_info.h>

#include <cstdio>

namespace Tevara::Lumiflux {

namespace {

std::string formatFloating(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%f", value);
    return text;
}

} // namespace

std::string tagValueToString(const TagValue& value)
{
    return std::visit(
        [](const auto& v) -> std::string {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>)
                return v;
            else if constexpr (std::is_same_v<T, bool>)
                return v ? "true" : "false";
            else if constexpr (std::is_floating_point_v<T>)
                return formatFloating(static_cast<double>(v));
            else
                return std::to_string(v);
        },
        value);
}

// ---------------------------------------------------------------- TrackInfo

struct TrackInfo::Impl {
    std::int32_t id = 0;
    std::string name;
    std::string codec;
    TrackType type = TrackType::Unknown;
    std::uint64_t flags = 0;
    TagMap tags;
};

TrackInfo::TrackInfo() : impl(std::make_unique<Impl>()) {}
TrackInfo::TrackInfo(const TrackInfo& other) : impl(std::make_unique<Impl>(*other.impl)) {}
// A moved-from record stays usable (empty), so it gets a fresh Impl.
TrackInfo::TrackInfo(TrackInfo&& other) noexcept : impl(std::exchange(other.impl, std::make_unique<Impl>())) {}
TrackInfo& TrackInfo::operator=(const TrackInfo& other)
{
    if (this != &other)
        *impl = *other.impl;
    return *this;
}
TrackInfo& TrackInfo::operator=(TrackInfo&& other) noexcept
{
    std::swap(impl, other.impl);
    return *this;
}
TrackInfo::~TrackInfo() = default;

std::int32_t TrackInfo::id() const
{
    return impl->id;
}
const std::string& TrackInfo::name() const
{
    return impl->name;
}
const std::string& TrackInfo::codec() const
{
    return impl->codec;
}
TrackType TrackInfo::type() const
{
    return impl->type;
}
std::uint64_t TrackInfo::flags() const
{
    return impl->flags;
}

const TagValue* TrackInfo::findTag(const std::string& name) const
{
    auto it = impl->tags.find(name);
    return it == impl->tags.end() ? nullptr : &it->second;
}

std::string TrackInfo::tagAsString(const std::string& name) const
{
    const TagValue* value = findTag(name);
    return value ? tagValueToString(*value) : std::string();
}

std::string TrackInfo::lang() const
{
    return tagAsString("language-code");
}
const TagMap& TrackInfo::tags() const
{
    return impl->tags;
}

void TrackInfo::forEachTag(const std::function<void(const std::string&, const TagValue&)>& visit) const
{
    for (const auto& [name, value] : impl->tags)
        visit(name, value);
}

void TrackInfo::forEachTagAsString(const std::function<void(const std::string&, const std::string&)>& visit) const
{
    for (const auto& [name, value] : impl->tags)
        visit(name, tagValueToString(value));
}

void TrackInfo::setId(std::int32_t id)
{
    impl->id = id;
}
void TrackInfo::setName(std::string name)
{
    impl->name = std::move(name);
}
void TrackInfo::setCodec(std::string codec)
{
    impl->codec = std::move(codec);
}
void TrackInfo::setType(TrackType type)
{
    impl->type = type;
}
void TrackInfo::setFlags(std::uint64_t flags)
{
    impl->flags = flags;
}
void TrackInfo::setTag(const std::string& name, TagValue value)
{
    impl->tags[name] = std::move(value);
}

// ---------------------------------------------------------------- MediaInfo

struct MediaInfo::Impl {
    std::string uri;
    HttpHeaders httpHeaders;
    TagMap tags;
    std::vector<TrackInfo> tracks;
};

MediaInfo::MediaInfo() : impl(std::make_unique<Impl>()) {}
MediaInfo::MediaInfo(const MediaInfo& other) : impl(std::make_unique<Impl>(*other.impl)) {}
MediaInfo::MediaInfo(MediaInfo&& other) noexcept : impl(std::exchange(other.impl, std::make_unique<Impl>())) {}
MediaInfo& MediaInfo::operator=(const MediaInfo& other)
{
    if (this != &other)
        *impl = *other.impl;
    return *this;
}
MediaInfo& MediaInfo::operator=(MediaInfo&& other) noexcept
{
    std::swap(impl, other.impl);
    return *this;
}
MediaInfo::~MediaInfo() = default;

const std::string& MediaInfo::uri() const
{
    return impl->uri;
}
const HttpHeaders& MediaInfo::httpHeaders() const
{
    return impl->httpHeaders;
}
const TagMap& MediaInfo::tags() const
{
    return impl->tags;
}

const TagValue* MediaInfo::findTag(const std::string& name) const
{
    auto it = impl->tags.find(name);
    return it == impl->tags.end() ? nullptr : &it->second;
}

std::string MediaInfo::tagAsString(const std::string& name) const
{
    const TagValue* value = findTag(name);
    return value ? tagValueToString(*value) : std::string();
}

const std::vector<TrackInfo>& MediaInfo::tracks() const
{
    return impl->tracks;
}

void MediaInfo::forEachTrack(const std::function<void(const TrackInfo&)>& visit) const
{
    for (const auto& track : impl->tracks)
        visit(track);
}

void MediaInfo::setUri(std::string uri)
{
    impl->uri = std::move(uri);
}
void MediaInfo::setHttpHeaders(HttpHeaders headers)
{
    impl->httpHeaders = std::move(headers);
}
void MediaInfo::swapUri(std::string& uri)
{
    impl->uri.swap(uri);
}
void MediaInfo::swapHttpHeaders(HttpHeaders& headers)
{
    impl->httpHeaders.swap(headers);
}
void MediaInfo::setTag(const std::string& name, TagValue value)
{
    impl->tags[name] = std::move(value);
}
void MediaInfo::addTrack(TrackInfo track)
{
    impl->tracks.push_back(std::move(track));
}

void MediaInfo::takeTagsAndTracks(MediaInfo&& other)
{
    impl->tags = std::move(other.impl->tags);
    impl->tracks = std::move(other.impl->tracks);
}

} // namespace Tevara::Lumiflux
