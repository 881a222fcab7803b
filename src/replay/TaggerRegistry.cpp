#include "replay/TaggerRegistry.h"

#include <stdexcept>
#include <utility>

namespace chronotick {

TaggerRegistry &TaggerRegistry::instance() {
  static TaggerRegistry registry;
  return registry;
}

void TaggerRegistry::enter(ChronotickBase *key, Chronotick *hardware, ChronotickVirtual *replay) {
  Entry &entry = registry[key];
  entry.hardware = hardware;
  entry.replay = replay;
  entry.references = 1;
}

TaggerRegistry::Entry *TaggerRegistry::find(ChronotickBase *key) {
  auto it = registry.find(key);
  return it == registry.end() ? nullptr : &it->second;
}

void TaggerRegistry::checkEntry(const Entry &entry) {
  if ((entry.hardware == nullptr) == (entry.replay == nullptr))
    throw std::runtime_error("instance must point to a real XOR or virtual Chronotick");
}

bool TaggerRegistry::release(ChronotickBase *tagger) {
  std::lock_guard<std::mutex> guard(instance_mutex);
  auto it = registry.find(tagger);
  if (it == registry.end())
    return false;
  const bool is_default = it->second.hardware != nullptr && it->second.hardware == default_instance;
  if (it->second.references > 0)
    --it->second.references;
  if (it->second.references > 0)
    return false;
  checkEntry(it->second);
  delete it->first; // through the virtual destructor
  registry.erase(it);
  if (is_default)
    default_instance = nullptr;
  return true;
}

void TaggerRegistry::releaseAll() {
  std::lock_guard<std::mutex> guard(instance_mutex);
  while (!registry.empty()) {
    auto it = registry.begin();
    checkEntry(it->second);
    ChronotickBase *tagger = it->first;
    registry.erase(it);
    delete tagger;
  }
  default_instance = nullptr;
}

} // namespace chronotick
