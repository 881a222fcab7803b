// Tag, constants, channel schemes, version, the measurement base class and
// the log queue that carries the library's messages to Python.

#include "Bindings.h"

#include <chronotick/ChannelScheme.h>
#include <chronotick/IteratorBase.h>
#include <chronotick/Library.h>
#include <chronotick/Logging.h>
#include <chronotick/Tag.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace chronotick::python {

namespace {

// Messages wait here until the forwarding thread of the package hands them to
// Python: the sink runs on worker threads, which must never touch Python.
class LogQueue {
public:
  static LogQueue &instance() {
    // Never destroyed: taggers freed at process exit still log through it.
    static LogQueue *queue = new LogQueue;
    return *queue;
  }

  static void sink(LogLevel level, std::string message) { instance().push(level, std::move(message)); }

  void push(LogLevel level, std::string message) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      // A bound, so that a process whose forwarding stopped doesn't fill up.
      if (messages_.size() >= kLimit) {
        messages_.pop_front();
        ++dropped_;
      }
      messages_.emplace_back(static_cast<int>(level), std::move(message));
    }
    ready_.notify_one();
  }

  // Ends every wait, now and later: the forwarding thread must be out of
  // its wait before the interpreter shuts down, or ending it there aborts.
  void stopWaiting() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
    }
    ready_.notify_all();
  }

  bool wait(std::int32_t timeout_ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto pending = [&] { return !messages_.empty() || dropped_ != 0 || stopped_; };
    if (timeout_ms < 0)
      ready_.wait(lock, pending);
    else
      ready_.wait_for(lock, std::chrono::milliseconds(timeout_ms), pending);
    return pending();
  }

  bool pop(std::pair<int, std::string> &out) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (dropped_ != 0) {
      out = {LOGGER_WARNING, std::to_string(dropped_) + " log messages were dropped: the log queue was full"};
      dropped_ = 0;
      return true;
    }
    if (messages_.empty())
      return false;
    out = std::move(messages_.front());
    messages_.pop_front();
    return true;
  }

private:
  static constexpr std::size_t kLimit = 100000;
  std::mutex mutex_;
  std::condition_variable ready_;
  bool stopped_ = false;
  std::deque<std::pair<int, std::string>> messages_;
  std::size_t dropped_ = 0;
};

} // namespace

