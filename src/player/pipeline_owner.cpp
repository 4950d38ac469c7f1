#include "player/pipeline_owner.h"

#include <utility>

namespace Tevara::Lumiflux::Internal {

void PipelineOwner::publish(Built&& built)
{
    Held previous;
    MutexLock lock(mutex);
    std::swap(held, previous); // dropped after the lock
    held.built = std::move(built);
}

PipelineOwner::Held PipelineOwner::takeDown()
{
    MutexLock lock(mutex);
    return std::exchange(held, Held{});
}

void PipelineOwner::setHttpSource(GstElement* element)
{
    Ref<GstElement> replacement = Ref<GstElement>::share(element);
    MutexLock lock(mutex);
    std::swap(held.httpSource, replacement); // the previous one goes after the lock
}

void PipelineOwner::setAdaptiveDemuxer(GstElement* element)
{
    Ref<GstElement> replacement = Ref<GstElement>::share(element);
    MutexLock lock(mutex);
    std::swap(held.adaptiveDemuxer, replacement); // the previous one goes after the lock
}

void PipelineOwner::setAudioMuteElement(GstElement* element)
{
    Ref<GstElement> replacement = Ref<GstElement>::share(element);
    MutexLock lock(mutex);
    std::swap(held.audioMuteElement, replacement); // the previous one goes after the lock
}

Ref<GstElement> PipelineOwner::playbin() const
{
    MutexLock lock(mutex);
    return held.built.playbin;
}

Ref<GstElement> PipelineOwner::fakeVideoSink() const
{
    MutexLock lock(mutex);
    return held.built.fakeVideoSink;
}

Ref<GstElement> PipelineOwner::httpSource() const
{
    MutexLock lock(mutex);
    return held.httpSource;
}

Ref<GstElement> PipelineOwner::adaptiveDemuxer() const
{
    MutexLock lock(mutex);
    return held.adaptiveDemuxer;
}

Ref<GstElement> PipelineOwner::audioMuteElement() const
{
    MutexLock lock(mutex);
    return held.audioMuteElement;
}

Ref<GstElement> PipelineOwner::takeHttpSource()
{
    MutexLock lock(mutex);
    return std::exchange(held.httpSource, Ref<GstElement>());
}

} // namespace Tevara::Lumiflux::Internal
