// Recording, reading back and raw tag access: FileWriter, FileReader, Dump,
// TimeTagStream with its TimeTagStreamBuffer, Iterator, and the group
// SynchronizedMeasurements.

#include "Bindings.h"

#include <chronotick/Dump.h>
#include <chronotick/FileReader.h>
#include <chronotick/FileWriter.h>
#include <chronotick/Iterator.h>
#include <chronotick/SynchronizedMeasurements.h>
#include <chronotick/TimeTagStream.h>
#include <chronotick/TimeTagStreamBuffer.h>

#include <pybind11/stl/filesystem.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

namespace chronotick::python {

namespace {

using Channels = std::vector<std::int32_t>;
namespace fs = std::filesystem;

// The 16-byte Tag record as a numpy structured type, so that raw blocks (and
// Dump files, through numpy.fromfile) read without a conversion per tag.
py::dtype tagDtype() {
  py::dict fields;
  fields["names"] = py::make_tuple("type", "missed_events", "channel", "time");
  fields["formats"] = py::make_tuple("u1", "u2", "i4", "i8");
  fields["offsets"] =
      py::make_tuple(offsetof(Tag, type), offsetof(Tag, missed_events), offsetof(Tag, channel), offsetof(Tag, time));
  fields["itemsize"] = sizeof(Tag);
  return py::dtype::from_args(fields);
}

py::dict columnsOf(const TimeTagStreamBuffer &buffer) {
  py::dict columns;
  columns["channels"] = array1<std::int32_t>([&](auto alloc) { buffer.getChannels(alloc); });
  columns["timestamps"] = array1<std::int64_t>([&](auto alloc) { buffer.getTimestamps(alloc); });
  columns["event_types"] = array1<std::uint8_t>([&](auto alloc) { buffer.getEventTypes(alloc); });
  columns["missed_events"] = array1<std::uint16_t>([&](auto alloc) { buffer.getMissedEvents(alloc); });
  return columns;
}

// Iterator::next polls without a time limit; this polls size() in slices so
// that Ctrl-C and other Python threads get through while nothing comes.
std::int64_t nextTimestamp(Iterator &iterator) {
  interruptibleWait(-1, [&](std::int32_t ms) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (iterator.size() == 0) {
      if (std::chrono::steady_clock::now() >= until)
        return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  });
  py::gil_scoped_release release;
  return iterator.next();
}

void bindBuffer(py::module_ &m) {
  py::class_<TimeTagStreamBuffer>(m, "TimeTagStreamBuffer",
                                  "The tags of one read, as columns. Each getter returns a new numpy array "
                                  "of `size` entries.")
      .def(
          "getChannels",
          [](const TimeTagStreamBuffer &b) { return array1<std::int32_t>([&](auto alloc) { b.getChannels(alloc); }); },
          "Channel of each tag (int32).")
      .def(
          "getTimestamps",
          [](const TimeTagStreamBuffer &b) {
            return array1<std::int64_t>([&](auto alloc) { b.getTimestamps(alloc); });
          },
          "Time of each tag, ps (int64).")
      .def(
          "getMissedEvents",
          [](const TimeTagStreamBuffer &b) {
            return array1<std::uint16_t>([&](auto alloc) { b.getMissedEvents(alloc); });
          },
          "Count of lost tags of a MissedEvents tag, else 0 (uint16).")
      .def(
          "getEventTypes",
          [](const TimeTagStreamBuffer &b) {
            return array1<std::uint8_t>([&](auto alloc) { b.getEventTypes(alloc); });
          },
          "Tag type of each tag as a number (uint8): 0 TimeTag, 1 Error, 2 OverflowBegin, 3 OverflowEnd, "
          "4 MissedEvents.")
      .def(
          "getOverflows",
          [](const TimeTagStreamBuffer &b) { return array1<std::uint8_t>([&](auto alloc) { b.getOverflows(alloc); }); },
          "1 for each tag that isn't a TimeTag, else 0 (uint8).")
      .def_property_readonly("columns", &columnsOf,
                             "All four columns as a new dict of numpy arrays: channels, timestamps, "
                             "event_types, missed_events (ready for pandas.DataFrame).")
      .def_readonly("size", &TimeTagStreamBuffer::size, "Number of tags.")
      .def_readonly("has_overflows", &TimeTagStreamBuffer::has_overflows, "True if a tag isn't a TimeTag.")
      .def_readonly("t_start", &TimeTagStreamBuffer::t_start, "Stream time where this read begins, ps.")
      .def_readonly("t_get_data", &TimeTagStreamBuffer::t_get_data, "Stream time where this read ends, ps.")
      .def("__len__", [](const TimeTagStreamBuffer &b) { return b.size; })
      .def("__repr__", [](const TimeTagStreamBuffer &b) {
        return "<TimeTagStreamBuffer size=" + std::to_string(b.size) + " t_start=" + std::to_string(b.t_start) +
               " t_get_data=" + std::to_string(b.t_get_data) + ">";
      });
}

void bindRawAccess(py::module_ &m) {
  py::class_<TimeTagStream, IteratorBase>(
      m, "TimeTagStream",
      "Gathers the tags of some channels (all of them with an empty list) into a buffer of at most "
      "n_max_events tags, which getData drains.\n\n"
      "TimeTag and MissedEvents tags are kept if their channel is in the list; Error and "
      "OverflowBegin/End are always kept. Once the buffer is full, further tags are dropped without a mark "
      "until the next getData. Room for n_max_events tags (15 bytes each) is reserved at construction and "
      "after each read. Stop and start keep the buffer; clear empties it.")
      .def(py::init([](TaggerHandle &tagger, std::uint64_t n_max_events, Channels channels) {
             return new TimeTagStream(tagger.get(), n_max_events, std::move(channels));
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("n_max_events"), py::arg("channels") = Channels{})
      .def("getCounts", &TimeTagStream::getCounts, py::call_guard<py::gil_scoped_release>(),
           "Tags in the buffer now, waiting for getData.")
      .def("getData", &TimeTagStream::getData, py::call_guard<py::gil_scoped_release>(),
           "Takes everything buffered as a TimeTagStreamBuffer; the next read continues where this one ended. "
           "Its t_get_data is the end of the last block seen, ps; its t_start where the previous read ended "
           "(for the first read after construction or clear, the end of the first block seen).");

  py::class_<Iterator, IteratorBase>(m, "Iterator",
                                     "Hands out the time stamps of one channel, one at a time, for simple "
                                     "polling.\n\n"
                                     "Only TimeTags of the channel are stored; MissedEvents and breaks are "
                                     "ignored, so gaps in the data don't show. The store has no limit. Stop "
                                     "and start keep it; clear empties it.")
      .def(py::init([](TaggerHandle &tagger, std::int32_t channel) { return new Iterator(tagger.get(), channel); }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("channel"))
      .def("next", &nextTimestamp,
           "The oldest stored time stamp, ps, which it removes. Waits until one is there, without a time "
           "limit (Ctrl-C ends the wait).")
      .def("size", &Iterator::size, py::call_guard<py::gil_scoped_release>(), "Number of stored time stamps.")
      .def("__len__", &Iterator::size, py::call_guard<py::gil_scoped_release>());
}

void bindFiles(py::module_ &m) {
  py::class_<FileWriter, IteratorBase>(
      m, "FileWriter",
      "Records the tags of the given channels into a .ctbin recording. The file named holds only the header, "
      "configuration and channel map; the tags go to the numbered parts name.1.ctbin, name.2.ctbin, ...\n\n"
      "TimeTags are written except inside an overflow stretch, MissedEvents only inside one; Error and "
      "OverflowBegin/End are always written. Channels that the tagger reports unused are left out. Each "
      "start, and each clear while running, begins a new part. A disk fault logs one error and stops the "
      "writer. Raises RuntimeError for more than 250 channels, for none, and when a part can't be created.")
      .def(py::init([](TaggerHandle &tagger, const fs::path &filename, const Channels &channels) {
             return new FileWriter(tagger.get(), filename.string(), channels);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("filename"), py::arg("channels"))
      .def(
          "split",
          [](FileWriter &w, const std::optional<fs::path> &new_filename) {
            w.split(new_filename ? new_filename->string() : std::string());
          },
          py::call_guard<py::gil_scoped_release>(), py::arg("new_filename") = py::none(),
          "Closes the current part and goes on in the next one. None or an empty name keeps the base name; a "
          "different one becomes the base name, numbered from 0.")
      .def("setMaxFileSize", &FileWriter::setMaxFileSize, py::call_guard<py::gil_scoped_release>(),
           py::arg("max_file_size"),
           "Bytes after which the next block opens a new part; negative means no limit. 1 GiB by default.")
      .def("getMaxFileSize", &FileWriter::getMaxFileSize, py::call_guard<py::gil_scoped_release>())
      .def("getTotalEvents", &FileWriter::getTotalEvents, py::call_guard<py::gil_scoped_release>(),
           "Records written to all parts since construction: tags and break marks.")
      .def("getTotalSize", &FileWriter::getTotalSize, py::call_guard<py::gil_scoped_release>(),
           "Bytes written to all parts since construction, headers included.")
      .def("setMarker", &FileWriter::setMarker, py::call_guard<py::gil_scoped_release>(), py::arg("marker"),
           "Stores a marker text in the current part; does nothing unless the writer runs.");

  py::class_<FileReader>(m, "FileReader",
                         "Reads .ctbin recordings without a tagger: each recording through its numbered "
                         "parts, the recordings one after the other.\n\n"
                         "Tags come back as recorded: TimeTag, MissedEvents, Error and OverflowBegin/End. No "
                         "tag marks the step to the next recording, where the times begin anew. A part or "
                         "block that can't be read is logged and skipped. Raises RuntimeError for an empty "
                         "list and when the first file of a recording is missing; every recording is checked "
                         "before any is read. Use one FileReader from one thread at a time.")
      .def(py::init([](const fs::path &filename) { return new FileReader(filename.string()); }), py::arg("filename"))
      .def(py::init([](const std::vector<fs::path> &filenames) {
             std::vector<std::string> names;
             for (const fs::path &name : filenames)
               names.push_back(name.string());
             return new FileReader(names);
           }),
           py::arg("filenames"))
      .def("hasData", &FileReader::hasData,
           "True until the last recording is exhausted; one more getData may come back empty.")
      .def("getData", &FileReader::getData, py::call_guard<py::gil_scoped_release>(), py::arg("n_events") = 1000000,
           "Up to n_events tags as a TimeTagStreamBuffer. Its t_start is the time of the last tag of the "
           "previous read (the beginning of the first block for the first read), its t_get_data the time of "
           "its own last tag, ps.")
      .def(
          "getDataRaw",
          [](FileReader &reader) {
            std::vector<Tag> tags;
            {
              py::gil_scoped_release release;
              reader.getDataRaw(tags);
            }
            py::array out(tagDtype(), static_cast<py::ssize_t>(tags.size()));
            if (!tags.empty())
              std::memcpy(out.mutable_data(), tags.data(), tags.size() * sizeof(Tag));
            return out;
          },
          "The next block as a numpy structured array of the 16-byte tag records (fields type, "
          "missed_events, channel, time in ps). Empty at the end and at the step to another recording.")
      .def("getConfiguration", &FileReader::getConfiguration, "Configuration text of the part being read.")
      .def("getLastMarker", &FileReader::getLastMarker,
           "Marker text of the part being read; reading runs one block ahead.");

  py::class_<Dump, IteratorBase>(m, "Dump",
                                 "Deprecated: appends the raw 16-byte tag records of the stream to one file, "
                                 "without header, compression or splitting. Use FileWriter instead.\n\n"
                                 "With a channel list, TimeTags of other channels are left out; every other "
                                 "tag is written. Every start, and a clear while running, truncates the file. "
                                 "max_tags < 0 means no limit. Errors opening or writing the file are not "
                                 "reported. The records read back with numpy.fromfile and the dtype of "
                                 "FileReader.getDataRaw.")
      .def(
          py::init([](TaggerHandle &tagger, const fs::path &filename, std::int64_t max_tags, const Channels &channels) {
            return new Dump(tagger.get(), filename.string(), max_tags, channels);
          }),
          py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("filename"), py::arg("max_tags"),
          py::arg("channels") = Channels{});
}

void bindGroup(py::module_ &m) {
  py::class_<SynchronizedMeasurements>(
      m, "SynchronizedMeasurements",
      "Starts, stops and clears a group of measurements at the same point of the stream. Measurements built "
      "on getTagger() join the group and stay stopped until the group's start or startFor.\n\n"
      "clear, start, startFor and stop act on every member during the next pass of the stream and return "
      "when all have acted; an exception of a member comes back as RuntimeError. Deleting the group doesn't "
      "stop its members.")
      .def(py::init([](TaggerHandle &tagger) { return new SynchronizedMeasurements(tagger.get()); }),
           py::keep_alive<1, 2>(), py::arg("tagger"))
      .def(
          "getTagger",
          [](SynchronizedMeasurements &group) { return new TaggerHandle(group.getTagger(), /*owned=*/false); },
          py::keep_alive<0, 1>(), py::return_value_policy::take_ownership,
          "The tagger to build members on; it keeps the group alive.")
      .def("registerMeasurement", &SynchronizedMeasurements::registerMeasurement, py::arg("measurement"),
           "Adds a measurement built on the real tagger; it keeps its state.")
      .def("unregisterMeasurement", &SynchronizedMeasurements::unregisterMeasurement, py::arg("measurement"),
           "Removes a member; it carries on as it is.")
      .def("clear", &SynchronizedMeasurements::clear, py::call_guard<py::gil_scoped_release>())
      .def("start", &SynchronizedMeasurements::start, py::call_guard<py::gil_scoped_release>())
      .def("stop", &SynchronizedMeasurements::stop, py::call_guard<py::gil_scoped_release>())
      .def("startFor", &SynchronizedMeasurements::startFor, py::call_guard<py::gil_scoped_release>(),
           py::arg("capture_duration"), py::arg("clear") = true,
           "Starts every member for capture_duration ps of stream time, cleared first unless clear is False.")
      .def("isRunning", &SynchronizedMeasurements::isRunning, py::call_guard<py::gil_scoped_release>(),
           "True if any member runs.");
}

} // namespace

void bindStorage(py::module_ &m) {
  bindBuffer(m);
  bindRawAccess(m);
  bindFiles(m);
  bindGroup(m);
}

} // namespace chronotick::python
