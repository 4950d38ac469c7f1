#pragma once

// Whether the machine can play sound at all, decided once before anything
// plays. Without a sound server or a sound card, the player's automatic
// audio sink would try every sink in turn, and the sound libraries behind
// them print a page of their own errors on the way; the tool says it once
// instead and lets the automatic sink fall back to its silent sink at once.

namespace lumiflux_tool {

/**
 * Looks for a sound output (a PulseAudio-compatible server that accepts a
 * connection, or an ALSA card). When there is none, takes every audio sink
 * out of the automatic choice for this process. Returns whether there is one.
 */
bool prepareAudioOutput();

} // namespace lumiflux_tool
