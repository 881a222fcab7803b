#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>

#include <array>
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
class CHRONOTICK_API FileWriter : public IteratorBase {
public:
  FileWriter(ChronotickBase *tagger, const std::string &filename, const std::vector<std::int32_t> &channels);
  ~FileWriter() override;

  // Closes the current part and goes on in the next one. An empty name keeps
  // the base name; a different one becomes the base name, numbered from 0.
  void split(const std::string &new_filename = "");
  // Bytes after which the next block opens a new part; read as unsigned.
  void setMaxFileSize(std::int64_t max_file_size);
  std::int64_t getMaxFileSize();
  std::int64_t getTotalEvents();
  std::int64_t getTotalSize();
  // Stores `marker` in the current part; the writer must be running.
  void setMarker(const std::string &marker);

protected:
  void clear_impl() override;
  void on_start() override;
  void on_stop() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  void on_close();
  void openPart();

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
};

} // namespace chronotick