void bindCore(py::module_ &m) {
  py::class_<Tag> tag(m, "Tag", "One record of the tag stream: type, missed_events, channel, time (ps).");
  py::enum_<Tag::Type>(tag, "Type")
      .value("TimeTag", Tag::Type::TimeTag, "one detected edge on `channel` at `time`")
      .value("Error", Tag::Type::Error, "the stream is not continuous here")
      .value("OverflowBegin", Tag::Type::OverflowBegin, "from here on data are being lost")
      .value("OverflowEnd", Tag::Type::OverflowEnd, "data flow again")
      .value("MissedEvents", Tag::Type::MissedEvents, "`missed_events` tags on `channel` were lost");
  tag.def(py::init([](Tag::Type type, std::uint16_t missed_events, std::int32_t channel, std::int64_t time) {
            return Tag{type, 0, missed_events, channel, time};
          }),
          py::arg("type") = Tag::Type::TimeTag, py::arg("missed_events") = 0, py::arg("channel") = 0,
          py::arg("time") = 0)
      .def_readwrite("type", &Tag::type)
      .def_readwrite("missed_events", &Tag::missed_events)
      .def_readwrite("channel", &Tag::channel)
      .def_readwrite("time", &Tag::time, "picoseconds")
      .def("__eq__",
           [](const Tag &a, const Tag &b) {
             return a.type == b.type && a.missed_events == b.missed_events && a.channel == b.channel &&
                    a.time == b.time;
           })
      .def("__repr__", [](const Tag &t) {
        return "Tag(type=" + py::repr(py::cast(t.type)).cast<std::string>() +
               ", missed_events=" + std::to_string(t.missed_events) + ", channel=" + std::to_string(t.channel) +
               ", time=" + std::to_string(t.time) + ")";
      });

  m.attr("CHANNEL_UNUSED") = CHANNEL_UNUSED;
  m.attr("CT_CHANNEL_NUMBER_SCHEME_AUTO") = CT_CHANNEL_NUMBER_SCHEME_AUTO;
  m.attr("CT_CHANNEL_NUMBER_SCHEME_ZERO") = CT_CHANNEL_NUMBER_SCHEME_ZERO;
  m.attr("CT_CHANNEL_NUMBER_SCHEME_ONE") = CT_CHANNEL_NUMBER_SCHEME_ONE;
  m.attr("LOGGER_INFO") = static_cast<int>(LOGGER_INFO);
  m.attr("LOGGER_WARNING") = static_cast<int>(LOGGER_WARNING);
  m.attr("LOGGER_ERROR") = static_cast<int>(LOGGER_ERROR);

  m.def("setChronotickChannelNumberScheme", &setChronotickChannelNumberScheme, py::arg("scheme"),
        "Requests a channel number scheme (CT_CHANNEL_NUMBER_SCHEME_*) for taggers built from now on.");
  m.def("getChronotickChannelNumberScheme", &getChronotickChannelNumberScheme, "The requested channel number scheme.");
  m.def("getVersion", &getVersion, "Version of the library, \"major.minor.patch\".");

  // Waits release the GIL: stop() waits until no worker is inside the
  // measurement, and workers may wait for a block that is being read.
  using release = py::call_guard<py::gil_scoped_release>;
  py::class_<IteratorBase>(m, "IteratorBase",
                           "Base of every measurement and virtual channel. A measurement runs as soon as it is "
                           "built; it stays readable after its tagger is freed, and then gets no more tags.")
      .def("start", &IteratorBase::start, release(), "Starts (or keeps running) without a capture limit.")
      .def("startFor", &IteratorBase::startFor, release(), py::arg("capture_duration"), py::arg("clear") = true,
           "Runs for capture_duration ps of stream time, then stops; clear drops the results first.")
      .def("stop", &IteratorBase::stop, release(), "When this returns, the measurement sees no more tags.")
      .def("clear", &IteratorBase::clear, release(),
           "Drops the results; no tag of a block read before this call is seen.")
      .def("isRunning", &IteratorBase::isRunning, release())
      .def("getCaptureDuration", &IteratorBase::getCaptureDuration, release(),
           "Stream time in ps that the measurement has seen since its last clear.");

  // The log path: a C++ sink that only queues, and the calls by which
  // chronotick/__init__.py drains the queue into Python's logging.
  m.def(
      "_capture_log", [](bool enable) { setLogger(enable ? &LogQueue::sink : nullptr); }, py::arg("enable"),
      "True: the library's messages are queued for _next_log_message; False: they go to standard error.");
  m.def(
      "_wait_log_message",
      [](std::int32_t timeout_ms) {
        py::gil_scoped_release release;
        return LogQueue::instance().wait(timeout_ms);
      },
      py::arg("timeout_ms"), "Waits up to timeout_ms (negative: without limit) until a message is queued.");
  m.def(
      "_stop_log_waits", [] { LogQueue::instance().stopWaiting(); },
      "Ends the forwarding thread's wait for good (at interpreter exit).");
  m.def(
      "_next_log_message",
      [](std::int32_t timeout_ms) -> py::object {
        if (timeout_ms != 0) {
          py::gil_scoped_release release;
          LogQueue::instance().wait(timeout_ms);
        }
        std::pair<int, std::string> message;
        if (!LogQueue::instance().pop(message))
          return py::none();
        return py::make_tuple(message.first, message.second);
      },
      py::arg("timeout_ms") = 0, "The next queued message as (level, text), or None after timeout_ms.");
}

} // namespace chronotick::python
