#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace chronotick {

class ChronotickBase;
class TagFileWriter;

// Records the tags of the given channels into a .ctbin recording. The file
// that the client names holds only the header, configuration and channel
// map; the tags go to the numbered parts "name.1.ctbin", "name.2.ctbin", ...
//
// A disk fault while recording (a failed write, a part removed or replaced
// under the writer, a part that can't be opened at a rotation, split or
// clear) logs one error and stops the writer; the parts keep what reached
// them, a failed part up to its last whole block. A later start() goes on in
// a new part numbered after the last part still on disk, so that removed
// parts leave no gap. Only the constructor and start() throw, when they
// can't begin the recording.
//
// Events handled: TimeTag on a recorded channel: written, except between
// OverflowBegin and OverflowEnd, where it is dropped. MissedEvents on a
// recorded channel: written inside an overflow stretch, dropped outside one.
// Error, OverflowBegin and OverflowEnd: always written. A tag earlier than the
// one written before it is dropped, since times never run backwards in a file.
// Channels that the tagger reports unused are left out silently; each
// recorded channel goes into the channel map with its inverted channel.
// Each start and each clear while running begins a new part.
// Arguments: the constructor throws std::runtime_error("Too many channels.
// This format does not support more than 250 channels.") for more than 250
// channels, std::runtime_error("FileWriter is called without any channels.
// This would result in an empty file.") for none, and, like start(),
// std::runtime_error("FileWriter: Error on opening the file '<filename>' for
// writing.") when a part can't be created.
// Thread safety: every public function may be called from any thread while
// the stream runs; they take the measurement's lock.
class CHRONOTICK_API FileWriter : public IteratorBase {
public:
  FileWriter(ChronotickBase *tagger, const std::string &filename, const std::vector<std::int32_t> &channels);
  ~FileWriter() override;

  // Closes the current part and goes on in the next one. An empty name keeps
  // the base name; a different one becomes the base name, numbered from 0.
  void split(const std::string &new_filename = "");
  // Bytes after which the next block opens a new part; read as unsigned, so
  // a negative size means no limit. 1 GiB (1073741824 bytes) by default.
  void setMaxFileSize(std::int64_t max_file_size);
  std::int64_t getMaxFileSize();
  // Records written to all parts since construction: tags and break marks.
  // After a fault, what was handed to the parts until then.
  std::int64_t getTotalEvents();
  // Bytes written to all parts since construction, headers included.
  std::int64_t getTotalSize();
  // Stores `marker` in the current part; the writer must be running (else
  // nothing happens). A failed write is a disk fault, as above.
  void setMarker(const std::string &marker);

protected:
  void clear_impl() override;
  void on_start() override;
  void on_stop() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  void openPart();
  bool openParts();
  void closeCurrent();
  void release(std::shared_ptr<TagFileWriter> &part);
  void fault(const std::string &message);
  void settle();

  std::string base_name;
  std::int64_t max_file_size;
  std::int64_t closed_events;
  std::int64_t closed_bytes;
  std::uint32_t next_part_index;
  std::array<std::uint32_t, 4> file_id;
  // Shared so that a block still in flight during a rotation keeps the pool
  // of the part it was packed in alive until it is recycled.
  std::shared_ptr<TagFileWriter> current;
  std::vector<std::pair<std::int32_t, std::int32_t>> channels;
  // Orders block writes, markers and part swaps against each other.
  std::mutex part_mutex;
  // Under part_mutex: the first fault of this run, and the run a block
  // belongs to, so that blocks still in flight after a fault write nothing.
  bool faulted = false;
  std::string fault_message;
  std::uint64_t run = 0;
  // Under the iterator's mutex.
  bool reported = false;
  int in_flight = 0; // blocks between packing and their return
  std::condition_variable idle;
};

} // namespace chronotick
