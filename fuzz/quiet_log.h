#pragma once

// Fuzzers feed malformed units by the million; the records they cause would
// only slow them down. Sets logging up once, then sends std::clog nowhere.
void quietLogging();
