// Codecs and a codec manager on the library's base classes. Every instance has
// a read-only parameter 100 holding the manager's tag; an id containing
// "broken" has a factory that returns null.
#pragma once

#include <string>
#include <vector>

#include <lumiflux/codec_base.h>

namespace lumiflux_test {

using namespace Tevara::Lumiflux;

template <typename Base, typename Metadata> struct TestCodec : Base {
    TestCodec(Internal::BaseCodecManager* owner, const Internal::VideoCodecDesc& codec, const std::string& tag)
        : Base(owner, codec)
    {
        this->parameterSet.registerParameter(100, new Internal::ReadOnlyParameter(tag));
    }
    bool configure(const Metadata& metadata) override { return this->supports(metadata); }
    bool start() override { return false; }
    bool flush() override { return false; }
    bool stop() override { return false; }
    bool setParameter(unsigned id, const std::string& value) override { return this->parameterSet.set(id, value); }
    std::string getParameter(unsigned id) const override { return this->parameterSet.get(id); }
    const Internal::ParameterSet& parameters() const override { return this->parameterSet; }
    bool encode(const std::shared_ptr<GraphicBuffer>&, bool) { return false; }
    int pendingFrames() const { return 0; }
    bool decode(const std::uint8_t*, std::size_t, std::int64_t) { return false; }
    bool drain() { return false; }
};
using TestEncoder = TestCodec<Internal::BaseVideoEncoder, VideoEncoderMetadata>;
using TestDecoder = TestCodec<Internal::BaseVideoDecoder, VideoDecoderMetadata>;

struct TestCodecManager : Internal::BaseCodecManager {
    TestCodecManager(std::string name, std::vector<Internal::VideoCodecDesc> list, bool works = true)
        : tag(std::move(name)), codecs(std::move(list)), initWorks(works)
    {
    }
    bool init() override
    {
        for (const auto& codec : codecs)
            addCodec(codec);
        return initWorks;
    }
    template <typename Codec> std::shared_ptr<Codec> make(const Internal::VideoCodecDesc& desc)
    {
        return desc.getInfo().id.find("broken") != std::string::npos ? nullptr
                                                                     : std::make_shared<Codec>(this, desc, tag);
    }
    std::shared_ptr<VideoEncoder> instantiateVideoEncoder(const Internal::VideoCodecDesc& d) override
    {
        return make<TestEncoder>(d);
    }
    std::shared_ptr<VideoDecoder> instantiateVideoDecoder(const Internal::VideoCodecDesc& d) override
    {
        return make<TestDecoder>(d);
    }
    std::string tag;
    std::vector<Internal::VideoCodecDesc> codecs;
    bool initWorks;
};

} // namespace lumiflux_test
