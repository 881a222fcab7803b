// The compiled part of the chronotick package; python/chronotick/__init__.py
// re-exports it with the pure-Python conveniences.

#include "Bindings.h"

PYBIND11_MODULE(_chronotick, m) {
  namespace cp = chronotick::python;
  m.doc() = "Chronotick: time tagger host library (compiled part)";
  cp::bindCore(m);
  cp::bindTaggers(m);
  cp::bindSimulation(m);
  cp::bindMeasurements(m);
  cp::bindChannels(m);
  cp::bindStorage(m);
}
