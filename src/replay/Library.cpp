// The library's front door: version, creation and release of taggers.

#include <chronotick/Library.h>

#include "replay/ChronotickVirtualImpl.h"
#include "replay/TaggerRegistry.h"

#include <memory>
#include <mutex>

namespace chronotick {

std::string getVersion() {
  return CHRONOTICK_VERSION;
}

bool hasChronotickVirtualLicense() {
  return true;
}

ChronotickVirtual *createChronotickVirtual() {
  TaggerRegistry &registry = TaggerRegistry::instance();
  std::lock_guard<std::mutex> guard(registry.mutex());
  auto tagger = std::make_unique<ChronotickVirtualImpl>();
  ChronotickVirtual *replay = tagger.get();
  registry.enter(static_cast<ChronotickBase *>(replay), nullptr, replay);
  static_cast<void>(tagger.release()); // the registry owns it now
  return replay;
}

bool freeChronotick(ChronotickBase *tagger) {
  return TaggerRegistry::instance().release(tagger);
}

void freeAllChronotick() {
  TaggerRegistry::instance().releaseAll();
}

} // namespace chronotick
