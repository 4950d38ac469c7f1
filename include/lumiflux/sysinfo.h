#pragma once

/**
 * @file sysinfo.h
 * Process-wide facts about the device, handed to plug-in modules.
 */

#include <lumiflux/export.h>

namespace Tevara::Lumiflux::Internal {

/** Facts about the device, read once per process on the first request. */
class LUMIFLUX_EXPORT SysInfo {
public:
    /**
     * The screen rotation angle in degrees, as the desktop settings held it
     * when it was first read; 0 when the setting is missing or not an int32.
     * Safe from any thread.
     */
    virtual int screenRotationAngle() const = 0;
    virtual ~SysInfo() = default;
};

/** The process-wide object a plug-in module receives in its entry function. */
class LUMIFLUX_EXPORT Globals {
public:
    /** The system information object; valid until process exit. */
    virtual SysInfo* sysInfo() = 0;
    virtual ~Globals() = default;
};

/** The process-wide Globals object (the one handed to every module). */
LUMIFLUX_EXPORT Globals* globals();

} // namespace Tevara::Lumiflux::Internal
