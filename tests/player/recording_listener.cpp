#include "recording_listener.h"

#include <cstdlib>

#include "test_paths.h"

namespace lumiflux_test {

std::string mediaDir()
{
    const char* dir = std::getenv("LUMIFLUX_TEST_MEDIA_DIR");
    return dir ? dir : buildDir() + "/player-media";
}

std::string mediaUri(const std::string& name)
{
    return "file://" + mediaDir() + "/" + name;
}

} // namespace lumiflux_test
