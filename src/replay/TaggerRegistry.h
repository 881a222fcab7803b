#pragma once

#include <chronotick/ChronotickBase.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace chronotick {

class Chronotick;
class ChronotickVirtual;

// Every live tagger of the process, with the number of create calls not yet
// matched by a free. A tagger is built and destroyed with the instance mutex
// held, so its constructor and destructor must not come back here.
//
// Taggers still registered when the process exits are freed then, before the
// state that their workers use goes away. A tagger freed from one of its own
// workers is destroyed on a thread of its own, which joins that worker once
// its block is done.
class TaggerRegistry {
public:
  struct Entry {
    Chronotick *hardware = nullptr;
    ChronotickVirtual *replay = nullptr;
    std::uint64_t references = 0;
  };

  static TaggerRegistry &instance();

  // The instance mutex. Everything below but release and releaseAll needs it held.
  std::mutex &mutex() { return instance_mutex; }

  // Enters a new tagger with one reference. `key` is the tagger's ChronotickBase.
  void enter(ChronotickBase *key, Chronotick *hardware, ChronotickVirtual *replay);

  // Drops one reference and destroys the tagger with its last (true). False
  // for an unregistered pointer or while references remain. Takes the mutex.
  bool release(ChronotickBase *tagger);
  // Destroys every tagger whatever its references. Takes the mutex.
  void releaseAll();

  // Hardware taggers (createChronotick). The tagger made for the serial "".
  Chronotick *defaultInstance() const { return default_instance; }
  void setDefaultInstance(Chronotick *tagger) { default_instance = tagger; }
  // The first hardware tagger in key order whose getSerial() is `serial`; null if none.
  Chronotick *findHardware(const std::string &serial);
  // One more reference to a registered tagger, or a new entry with one.
  void addReference(ChronotickBase *key, Chronotick *hardware);

private:
  friend struct RegistryExit;

  TaggerRegistry() = default;
  static void checkEntry(const Entry &entry);
  // Destroys a tagger that has left the registry: here, or on a thread of its
  // own when the caller is one of its workers.
  void destroy(ChronotickBase *tagger);
  // Frees what is left at exit and waits for destructions still under way.
  void releaseAtExit();

  std::mutex instance_mutex;
  std::map<ChronotickBase *, Entry> registry;
  Chronotick *default_instance = nullptr;

  std::mutex deferred_mutex;
  std::condition_variable deferred_condition;
  int deferred = 0; // destructions running on threads of their own
};

} // namespace chronotick
