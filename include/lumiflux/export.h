#pragma once

/**
 * @file export.h
 * Symbol visibility. The library is built with hidden visibility; only what
 * carries LUMIFLUX_EXPORT is part of its binary interface.
 */

/** Marks a class or function as part of the library's exported interface (the library is built with hidden visibility).
 */
#define LUMIFLUX_EXPORT __attribute__((visibility("default")))
