#pragma once

#include <string>

namespace lumiflux_tool {

/**
 * Points LUMIFLUX_PLUGIN_DIR at the bundled plug-ins when the user has not
 * chosen a directory: the build tree's when the tool runs from the build
 * tree, the one staged beside it when the tool runs from a staged install
 * (DESTDIR), the library's default otherwise. Returns the directory in use.
 */
std::string selectPluginDirectory();

/** The directory holding the running executable. */
std::string executableDirectory();

} // namespace lumiflux_tool
