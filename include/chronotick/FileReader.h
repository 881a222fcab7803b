#pragma once

#include <chronotick/Export.h>
#include <chronotick/Tag.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace chronotick {

class TagFileReader;

// Reads .ctbin recordings without a tagger: each recording through its
// numbered parts, the recordings one after the other.
class CHRONOTICK_API FileReader {
public:
  explicit FileReader(const std::string &filename);
  explicit FileReader(const std::vector<std::string> &filenames);
  ~FileReader();
  FileReader(const FileReader &) = delete;
  FileReader &operator=(const FileReader &) = delete;

  // True until the last recording is exhausted; one more getData may come back empty.
  bool hasData();
  // Up to `n_events` tags as columns.
  TimeTagStreamBuffer getData(std::uint64_t n_events = 1000000);
  // Replaces `tag_buffer` with the next block. False only on the call that
  // runs into the end, or that meets a part of another recording.
  bool getDataRaw(std::vector<Tag> &tag_buffer);
  // Configuration text of the part being read.
  std::string getConfiguration();
  // Marker text of the part being read; reading runs one block ahead.
  std::string getLastMarker();

private:
  bool openNextFile();
  // Makes `name` the current part; false, logged, if it can't be read.
  bool openPart(const std::string &name);
  // Decodes the current part's block; a failure ends the part, logged.
  bool decodeCurrent(std::vector<Tag> &tags, std::int64_t begin_time);

  std::vector<std::string> filenames;
  std::size_t list_position;
  std::string base_name;
  std::string current_name; // the part being read
  std::unique_ptr<TagFileReader> current;
  std::vector<Tag> tag_buffer;
  std::size_t buffer_position; // tags before this index were handed out
  std::int64_t last_time;
  std::uint32_t part_index;
  std::array<std::uint32_t, 4> file_id;
  bool finished;
};

} // namespace chronotick
