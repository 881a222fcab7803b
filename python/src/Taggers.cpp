// The tagger classes, the entry functions that make and free taggers, and
// the simulated boards.

#include "Bindings.h"

#include <chronotick/Chronotick.h>
#include <chronotick/ChronotickVirtual.h>
#include <chronotick/Library.h>
#include <chronotick/Simulation.h>

#include <pybind11/stl/filesystem.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace chronotick::python {

namespace {

using Channels = std::vector<std::int32_t>;

// Handles that the entry functions made, for freeAllChronotick. Only touched
// with the GIL held; never destroyed, as handles may go during finalization.
std::set<TaggerHandle *> &liveHandles() {
  static auto *handles = new std::set<TaggerHandle *>;
  return *handles;
}

// Calls that run with the GIL released keep the tagger from being freed under
// them: a free() meanwhile only marks the handle and leaves the last of those
// calls to give the tagger back. Touched with the GIL held.
struct Busy {
  int calls = 0;
  ChronotickBase *pending = nullptr;
  std::shared_ptr<std::atomic<bool>> freed = std::make_shared<std::atomic<bool>>(false);
};
std::unordered_map<const TaggerHandle *, Busy> &busyHandles() {
  static auto *busy = new std::unordered_map<const TaggerHandle *, Busy>;
  return *busy;
}

bool giveBack(ChronotickBase *tagger) noexcept {
  try {
    py::gil_scoped_release release; // destruction joins the workers
    return freeChronotick(tagger);
  } catch (const std::exception &) {
    return false; // the registry refused it: nothing was destroyed
  }
}

// Keeps the tagger of `handle` alive for the length of one call.
class Use {
public:
  explicit Use(const TaggerHandle &handle) : handle_(handle), tagger_(handle.get()) {
    Busy &busy = busyHandles()[&handle_];
    ++busy.calls;
    freed_ = busy.freed;
  }
  ~Use() {
    auto it = busyHandles().find(&handle_);
    if (--it->second.calls > 0)
      return;
    ChronotickBase *pending = it->second.pending;
    busyHandles().erase(it);
    if (pending)
      giveBack(pending);
  }
  Use(const Use &) = delete;
  Use &operator=(const Use &) = delete;

