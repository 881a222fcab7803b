#pragma once

#include <chronotick/Export.h>
#include <chronotick/Tag.h>
#include <chronotick/TimeTagStreamBuffer.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace chronotick {

class TagFileReader;

// Reads .ctbin recordings without a tagger: each recording through its
// numbered parts, the recordings one after the other.
//
// Events handled: the tags come back as recorded: TimeTag, MissedEvents (at
// the time of the tag before it), Error and OverflowBegin/End. No tag marks
// the step from one recording to the next, where the times begin anew. A part
// or block that can't be read is logged and skipped; the reading goes on.
// Arguments: the constructors throw std::runtime_error("no file provided") for
// an empty list, and std::runtime_error("FileReader could not open file
// '<name>'.") if the first file of a recording is missing; every recording is
// checked before any is read.
// Thread safety: none; use a FileReader from one thread at a time.
class CHRONOTICK_API FileReader {
public:
  explicit FileReader(const std::string &filename);
  explicit FileReader(const std::vector<std::string> &filenames);
  ~FileReader();
  FileReader(const FileReader &) = delete;
  FileReader &operator=(const FileReader &) = delete;

  // True until the last recording is exhausted; one more getData may come back empty.
  bool hasData();
  // Up to `n_events` tags as columns. The result's t_start is the time of the
  // last tag of the previous read (the beginning of the first block for the
  // first read), its t_get_data the time of its own last tag, in ps.
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
