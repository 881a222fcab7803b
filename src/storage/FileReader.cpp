#include <chronotick/FileReader.h>

#include "engine/Log.h"
#include "storage/ChronotickFileIO.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace chronotick {

namespace {
bool fileExists(const std::string &name) {
  return std::ifstream(name, std::ios::binary).is_open();
}
} // namespace

FileReader::FileReader(const std::string &filename) : FileReader(std::vector<std::string>{filename}) {}

FileReader::FileReader(const std::vector<std::string> &filenames)
    : filenames(filenames), list_position(0), buffer_position(0), last_time(-1), part_index(0), file_id{},
      finished(false) {
  if (filenames.empty())
    throw std::runtime_error("no file provided");
  // Every recording must exist before any is read.
  for (const std::string &name : filenames) {
    const std::string part = ctbin::partName(name, 0);
    if (!fileExists(part))
      throw std::runtime_error("FileReader could not open file '" + part + "'.");
  }
  openNextFile();
}

FileReader::~FileReader() = default;

bool FileReader::openNextFile() {
  if (list_position >= filenames.size())
    return false;
  part_index = 0;
  base_name = filenames[list_position++];
  const std::string name = ctbin::partName(base_name, part_index++);
  current = std::make_unique<TagFileReader>(name, false);
  file_id = current->getFileId();
  return true;
}

bool FileReader::hasData() {
  return !finished;
}

bool FileReader::getDataRaw(std::vector<Tag> &tag_buffer) {
  tag_buffer.clear();
  if (finished)
    return true;
  std::int64_t ignored_overflows = 0;
  while (tag_buffer.empty()) {
    std::int64_t begin_time, end_time;
    if (current && current->getBlockSpan(begin_time, end_time)) {
      current->decodeBlock(tag_buffer, begin_time, ignored_overflows);
      if (last_time == -1)
        last_time = begin_time;
      if (finished)
        return true;
      continue;
    }
    tag_buffer.clear();
    const std::string name = ctbin::partName(base_name, part_index++);
    if (fileExists(name)) {
      current = std::make_unique<TagFileReader>(name, false);
      if (current->getFileId() != file_id) {
        CT_ERROR("File '%s' matches the naming schema, but was not written in the same FileWriter. Skipped.",
                 name.c_str());
        return false;
      }
    } else if (!openNextFile()) {
      finished = true;
      return false;
    }
  }
  return true;
}

TimeTagStreamBuffer FileReader::getData(std::uint64_t n_events) {
  TimeTagStreamBuffer result;
  result.size = 0;
  result.has_overflows = false;
  result.tagChannels.reserve(n_events);
  result.tagTimestamps.reserve(n_events);
  result.tagMissedEvents.reserve(n_events);
  result.tagTypes.reserve(n_events);
  if (!finished) {
    while (true) {
      if (result.size >= n_events)
        break;
      const std::size_t available = tag_buffer.size() - buffer_position;
      const std::size_t take = std::size_t(std::min<std::uint64_t>(n_events - result.size, available));
      for (std::size_t i = 0; i < take; ++i) {
        const Tag &tag = tag_buffer[buffer_position + i];
        result.tagChannels.push_back(tag.channel);
        result.tagTimestamps.push_back(tag.time);
        result.tagMissedEvents.push_back(tag.missed_events);
        result.tagTypes.push_back(static_cast<std::uint8_t>(tag.type));
        if (tag.type != Tag::Type::TimeTag)
          result.has_overflows = true;
      }
      result.size += take;
      // An index instead of erasing from the front: what is left stays in place.
      buffer_position += take;
      if (buffer_position == tag_buffer.size()) {
        buffer_position = 0;
        if (!getDataRaw(tag_buffer))
          break;
      }
      if (finished)
        break;
    }
  }
  result.t_start = last_time;
  if (result.size > 0) {
    last_time = result.tagTimestamps.back();
    result.t_get_data = last_time;
  } else {
    result.t_get_data = last_time;
  }
  return result;
}

std::string FileReader::getConfiguration() {
  return current ? current->getConfiguration() : std::string();
}

std::string FileReader::getLastMarker() {
  return current ? current->getLastMarker() : std::string();
}

} // namespace chronotick