  template <typename T = ChronotickBase> T *get() const { return dynamic_cast<T *>(tagger_); }
  // Set once the handle is freed: waits end at their next slice.
  bool freed() const { return freed_->load(); }
  // After a wait: a handle freed meanwhile raises as any later call does.
  void check() const { handle_.get(); }

private:
  const TaggerHandle &handle_;
  ChronotickBase *tagger_;
  std::shared_ptr<std::atomic<bool>> freed_;
};

// Handles give their reference back when Python collects them.
struct HandleDeleter {
  void operator()(TaggerHandle *handle) const {
    handle->free();
    delete handle;
  }
};
template <typename T> using HandlePtr = std::unique_ptr<T, HandleDeleter>;

template <typename H, typename T> HandlePtr<H> track(T *tagger) {
  HandlePtr<H> handle(new H(tagger));
  liveHandles().insert(handle.get());
  return handle;
}

Chronotick *hw(const TaggerHandle &h) {
  return h.as<Chronotick>();
}
ChronotickVirtual *replayer(const TaggerHandle &h) {
  return h.as<ChronotickVirtual>();
}

void bindBase(py::module_ &m) {
  py::class_<TaggerHandle, HandlePtr<TaggerHandle>>(
      m, "ChronotickBase",
      "What every tagger offers. Times are picoseconds. A tagger is given back with free(), freeChronotick(), "
      "at the end of a with block, or when Python collects the object; afterwards every call raises "
      "RuntimeError. Measurements keep their tagger object alive.")
      .def("free", &TaggerHandle::free,
           "Gives this object's reference back; True if the tagger was destroyed (a tagger shared by several "
           "createChronotick calls lives until every object has been freed). A second call does nothing.")
      .def("isFreed", &TaggerHandle::freed)
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](TaggerHandle &h, py::args) { h.free(); })
      .def("__repr__",
           [](py::object self) {
             std::string name = py::type::of(self).attr("__name__").cast<std::string>();
             return "<chronotick." + name + (self.cast<TaggerHandle &>().freed() ? " (freed)>" : ">");
           })
      .def(
          "getFence", [](TaggerHandle &h, bool alloc) { return h.get()->getFence(alloc); }, py::arg("alloc") = true,
          "A fresh fence (alloc) or the last one handed out. Blocks read after a fresh fence was taken carry it.")
      .def(
          "waitForFence",
          [](TaggerHandle &h, std::uint32_t fence, std::int32_t timeout) {
            Use use(h);
            const bool done = interruptibleWait(
                timeout, [&](std::int32_t ms) { return use.freed() || use.get()->waitForFence(fence, ms); });
            use.check();
            return done;
          },
          py::arg("fence"), py::arg("timeout") = -1,
          "True once a block carrying fence (or a later one) has left the chain. timeout in ms: 0 only tests, "
          "negative waits without limit.")
      .def(
          "sync",
          [](TaggerHandle &h) {
            Use use(h);
            py::gil_scoped_release release;
            use.get()->sync();
          },
          "Returns when every tag delivered before the call has passed all measurements.")
      .def(
          "getInvertedChannel",
          [](TaggerHandle &h, std::int32_t channel) { return h.get()->getInvertedChannel(channel); },
          py::arg("channel"), "The channel of the other edge of the same input.")
      .def(
          "isUnusedChannel", [](TaggerHandle &h, std::int32_t channel) { return h.get()->isUnusedChannel(channel); },
          py::arg("channel"), "Whether the number means no channel.")
      .def(
          "getConfiguration", [](TaggerHandle &h) { return h.get()->getConfiguration(); },
          "The configuration as JSON text.")
      .def(
          "setInputDelay",
          [](TaggerHandle &h, std::int32_t channel, std::int64_t delay) { h.get()->setInputDelay(channel, delay); },
          py::arg("channel"), py::arg("delay"), "Delays the tags of channel by delay ps.")
      .def(
          "getInputDelay", [](TaggerHandle &h, std::int32_t channel) { return h.get()->getInputDelay(channel); },
          py::arg("channel"))
      .def(
          "setDeadtime",
          [](TaggerHandle &h, std::int32_t channel, std::int64_t deadtime) {
            return h.get()->setDeadtime(channel, deadtime);
          },
          py::arg("channel"), py::arg("deadtime"), "Sets the dead time in ps; returns the value in effect.")
      .def(
          "getDeadtime", [](TaggerHandle &h, std::int32_t channel) { return h.get()->getDeadtime(channel); },
          py::arg("channel"))
      .def(
          "setTestSignal",
          [](TaggerHandle &h, std::int32_t channel, bool enable) { h.get()->setTestSignal(channel, enable); },
          py::arg("channel"), py::arg("enable"), "Feeds the internal test signal to a channel or a list of channels.")
      .def(
          "setTestSignal",
          [](TaggerHandle &h, Channels channels, bool enable) { h.get()->setTestSignal(std::move(channels), enable); },
          py::arg("channels"), py::arg("enable"))
      .def(
          "getTestSignal", [](TaggerHandle &h, std::int32_t channel) { return h.get()->getTestSignal(channel); },
          py::arg("channel"))
      .def(
          "getOverflows", [](TaggerHandle &h) { return h.get()->getOverflows(); }, "Overflows so far.")
      .def("clearOverflows", [](TaggerHandle &h) { h.get()->clearOverflows(); })
      .def(
          "getOverflowsAndClear", [](TaggerHandle &h) { return h.get()->getOverflowsAndClear(); },
          "The overflow count, leaving zero behind.")
      .def(
          "getNewVirtualChannel", [](TaggerHandle &h) { return h.get()->getNewVirtualChannel(); },
          "The next free virtual channel number.")
      .def(
          "registerChannel", [](TaggerHandle &h, std::int32_t channel) { h.get()->registerChannel(channel); },
          py::arg("channel"), "Turns a channel on, as a measurement on it does.")
      .def(
          "unregisterChannel", [](TaggerHandle &h, std::int32_t channel) { h.get()->unregisterChannel(channel); },
          py::arg("channel"), "Gives back one registerChannel.");
}

