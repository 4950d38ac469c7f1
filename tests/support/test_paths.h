#pragma once

#include <string>

namespace lumiflux_test {

/** The build tree (LUMIFLUX_TEST_BUILD_DIR, set by CTest). */
std::string buildDir();
/** A fresh, empty directory under the build tree, unique to this process. */
std::string freshDirectory(const std::string& name);
/** Runs a shell command; returns its exit status, its standard output in `output`. */
int runCommand(const std::string& command, std::string* output = nullptr);
/** "codec,frames\n" of the first video stream of `file`, as ffprobe reads it (a test failure when it cannot). */
std::string probeVideo(const std::string& file);

} // namespace lumiflux_test
