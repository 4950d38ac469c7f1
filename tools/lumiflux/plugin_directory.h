#pragma once

#include <string>

namespace lumiflux_tool {

/**
 * Points LUMIFLUX_PLUGIN_DIR at the bundled plug-ins when the user has not
 * chosen a directory: the build tree's when the tool runs from the build
 * tree, the one installed beside the tool otherwise (else the library's
 * default). Returns the directory in use.
 */
std::string selectPluginDirectory();

/** The directory holding the running executable. */
std::string executableDirectory();

} // namespace lumiflux_tool