void bindHardware(py::module_ &m) {
  py::class_<HardwareHandle, TaggerHandle, HandlePtr<HardwareHandle>>(
      m, "Chronotick",
      "A tagger on one board, from createChronotick. Setters change the configuration at once and reach the "
      "board with the next block read; a fresh fence (getFence) says when. Times are ps, levels volts. An "
      "unknown channel in a channel operation logs a warning and gives 0 or False.")
      .def(
          "reset",
          [](HardwareHandle &h) {
            Use use(h);
            py::gil_scoped_release release;
            use.get<Chronotick>()->reset();
          },
          "Brings the board back to its start state: settings to their defaults, the delay-line tables learned "
          "anew. Measurements stay attached.")
      .def(
          "setTestSignalDivider", [](HardwareHandle &h, std::int32_t divider) { hw(h)->setTestSignalDivider(divider); },
          py::arg("divider"), "The test signal runs at the board's base frequency divided by this (at least 1).")
      .def("getTestSignalDivider", [](HardwareHandle &h) { return hw(h)->getTestSignalDivider(); })
      .def(
          "setTriggerLevel",
          [](HardwareHandle &h, std::int32_t channel, double voltage) { hw(h)->setTriggerLevel(channel, voltage); },
          py::arg("channel"), py::arg("voltage"),
          "Threshold of the input of channel (either edge), saturated to getDacRange().")
      .def(
          "getTriggerLevel", [](HardwareHandle &h, std::int32_t channel) { return hw(h)->getTriggerLevel(channel); },
          py::arg("channel"), "The quantized threshold in effect, in volts.")
      .def(
          "getHardwareDelayCompensation",
          [](HardwareHandle &h, std::int32_t channel) { return hw(h)->getHardwareDelayCompensation(channel); },
          py::arg("channel"),
          "The board's own delay of this input that is taken out of its tags (ps); 0 while compensation is off.")
      .def(
          "setInputMux",
          [](HardwareHandle &h, std::int32_t channel, std::int32_t mux_mode) { hw(h)->setInputMux(channel, mux_mode); },
          py::arg("channel"), py::arg("mux_mode"),
          "Input source: 0 its own connector, 1 and 2 the neighbours', 3 the test signal.")
      .def(
          "getInputMux", [](HardwareHandle &h, std::int32_t channel) { return hw(h)->getInputMux(channel); },
          py::arg("channel"))
      .def(
          "setConditionalFilter",
          [](HardwareHandle &h, Channels trigger, Channels filtered, bool hardwareDelayCompensation) {
            hw(h)->setConditionalFilter(std::move(trigger), std::move(filtered), hardwareDelayCompensation);
          },
          py::arg("trigger"), py::arg("filtered"), py::arg("hardwareDelayCompensation") = true,
          "Passes a filtered channel's event only if a trigger fired since that channel's last event. Raises "
          "ValueError for unknown channels and boards without a trigger and a filtered channel.")
      .def(
          "clearConditionalFilter", [](HardwareHandle &h) { hw(h)->clearConditionalFilter(); },
          "No filter, compensation on.")
      .def("getConditionalFilterTrigger", [](HardwareHandle &h) { return hw(h)->getConditionalFilterTrigger(); })
      .def("getConditionalFilterFiltered", [](HardwareHandle &h) { return hw(h)->getConditionalFilterFiltered(); })
      .def(
          "setNormalization", [](HardwareHandle &h, bool state) { hw(h)->setNormalization(state); }, py::arg("state"),
          "Spreads each event evenly over its fine bin instead of its bin start.")
      .def("getNormalization", [](HardwareHandle &h) { return hw(h)->getNormalization(); })
      .def(
          "setHardwareBufferSize", [](HardwareHandle &h, std::int32_t size) { hw(h)->setHardwareBufferSize(size); },
          py::arg("size"), "Events the board may hold back before it overflows (CT-Ultra: 32768 to 2**29).")
      .def("getHardwareBufferSize", [](HardwareHandle &h) { return hw(h)->getHardwareBufferSize(); })
      .def(
          "setStreamBlockSize",
          [](HardwareHandle &h, std::int32_t max_events, std::int32_t max_latency) {
            hw(h)->setStreamBlockSize(max_events, max_latency);
          },
          py::arg("max_events"), py::arg("max_latency"),
          "A block ends after max_events events (256 to 32 * 2**20) or max_latency ms (1 to 10000). Raises "
          "ValueError out of range.")
      .def("getStreamBlockSizeEvents", [](HardwareHandle &h) { return hw(h)->getStreamBlockSizeEvents(); })
      .def("getStreamBlockSizeLatency", [](HardwareHandle &h) { return hw(h)->getStreamBlockSizeLatency(); })
      .def(
          "setEventDivider",
          [](HardwareHandle &h, std::int32_t channel, std::uint32_t divider) {
            hw(h)->setEventDivider(channel, divider);
          },
          py::arg("channel"), py::arg("divider"),
          "Keeps one of every divider events of exactly this channel; 0 and 1 keep all, at most 65535.")
      .def(
          "getEventDivider", [](HardwareHandle &h, std::int32_t channel) { return hw(h)->getEventDivider(channel); },
          py::arg("channel"))
      .def(
          "autoCalibration",
          [](HardwareHandle &h) {
            Use use(h);
            return array1<double>([&](auto allocate) {
              py::gil_scoped_release release;
              use.get<Chronotick>()->autoCalibration([&](std::size_t n) {
                py::gil_scoped_acquire acquire;
                return allocate(n);
              });
            });
          },
          "Runs the test signal through every input for 500 ms; returns per entry of getChannelList the rms "
          "quantization error in ps that the learned delay line implies (-1 without events).")
      .def(
          "getSerial", [](HardwareHandle &h) { return hw(h)->getSerial(); },
          "Serials of the boards, joined with \", \".")
      .def(
          "getModel", [](HardwareHandle &h) { return hw(h)->getModel(); }, "\"CT-20\" or \"CT-Ultra\".")
      .def(
          "getChannelNumberScheme", [](HardwareHandle &h) { return hw(h)->getChannelNumberScheme(); },
          "The scheme in force: CT_CHANNEL_NUMBER_SCHEME_ZERO or _ONE.")
      .def(
          "getDacRange", [](HardwareHandle &h) { return hw(h)->getDacRange(); },
          "[lowest, highest] trigger level in volts.")
      .def(
          "getDistributionCount",
          [](HardwareHandle &h) {
            return array2<std::int64_t>([&](auto allocate) { hw(h)->getDistributionCount(allocate); });
          },
          "Counts per fine bin of the delay-line tables, shape (len(getChannelList()), bins).")
      .def(
          "getDistributionPSecs",
          [](HardwareHandle &h) {
            return array2<std::int64_t>([&](auto allocate) { hw(h)->getDistributionPSecs(allocate); });
          },
          "Where each fine bin starts within the clock cycle (ps), shape (len(getChannelList()), bins).")
      .def(
          "getChannelList", [](HardwareHandle &h) { return hw(h)->getChannelList(); },
          "The rising-edge channel of every usable input, in input order.")
      .def(
          "getPsPerClock", [](HardwareHandle &h) { return hw(h)->getPsPerClock(); }, "Clock period of the board in ps.")
      .def("getPcbVersion", [](HardwareHandle &h) { return hw(h)->getPcbVersion(); })
      .def("getFirmwareVersion", [](HardwareHandle &h) { return hw(h)->getFirmwareVersion(); })
      .def(
          "getSensorData",
          [](HardwareHandle &h) {
            Use use(h);
            py::gil_scoped_release release; // reads the sensor bus
            return use.get<Chronotick>()->getSensorData();
          },
          "Temperatures, fans, supplies and clock state, one \"name\\tvalue\" a line.")
      .def(
          "setLED", [](HardwareHandle &h, std::uint32_t bitmask) { hw(h)->setLED(bitmask); }, py::arg("bitmask"),
          "Front panel LEDs; the idle pattern returns when the tagger goes.")
      .def(
          "factoryAccess",
          [](HardwareHandle &h, std::uint32_t pw, std::uint32_t addr, std::uint32_t data, std::uint32_t mask) {
            return hw(h)->factoryAccess(pw, addr, data, mask);
          },
          py::arg("pw"), py::arg("addr"), py::arg("data"), py::arg("mask"), "Factory service only.");
}

