#pragma once

/**
 * @file media_info.h
 * What a player knows about its medium: the URI, the application's HTTP
 * headers, the medium's tags and its tracks.
 *
 * Both records are plain values: copy them freely and read them from any
 * thread (a copy is never changed behind the reader's back).
 */

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <lumiflux/export.h>
#include <lumiflux/types.h>

namespace Tevara::Lumiflux {

/** One tag value, stored with the type GStreamer gave it. */
using TagValue =
    std::variant<std::string, bool, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t, float, double>;
/** Tags by name, in the names' order. */
using TagMap = std::map<std::string, TagValue>;
/** HTTP request headers as (name, value) pairs, in the application's order. */
using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

/**
 * Renders a tag value as text: integers in decimal, booleans as "true" or
 * "false", floating-point values with the C format "%f", strings unchanged.
 */
LUMIFLUX_EXPORT std::string tagValueToString(const TagValue& value);

/** One track of a medium: a video, audio or subtitle stream. */
class LUMIFLUX_EXPORT TrackInfo {
public:
    /** Set in flags() when the medium marks the track as selected by default. */
    static constexpr std::uint64_t FlagSelectedByDefault = 1;

    TrackInfo();
    /** Copies another record. */
    TrackInfo(const TrackInfo& other);
    /** Takes over another record, which is left empty. */
    TrackInfo(TrackInfo&& other) noexcept;
    /** Copies another record. */
    TrackInfo& operator=(const TrackInfo& other);
    /** Takes over another record, which is left empty. */
    TrackInfo& operator=(TrackInfo&& other) noexcept;
    ~TrackInfo();

    /** The track identifier: the stream's position in the medium's stream collection. */
    std::int32_t id() const;
    /** The title, e.g. "Audio 2 (en)". */
    const std::string& name() const;
    /** A description of the codec (e.g. "VP8"), empty when unknown. */
    const std::string& codec() const;
    /** Video, audio or subtitles. */
    TrackType type() const;
    /** Flags such as FlagSelectedByDefault. */
    std::uint64_t flags() const;

    /** The stored value of tag `name`, or null when there is none. */
    const TagValue* findTag(const std::string& name) const;
    /**
     * The value of tag `name` if it is stored with type T, otherwise `fallback`.
     */
    template <typename T> T tag(const std::string& name, T fallback) const
    {
        const TagValue* value = findTag(name);
        if (!value)
            return fallback;
        if (const T* typed = std::get_if<T>(value))
            return *typed;
        return fallback;
    }
    /** The text of tag `name` if it is stored as text, otherwise `fallback`. */
    std::string tag(const std::string& name, const char* fallback) const { return tag<std::string>(name, fallback); }
    /** Tag `name` rendered as text (see tagValueToString), or "" when absent. */
    std::string tagAsString(const std::string& name) const;
    /** The "language-code" tag as text, "" when untagged. */
    std::string lang() const;
    /** Every tag of the track, by name. */
    const TagMap& tags() const;
    /** Calls `visit` for every tag in name order. */
    void forEachTag(const std::function<void(const std::string&, const TagValue&)>& visit) const;
    /** Calls `visit` for every tag in name order, with the value rendered as text. */
    void forEachTagAsString(const std::function<void(const std::string&, const std::string&)>& visit) const;

    /** @name Filled by the player when it builds the track list. */
    ///@{
    /** Sets the identifier. */
    void setId(std::int32_t id);
    /** Sets the title. */
    void setName(std::string name);
    /** Sets the codec description. */
    void setCodec(std::string codec);
    /** Sets the track type. */
    void setType(TrackType type);
    /** Sets the flags. */
    void setFlags(std::uint64_t flags);
    /** Stores tag `name`, replacing a value stored before. */
    void setTag(const std::string& name, TagValue value);
    ///@}

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

/** The medium a player has been given, and what it contains. */
class LUMIFLUX_EXPORT MediaInfo {
public:
    MediaInfo();
    /** Copies another record. */
    MediaInfo(const MediaInfo& other);
    /** Takes over another record, which is left empty. */
    MediaInfo(MediaInfo&& other) noexcept;
    /** Copies another record. */
    MediaInfo& operator=(const MediaInfo& other);
    /** Takes over another record, which is left empty. */
    MediaInfo& operator=(MediaInfo&& other) noexcept;
    ~MediaInfo();

    /** The medium's URI as the application gave it. */
    const std::string& uri() const;
    /** The application's HTTP request headers, in its order. */
    const HttpHeaders& httpHeaders() const;
    /** Tags of the medium as a whole. */
    const TagMap& tags() const;
    /** The stored value of tag `name`, or null when there is none. */
    const TagValue* findTag(const std::string& name) const;
    /** Tag `name` rendered as text, or "" when absent. */
    std::string tagAsString(const std::string& name) const;
    /** The tracks, in stream order. */
    const std::vector<TrackInfo>& tracks() const;
    /** Calls `visit` for every track, in stream order. */
    void forEachTrack(const std::function<void(const TrackInfo&)>& visit) const;

    /** @name Filled by the player. */
    ///@{
    /** Sets the URI. */
    void setUri(std::string uri);
    /** Sets the HTTP request headers. */
    void setHttpHeaders(HttpHeaders headers);
    /** Exchanges the URI with `uri` (the caller gets the previous one). */
    void swapUri(std::string& uri);
    /** Exchanges the headers with `headers` (the caller gets the previous ones). */
    void swapHttpHeaders(HttpHeaders& headers);
    /** Stores tag `name`, replacing a value stored before. */
    void setTag(const std::string& name, TagValue value);
    /** Appends a track. */
    void addTrack(TrackInfo track);
    /** Moves `other`'s tags and tracks into this record; URI and headers stay. */
    void takeTagsAndTracks(MediaInfo&& other);
    ///@}

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace Tevara::Lumiflux
