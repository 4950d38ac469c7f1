#pragma once

// The player's workarounds for faults of the GStreamer and libsoup versions
// it runs on, in one place. Each answers whether the running versions need
// it; the code that works around a fault asks here and does nothing special
// where the answer is no.
//
// No release known to fix these faults could be established. Each workaround
// is therefore on for every version up to and including the last one known
// to be affected (GStreamer 1.22, libsoup 3.2, which this player was built
// and tested on), and off for later versions. Whoever moves the player to a
// later GStreamer checks each fault again and moves the bound.

namespace Tevara::Lumiflux::Internal::GstQuirks {

/**
 * An HTTP source's request is not cancelled (by a flush or a stop) while
 * its answer's headers are read: the player waits for the answer first.
 */
bool waitForHttpAnswer();

/** A descriptor source's first data is held until its state change has returned. */
bool holdDescriptorSourceStart();

/** A stream selection is sent only once the pipeline is not prerolling. */
bool deferSelectionDuringPreroll();

/** A local medium that does not preroll within a bound is reported as failed. */
bool boundLocalPreroll();

/** An fd:// medium plays without download buffering. */
bool descriptorWithoutBuffering();

} // namespace Tevara::Lumiflux::Internal::GstQuirks