void bindVirtual(py::module_ &m) {
  py::class_<VirtualHandle, TaggerHandle, HandlePtr<VirtualHandle>>(
      m, "ChronotickVirtual",
      "A tagger without hardware, from createChronotickVirtual: plays .ctbin recordings, paced against the "
      "wall clock, and emulates per-channel input delay, dead time and a test signal.")
      .def(
          "replay",
          [](VirtualHandle &h, const std::filesystem::path &file, std::int64_t begin, std::int64_t duration,
             bool queue) { return replayer(h)->replay(file.string(), begin, duration, queue); },
          py::arg("file"), py::arg("begin") = 0, py::arg("duration") = -1, py::arg("queue") = true,
          "Queues a recording (any part name or its base name) and returns the id of the new replay. begin < 0 "
          "plays -begin ps of silence first, begin > 0 skips that much; duration < 0 plays to the end, otherwise "
          "exactly that long. queue=False drops every queued replay first.")
      .def(
          "stop", [](VirtualHandle &h) { replayer(h)->stop(); },
          "Drops every queued replay and closes the current file.")
      .def(
          "waitForCompletion",
          [](VirtualHandle &h, std::uint64_t id, std::int32_t timeout) {
            Use use(h);
            const bool done = interruptibleWait(timeout, [&](std::int32_t ms) {
              return use.freed() || use.get<ChronotickVirtual>()->waitForCompletion(id, ms);
            });
            use.check();
            return done;
          },
          py::arg("id") = 0, py::arg("timeout") = -1,
          "True if the replay id (0: the last one) has finished. timeout in ms: 0 only tests, negative waits "
          "without limit. Ctrl-C ends the wait.")
      .def(
          "setReplaySpeed", [](VirtualHandle &h, double speed) { replayer(h)->setReplaySpeed(speed); },
          py::arg("speed"),
          "1.0 real time, above 0 paced, 0 paused, below 0 as fast as possible (0 < speed < 0.1 raises).")
      .def("getReplaySpeed", [](VirtualHandle &h) { return replayer(h)->getReplaySpeed(); });
}

} // namespace

