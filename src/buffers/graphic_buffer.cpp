#include <lumiflux/graphic_buffer.h>

namespace Tevara::Lumiflux {

// Out of line so that the vtable and type information live in the library:
// plug-ins and applications compare and cast buffers across the boundary.
GraphicBuffer::~GraphicBuffer() = default;

namespace Internal {

BaseGraphicBuffer::~BaseGraphicBuffer() = default;

std::shared_ptr<YCbCrFrame> BaseGraphicBuffer::mapYCbCr()
{
    return {};
}

std::shared_ptr<void> BaseGraphicBuffer::map()
{
    return {};
}

std::shared_ptr<Frame> BaseGraphicBuffer::mapFrame()
{
    return {};
}

int BaseGraphicBuffer::rotation() const
{
    return 0;
}

} // namespace Internal
} // namespace Tevara::Lumiflux
