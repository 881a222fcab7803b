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
CHRONOTICK_API bool freeChronotick(ChronotickBase *tagger);

// Destroys every tagger, whatever its references.
CHRONOTICK_API void freeAllChronotick();

// Whether this installation may replay recordings.
CHRONOTICK_API bool hasChronotickVirtualLicense();

} // namespace chronotick