bool TaggerHandle::free() {
  if (!tagger_)
    return false;
  ChronotickBase *tagger = std::exchange(tagger_, nullptr);
  liveHandles().erase(this);
  if (!owned_)
    return false;
  auto busy = busyHandles().find(this);
  if (busy != busyHandles().end()) {
    busy->second.pending = tagger;
    busy->second.freed->store(true);
    return false;
  }
  return giveBack(tagger);
}

void bindTaggers(py::module_ &m) {
  bindBase(m);
  bindHardware(m);
  bindVirtual(m);

  m.def(
      "createChronotick",
      [](const std::string &serial) {
        Chronotick *tagger;
        {
          py::gil_scoped_release release; // bring-up takes a while
          tagger = createChronotick(serial);
        }
        return track<HardwareHandle>(tagger);
      },
      py::arg("serial") = "",
      "The tagger of the board with this serial; \"\" takes the first board found. A board that already has a "
      "tagger shares it: each returned object holds one reference and gives it back when freed or collected. "
      "Raises RuntimeError when the board can't be brought up.");
  m.def(
      "createChronotickVirtual",
      []() {
        ChronotickVirtual *tagger;
        {
          py::gil_scoped_release release;
          tagger = createChronotickVirtual();
        }
        return track<VirtualHandle>(tagger);
      },
      "Always builds a new replay tagger.");
  m.def(
      "freeChronotick", [](TaggerHandle &tagger) { return tagger.free(); }, py::arg("tagger"),
      "Gives back the tagger object's reference; True if the tagger was destroyed. The object can't be used "
      "afterwards.");
  m.def(
      "freeAllChronotick",
      []() {
        const std::set<TaggerHandle *> handles = liveHandles();
        for (TaggerHandle *handle : handles)
          if (liveHandles().count(handle) != 0) // free() lets other threads run, which may collect handles
            handle->free();
        py::gil_scoped_release release;
        freeAllChronotick();
      },
      "Destroys every tagger, whatever its references; every tagger object counts as freed.");
  m.def("scanChronotick", &scanChronotick, py::call_guard<py::gil_scoped_release>(),
        "Serials of all attached boards: real ones first, then simulated ones.");
  m.def("getChronotickModel", &getChronotickModel, py::call_guard<py::gil_scoped_release>(), py::arg("serial"),
        "\"CT-20\" or \"CT-Ultra\"; brings the board up if it has no tagger (RuntimeError if it can't).");
  m.def(
      "setCustomBitFileName", [](const std::filesystem::path &path) { setCustomBitFileName(path.string()); },
      py::arg("path"), "Taggers built from now on load this firmware file; \"\" returns to the built-in choice.");
  m.def("hasChronotickVirtualLicense", &hasChronotickVirtualLicense,
        "Whether this installation may replay recordings.");
}

