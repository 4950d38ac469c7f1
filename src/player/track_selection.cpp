#include <algorithm>
#include <set>
#include <string>

#include "player/gst_quirks.h"
#include "player/player_impl.h"
#include "player/tag_list.h"
#include <lumiflux/gst_ref.h>
#include <lumiflux/log_line.h>

namespace Tevara::Lumiflux {

namespace {

// The track list of a collection, and its stream identifiers by position.
MediaInfo tracksOf(GstStreamCollection* collection, std::vector<std::string>& ids)
{
    MediaInfo info;
    const guint size = gst_stream_collection_get_size(collection);
    ids.assign(size, std::string());
    int videoCount = 0;
    int audioCount = 0;
    int textCount = 0;

    for (guint i = 0; i < size; ++i) {
        TrackInfo track;
        track.setId(static_cast<std::int32_t>(i));
        GstStream* stream = gst_stream_collection_get_stream(collection, i);
        if (!stream) {
            LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "stream " << i << " is null" << std::endl;
            continue;
        }
        const gchar* streamId = gst_stream_get_stream_id(stream);
        ids[i] = streamId ? streamId : "";

        const GstStreamType type = gst_stream_get_stream_type(stream);
        if (type & GST_STREAM_TYPE_VIDEO) {
            track.setType(TrackType::Video);
            track.setName("Video " + std::to_string(++videoCount));
        } else if (type & GST_STREAM_TYPE_AUDIO) {
            track.setType(TrackType::Audio);
            track.setName("Audio " + std::to_string(++audioCount));
        } else if (type & GST_STREAM_TYPE_TEXT) {
            track.setType(TrackType::Subtitles);
            track.setName("Subtitles " + std::to_string(++textCount));
        } else {
            // Keeps its position in the stream identifiers, but is no track.
            continue;
        }
        if (gst_stream_get_stream_flags(stream) & GST_STREAM_FLAG_SELECT)
            track.setFlags(track.flags() | TrackInfo::FlagSelectedByDefault);

        if (Internal::Ref<GstCaps> caps = Internal::Ref<GstCaps>::adopt(gst_stream_get_caps(stream))) {
            g_autofree gchar* description = gst_pb_utils_get_codec_description(caps.get());
            if (description)
                track.setCodec(description);
        }
        if (Internal::Ref<GstTagList> tags = Internal::Ref<GstTagList>::adopt(gst_stream_get_tags(stream))) {
            Internal::copyTags(tags.get(), [&track](const std::string& name, TagValue value) {
                track.setTag(name, std::move(value));
            });
        } else {
            LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "no tags for \"" << i << "\"" << std::endl;
        }
        const std::string language = track.lang();
        if (!language.empty())
            track.setName(track.name() + " (" + language + ")");
        info.addTrack(std::move(track));
    }

    return info;
}

bool sameTracks(const std::vector<TrackInfo>& a, const std::vector<TrackInfo>& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i].id() != b[i].id() || a[i].name() != b[i].name() || a[i].tags() != b[i].tags())
            return false;
    return true;
}

} // namespace

void Player::Impl::handleStreamCollection(GstMessage* message)
{
    LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "GST_MESSAGE_STREAM_COLLECTION" << std::endl;
    GstStreamCollection* raw = nullptr;
    gst_message_parse_stream_collection(message, &raw);
    Internal::Ref<GstStreamCollection> collection = Internal::Ref<GstStreamCollection>::adopt(raw);
    if (!collection)
        return;
    std::vector<std::string> ids;
    MediaInfo info = tracksOf(collection.get(), ids);
    {
        Internal::MutexLock lock(mediaMutex);
        streamIds = std::move(ids);
    }
    watchTrackTags(collection.get());
    onMediaInfoReady(info);

    if (playWhenReady.exchange(false))
        addTask(Task(Task::Play));
}

void Player::Impl::watchTrackTags(GstStreamCollection* collection)
{
    // A stream's tags (a subtitle's language, say) may reach its stream
    // object only after the collection was posted, when the demuxer first
    // sends data on it; no new collection follows. The collection notifies
    // such changes itself.
    Internal::MutexLock lock(mediaMutex);
    if (watchedCollection.get() == collection)
        return;
    unwatchTrackTagsLocked();
    watchedCollection = Internal::Ref<GstStreamCollection>::share(collection);
    tagWatchHandler =
        g_signal_connect(collection, "stream-notify::tags", G_CALLBACK(&Impl::handleTrackTagsChanged), this);
}

void Player::Impl::unwatchTrackTagsLocked()
{
    if (watchedCollection && tagWatchHandler)
        g_signal_handler_disconnect(watchedCollection.get(), tagWatchHandler);
    tagWatchHandler = 0;
    watchedCollection.reset();
}

void Player::Impl::handleTrackTagsChanged(GstStreamCollection* collection, GstStream*, GParamSpec*, Impl* impl)
{
    // Runs on a streaming thread; nothing may escape into C.
    try {
        std::vector<std::string> ids;
        MediaInfo info = tracksOf(collection, ids);
        MediaInfo snapshot;
        {
            Internal::MutexLock lock(impl->mediaMutex);
            // Same collection, same streams: only titles and tags can differ.
            if (ids != impl->streamIds || sameTracks(info.tracks(), impl->mediaInfo.tracks()))
                return;
            impl->mediaInfo.takeTagsAndTracks(std::move(info));
            snapshot = impl->mediaInfo;
        }
        impl->notifyListener([&](PlayerListener& l) { l.onMediaInfo(snapshot); });
    } catch (const std::exception& e) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "exception while updating the tracks: " << e.what() << std::endl;
    }
}

