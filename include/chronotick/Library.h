#pragma once

#include <chronotick/ChronotickBase.h>
#include <chronotick/ChronotickVirtual.h>
#include <chronotick/Export.h>

#include <string>

namespace chronotick {

// Version of the library, "major.minor.patch".
CHRONOTICK_API std::string getVersion();

// Always builds a new replay tagger. Give it back with freeChronotick.
CHRONOTICK_API ChronotickVirtual *createChronotickVirtual();

// Gives back one reference to a tagger from a create function and destroys the
// tagger with its last reference (true). False for a pointer that isn't
// registered, and while references remain.
//
// Called on one of the tagger's own worker threads (from a measurement's
// next_impl or a runSynchronized callback), it returns true at once and the
// tagger is destroyed on a thread of its own as soon as that worker has
// finished its block; the tagger must not be used after the call either way.
//
// Taggers are freed at the latest when the process exits normally (return
// from main or exit()): the ones still alive then are destroyed before the
// library's own state goes, their workers stopped and their measurements
// detached, as by freeAllChronotick. Measurements that outlive their tagger
// stay readable. A waitForCompletion blocked on a tagger being destroyed
// returns false.
CHRONOTICK_API bool freeChronotick(ChronotickBase *tagger);

// Destroys every tagger, whatever its references.
CHRONOTICK_API void freeAllChronotick();

// Whether this installation may replay recordings.
CHRONOTICK_API bool hasChronotickVirtualLicense();

} // namespace chronotick