void bindSimulation(py::module_ &parent) {
  namespace sim = simulation;
  py::module_ m = parent.def_submodule(
      "simulation",
      "Simulated boards: a model of the instrument's firmware, so that the whole hardware path runs without an "
      "instrument. A simulated board appears in scanChronotick() and opens through createChronotick(serial). "
      "Times are ps of the board's true time; rates are per second.");

  py::class_<sim::BoardSpec>(m, "BoardSpec")
      .def(py::init([](std::string model, std::string serial, int hardware_version, bool usb3, std::uint64_t seed) {
             return sim::BoardSpec{std::move(model), std::move(serial), hardware_version, usb3, seed};
           }),
           py::arg("model") = "CT-Ultra", py::arg("serial") = "", py::arg("hardware_version") = 5,
           py::arg("usb3") = true, py::arg("seed") = 1)
      .def_readwrite("model", &sim::BoardSpec::model, "\"CT-20\" (8 inputs) or \"CT-Ultra\" (18 inputs)")
      .def_readwrite("serial", &sim::BoardSpec::serial, "made up when empty")
      .def_readwrite("hardware_version", &sim::BoardSpec::hardware_version)
      .def_readwrite("usb3", &sim::BoardSpec::usb3)
      .def_readwrite("seed", &sim::BoardSpec::seed, "signals, jitter and the delay line follow from it");

  m.def("addBoard", &sim::addBoard, py::arg("spec") = sim::BoardSpec{},
        "Adds a board and returns its serial. Raises ValueError for a serial that is already in use.");
  m.def("removeBoard", &sim::removeBoard, py::arg("serial"), "Unplugs a board: an open link to it fails from then on.");
  m.def("removeAllBoards", &sim::removeAllBoards);
  m.def("listBoards", &sim::listBoards);

  py::class_<sim::Signal> signal(m, "Signal",
                                 "What one physical input sees. Each pulse has a rising edge at its time and a "
                                 "falling edge width ps later, detected while the trigger level lies between 0 V "
                                 "and amplitude.");
  py::enum_<sim::Signal::Kind>(signal, "Kind")
      .value("Off", sim::Signal::Kind::Off)
      .value("Poisson", sim::Signal::Kind::Poisson)
      .value("Periodic", sim::Signal::Kind::Periodic)
      .value("Fluorescence", sim::Signal::Kind::Fluorescence)
      .value("Copy", sim::Signal::Kind::Copy);
  signal.def(py::init<>())
      .def_readwrite("kind", &sim::Signal::kind)
      .def_readwrite("rate", &sim::Signal::rate)
      .def_readwrite("period", &sim::Signal::period)
      .def_readwrite("jitter", &sim::Signal::jitter)
      .def_readwrite("source", &sim::Signal::source)
      .def_readwrite("probability", &sim::Signal::probability)
      .def_readwrite("lifetime", &sim::Signal::lifetime)
      .def_readwrite("delay", &sim::Signal::delay)
      .def_readwrite("width", &sim::Signal::width)
      .def_readwrite("amplitude", &sim::Signal::amplitude, "volts")
      .def_static("off", &sim::Signal::off)
      .def_static("poisson", &sim::Signal::poisson, py::arg("rate_per_second"), "Pulses at random.")
      .def_static("periodic", &sim::Signal::periodic, py::arg("period_ps"), py::arg("jitter_ps") = 0,
                  "One pulse every period, with Gaussian jitter (rms), e.g. a laser sync.")
      .def_static("fluorescence", &sim::Signal::fluorescence, py::arg("source_input"), py::arg("probability"),
                  py::arg("lifetime_ps"), py::arg("delay_ps") = 0,
                  "After each pulse of source_input: with probability a pulse after delay plus an exponential "
                  "delay of mean lifetime.")
      .def_static("copy", &sim::Signal::copy, py::arg("source_input"), py::arg("delay_ps"), py::arg("jitter_ps") = 0,
                  "Every pulse of source_input, delay later, with its own jitter.");

  m.def("setSignal", &sim::setSignal, py::arg("serial"), py::arg("input"), py::arg("signal"),
        "What physical input (0-based) sees. Raises ValueError for an input the board lacks or a signal that "
        "can't be.");
  m.def("setRealTime", &sim::setRealTime, py::arg("serial"), py::arg("real_time"),
        "True (default): reads wait until their words would exist. False: reads return at once (tests).");
  m.def("setBandwidth", &sim::setBandwidth, py::arg("serial"), py::arg("words_per_second"),
        "The link's bandwidth in words per second; events beyond it fill the hardware buffer.");

  py::enum_<sim::Fault>(m, "Fault")
      .value("LinkLoss", sim::Fault::LinkLoss)
      .value("ShortRead", sim::Fault::ShortRead)
      .value("ClockLoss", sim::Fault::ClockLoss)
      .value("VoltageOutOfRange", sim::Fault::VoltageOutOfRange)
      .value("SensorFailure", sim::Fault::SensorFailure)
      .value("WrongInterfaceVersion", sim::Fault::WrongInterfaceVersion)
      .value("NoFirmware", sim::Fault::NoFirmware);
  m.def("injectFault", &sim::injectFault, py::arg("serial"), py::arg("fault"), py::arg("count") = 1);
  m.def("clearFaults", &sim::clearFaults, py::arg("serial"));

  py::class_<sim::BoardTruth>(m, "BoardTruth", "The board's truth, for comparing what the library measured.")
      .def_readonly("model", &sim::BoardTruth::model)
      .def_readonly("inputs", &sim::BoardTruth::inputs)
      .def_readonly("clock_period", &sim::BoardTruth::clock_period, "ps")
      .def_readonly("bin_count", &sim::BoardTruth::bin_count, "fine bins per clock cycle")
      .def_property_readonly(
          "bin_widths",
          [](const sim::BoardTruth &t) {
            py::array_t<double> out(
                {static_cast<py::ssize_t>(t.bin_widths.size()), static_cast<py::ssize_t>(t.bin_count)});
            auto view = out.mutable_unchecked<2>();
            for (std::size_t i = 0; i < t.bin_widths.size(); ++i)
              for (std::size_t j = 0; j < static_cast<std::size_t>(t.bin_count); ++j)
                view(static_cast<py::ssize_t>(i), static_cast<py::ssize_t>(j)) =
                    j < t.bin_widths[i].size() ? t.bin_widths[i][j] : 0.0;
            return out;
          },
          "True width of each fine bin in ps, shape (inputs, bin_count).")
      .def_property_readonly(
          "quantization_rms",
          [](const sim::BoardTruth &t) {
            return py::array_t<double>(static_cast<py::ssize_t>(t.quantization_rms.size()), t.quantization_rms.data());
          },
          "Per input, the rms quantization error in ps that the bin widths imply.");
  m.def("getTruth", &sim::getTruth, py::arg("serial"));
}

} // namespace chronotick::python
