// The front door to the hardware: taggers for boards, and what is attached.

#include <chronotick/Chronotick.h>

#include "device/ChronotickFPGA.h"
#include "device/ChronotickImpl.h"
#include "replay/TaggerRegistry.h"

#include <memory>
#include <mutex>

namespace chronotick {

Chronotick *createChronotick(const std::string &serial) {
  TaggerRegistry &registry = TaggerRegistry::instance();
  std::lock_guard<std::mutex> guard(registry.mutex());
  // "" means the default instance, which a later call with its serial shares
  // through the walk. A first "" takes the first board listed, which may have
  // a tagger already.
  Chronotick *tagger = serial.empty() ? registry.defaultInstance() : registry.findHardware(serial);
  if (!tagger && serial.empty()) {
    const std::vector<std::string> attached = scanChronotick();
    if (!attached.empty())
      tagger = registry.findHardware(attached.front());
  }
  if (!tagger) {
    auto made = std::make_unique<ChronotickImpl>(serial); // a failure leaves the registry as it was
    tagger = made.release();
  }
  if (serial.empty())
    registry.setDefaultInstance(tagger);
  registry.addReference(static_cast<ChronotickBase *>(tagger), tagger);
  return tagger;
}

std::vector<std::string> scanChronotick() {
  return ChronotickFPGA::scan();
}

std::string getChronotickModel(const std::string &serial) {
  TaggerRegistry &registry = TaggerRegistry::instance();
  std::lock_guard<std::mutex> guard(registry.mutex());
  if (Chronotick *tagger = registry.findHardware(serial))
    return tagger->getModel();
  ChronotickFPGA board(serial);
  board.open(false);
  return board.model();
}

void setCustomBitFileName(const std::string &path) {
  ChronotickFPGA::setCustomBitFile(path);
}

} // namespace chronotick
