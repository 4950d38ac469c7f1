#include "test_paths.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace lumiflux_test {

namespace fs = std::filesystem;

std::string buildDir()
{
    const char* dir = std::getenv("LUMIFLUX_TEST_BUILD_DIR");
    return dir != nullptr ? dir : fs::current_path().string();
}

std::string freshDirectory(const std::string& name)
{
    const fs::path dir = fs::path(buildDir()) / "test-work" / (name + "-" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir.string();
}

int runCommand(const std::string& command, std::string* output)
{
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return -1;
    std::array<char, 4096> chunk{};
    std::string text;
    for (std::size_t n; (n = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0;)
        text.append(chunk.data(), n);
    const int status = pclose(pipe);
    if (output != nullptr)
        *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string probeVideo(const std::string& file)
{
    std::string out;
    EXPECT_EQ(runCommand("ffprobe -v error -count_frames -select_streams v:0 -show_entries "
                         "stream=codec_name,nb_read_frames -of csv=p=0 " +
                             file,
                         &out),
              0)
        << "ffprobe is missing or failed: run scripts/install-deps";
    return out;
}

} // namespace lumiflux_test
