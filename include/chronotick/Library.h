#pragma once

#include <chronotick/ChronotickBase.h>
#include <chronotick/ChronotickVirtual.h>
#include <chronotick/Export.h>

#include <string>
#include <vector>

namespace chronotick {

class Chronotick;

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

// The tagger of the board with this serial; "" takes the first board found
// and gives the same tagger on every later call with "". A tagger for a board
// that already has one is shared: the same pointer, one more reference. Give
// each back with freeChronotick. Throws std::runtime_error when the board
// can't be brought up.
CHRONOTICK_API Chronotick *createChronotick(const std::string &serial = "");

// Serials of all attached boards: real ones first, then simulated ones.
CHRONOTICK_API std::vector<std::string> scanChronotick();

// "CT-20" or "CT-Ultra". Asks the tagger of that board if there is one, else
// brings the board up to find out (throws std::runtime_error if it can't).
CHRONOTICK_API std::string getChronotickModel(const std::string &serial);

// Taggers built from now on load this firmware file instead of the one for
// their model; "" returns to the built-in choice.
CHRONOTICK_API void setCustomBitFileName(const std::string &path);

// Whether this installation may replay recordings.
CHRONOTICK_API bool hasChronotickVirtualLicense();

} // namespace chronotick
