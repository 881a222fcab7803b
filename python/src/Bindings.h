#pragma once

// Shared pieces of the Python bindings: the handle that a Python tagger
// object holds, results as numpy arrays through the library's allocation
// functions, and the binding functions of each part of the module.

#include <chronotick/ChronotickBase.h>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace chronotick::python {

namespace py = pybind11;

// What a Python tagger object holds: the library's tagger and whether it was
// given back with freeChronotick. Every method checks `get()`, so that a
// freed tagger raises instead of crashing. Measurements keep the handle's
// Python object alive (py::keep_alive); freeing the tagger under a live
// measurement detaches the measurement, which stays readable, as in C++.
class TaggerHandle {
public:
  // `owned` false: a tagger that the handle must not give back (the proxy of
  // a SynchronizedMeasurements group).
  explicit TaggerHandle(ChronotickBase *tagger, bool owned = true) : tagger_(tagger), owned_(owned) {}
  virtual ~TaggerHandle() = default;
  ChronotickBase *get() const {
    if (!tagger_)
      throw std::runtime_error("This tagger was freed.");
    return tagger_;
  }
  template <typename T> T *as() const { return dynamic_cast<T *>(get()); }
  bool freed() const { return tagger_ == nullptr; }
  // Gives the library's reference back (freeChronotick); true if the tagger
  // was destroyed. A second call does nothing.
  bool free();

private:
  ChronotickBase *tagger_;
  bool owned_;
};

// The Python classes Chronotick and ChronotickVirtual.
class HardwareHandle : public TaggerHandle {
public:
  using TaggerHandle::TaggerHandle;
};
class VirtualHandle : public TaggerHandle {
public:
  using TaggerHandle::TaggerHandle;
};

// Waits with the GIL released, in slices of at most 50 ms, so that other
// Python threads run meanwhile and Ctrl-C (KeyboardInterrupt) ends the wait.
// `try_for(ms)` waits up to ms milliseconds and returns whether it is done;
// timeout_ms < 0 waits without limit. Call with the GIL held.
template <typename TryFor> bool interruptibleWait(std::int64_t timeout_ms, TryFor &&try_for) {
  for (std::int64_t waited = 0;;) {
    const std::int64_t slice = timeout_ms < 0 ? 50 : std::min<std::int64_t>(50, timeout_ms - waited);
    bool done;
    {
      py::gil_scoped_release release;
      done = try_for(static_cast<std::int32_t>(slice));
    }
    if (done)
      return true;
    if (PyErr_CheckSignals() != 0)
      throw py::error_already_set();
    waited += slice;
    if (timeout_ms >= 0 && waited >= timeout_ms)
      return false;
  }
}

// Calls a getter that takes allocate(n) and returns what it filled as a new
// 1-D numpy array: the library writes straight into the array's memory.
template <typename T, typename Getter> py::array_t<T> array1(Getter &&getter) {
  py::array_t<T> out(0);
  getter([&](std::size_t n) {
    out = py::array_t<T>(static_cast<py::ssize_t>(n));
    return out.mutable_data();
  });
  return out;
}

// The same for allocate(rows, columns): a C-ordered 2-D array.
template <typename T, typename Getter> py::array_t<T> array2(Getter &&getter) {
  py::array_t<T> out(std::vector<py::ssize_t>{0, 0});
  getter([&](std::size_t rows, std::size_t columns) {
    out = py::array_t<T>({static_cast<py::ssize_t>(rows), static_cast<py::ssize_t>(columns)});
    return out.mutable_data();
  });
  return out;
}

// And allocate(a, b, c): a C-ordered 3-D array.
template <typename T, typename Getter> py::array_t<T> array3(Getter &&getter) {
  py::array_t<T> out(std::vector<py::ssize_t>{0, 0, 0});
  getter([&](std::size_t a, std::size_t b, std::size_t c) {
    out = py::array_t<T>({static_cast<py::ssize_t>(a), static_cast<py::ssize_t>(b), static_cast<py::ssize_t>(c)});
    return out.mutable_data();
  });
  return out;
}

// Binding functions, one per source file of python/src.
void bindCore(py::module_ &m);         // Core.cpp: Tag, constants, channel schemes, logging, version
void bindTaggers(py::module_ &m);      // Taggers.cpp: ChronotickBase, Chronotick, ChronotickVirtual, entry functions
void bindSimulation(py::module_ &m);   // Taggers.cpp: the simulation submodule
void bindMeasurements(py::module_ &m); // Measurements.cpp: every measurement
void bindChannels(py::module_ &m);     // Channels.cpp: every virtual channel
void bindStorage(py::module_ &m);      // Storage.cpp: FileWriter, FileReader, Dump, TimeTagStream, Iterator,
                                       // TimeTagStreamBuffer, SynchronizedMeasurements

} // namespace chronotick::python