void Player::Impl::onMediaInfoReady(MediaInfo& info)
{
    MediaInfo snapshot;
    size_t trackCount = 0;
    {
        Internal::MutexLock lock(mediaMutex);
        mediaInfo.takeTagsAndTracks(std::move(info));
        snapshot = mediaInfo;
        // Entries are indexed by track identifier, which is a stream position.
        for (const auto& track : mediaInfo.tracks())
            trackCount = std::max(trackCount, static_cast<size_t>(track.id()) + 1);
    }
    {
        Internal::MutexLock lock(mediaMutex);
        sinkEntries.clear();
        for (size_t i = 0; i < trackCount; ++i)
            sinkEntries.push_back(std::make_shared<SinkEntry>());
        // The default video track receives frames until a selection says otherwise.
        int video = -1;
        for (const auto& track : snapshot.tracks()) {
            if (track.type() == TrackType::Video && video < 0)
                video = track.id();
            if (track.type() == TrackType::Video && (track.flags() & TrackInfo::FlagSelectedByDefault)) {
                video = track.id();
                break;
            }
        }
        currentVideoTrack.store(video);
    }
    notifyListener([&](PlayerListener& l) { l.onMediaInfo(snapshot); });
}

void Player::Impl::selectTracks(const std::vector<int>& trackIds)
{
    static const std::string unknownTrack = "Unknown track id: ";
    std::set<TrackType> chosenTypes;
    GList* selection = nullptr;
    {
        Internal::MutexLock lock(mediaMutex);
        for (int id : trackIds) {
            const TrackInfo* track = nullptr;
            if (id >= 0 && static_cast<size_t>(id) < streamIds.size()) {
                for (const auto& candidate : mediaInfo.tracks()) {
                    if (candidate.id() == id) {
                        track = &candidate;
                        break;
                    }
                }
            }
            if (!track) {
                // The text is the literal cut by `id` characters; applications
                // match on it as it is. A negative id keeps the whole literal.
                const size_t cut = id < 0 ? 0 : std::min(static_cast<size_t>(id), unknownTrack.size());
                lock.unlock();
                onError(PlayerError::SelectTracksFailed, unknownTrack.substr(cut));
                lock.lock();
                continue;
            }
            if (!chosenTypes.insert(track->type()).second)
                continue;
            const std::string& streamId = streamIds[static_cast<size_t>(id)];
            LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Selecting stream " << id << ": " << streamId << std::endl;
            selection = g_list_append(selection, g_strdup(streamId.c_str()));
        }
    }
    if (!selection) {
        onError(PlayerError::SelectTracksFailed, "Trying to select 0 streams");
        return;
    }
    sendSelectStreams(selection);
}

void Player::Impl::sendSelectStreams(GList* ids)
{
    if (Internal::GstQuirks::deferSelectionDuringPreroll() && pipelinePrerolling()) {
        // Sent once the preroll is over (see preroll_wait.cpp); a newer
        // selection replaces one still waiting.
        LUMIFLUX_LOG_DIGIT(0, kPlayerLog) << "Selection waits for the preroll" << std::endl;
        pendingSelection.reset(ids);
        schedulePrerollCheck();
        return;
    }
    Internal::Ref<GstElement> pipe = pipelineElements.playbin();
    if (!pipe || !gst_element_send_event(pipe.get(), gst_event_new_select_streams(ids))) {
        LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "Can't send SELECT_STREAMS event" << std::endl;
        g_list_free_full(ids, g_free);
        return;
    }
    // Kept until the pipeline confirms the selection.
    Internal::MutexLock lock(cleanupMutex);
    pendingCleanups.emplace_back([ids] { g_list_free_full(ids, g_free); });
}

void Player::Impl::runPendingCleanups()
{
    Internal::MutexLock lock(cleanupMutex);
    for (auto& cleanup : pendingCleanups)
        cleanup();
    pendingCleanups.clear();
}

void Player::Impl::handleStreamsSelected(GstMessage* message)
{
    runPendingCleanups();
    std::vector<int> selected;
    int video = -1;
    {
        Internal::MutexLock lock(mediaMutex);
        const guint count = gst_message_streams_selected_get_size(message);
        for (guint i = 0; i < count; ++i) {
            Internal::Ref<GstStream> stream =
                Internal::Ref<GstStream>::adopt(gst_message_streams_selected_get_stream(message, i));
            if (!stream) {
                LUMIFLUX_LOG_DIGIT(2, kPlayerLog) << "stream " << i << " is null" << std::endl;
                continue;
            }
            const gchar* id = gst_stream_get_stream_id(stream.get());
            for (size_t index = 0; id && index < streamIds.size(); ++index) {
                if (streamIds[index] == id) {
                    selected.push_back(static_cast<int>(index));
                    if (video < 0 && (gst_stream_get_stream_type(stream.get()) & GST_STREAM_TYPE_VIDEO))
                        video = static_cast<int>(index);
                    break;
                }
            }
        }
    }
    if (video >= 0)
        currentVideoTrack.store(video);
    notifyListener([&](PlayerListener& l) { l.onTracksSelected(selected); });
}

} // namespace Tevara::Lumiflux
