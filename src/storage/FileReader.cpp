#include <chronotick/FileReader.h>

#include "engine/Log.h"
#include "storage/TagFileReader.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <utility>

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

bool FileReader::openPart(const std::string &name) {
  current.reset();
  current_name = name;
  try {
    current = std::make_unique<TagFileReader>(name, false);
    return true;
  } catch (...) {
    CT_ERROR("File '%s' could not be read: %s. Reading goes on after it.", name.c_str(),
             currentExceptionText().c_str());
    return false;
  }
}

bool FileReader::decodeCurrent(std::vector<Tag> &tags, std::int64_t begin_time) {
  std::int64_t ignored_overflows = 0;
  try {
    return current->decodeBlock(tags, begin_time, ignored_overflows);
  } catch (...) {
    // Out of memory on a block, say: this part ends, what was read stays.
    CT_ERROR("A block of '%s' could not be read: %s. The rest of this file is skipped.", current_name.c_str(),
             currentExceptionText().c_str());
    tags.clear();
    current->stopReading();
    return false;
  }
}

bool FileReader::openNextFile() {
  // A recording whose first file can't be read is passed over.
  while (list_position < filenames.size()) {
    part_index = 0;
    base_name = filenames[list_position++];
    if (openPart(ctbin::partName(base_name, part_index++))) {
      file_id = current->getFileId();
      return true;
    }
  }
  return false;
}

bool FileReader::hasData() {
  return !finished;
}

bool FileReader::getDataRaw(std::vector<Tag> &tag_buffer) {
  tag_buffer.clear();
  if (finished)
    return true;
  while (tag_buffer.empty()) {
    std::int64_t begin_time, end_time;
    if (current && current->getBlockSpan(begin_time, end_time)) {
      decodeCurrent(tag_buffer, begin_time);
      if (last_time == -1)
        last_time = begin_time;
      if (finished)
        return true;
      continue;
    }
    tag_buffer.clear();
    // The next part of this recording; after a part that couldn't be read at
    // all, the next recording.
    if (current) {
      const std::string name = ctbin::partName(base_name, part_index++);
      if (fileExists(name) && openPart(name)) {
        if (current->getFileId() != file_id) {
          CT_ERROR("File '%s' matches the naming schema, but was not written in the same FileWriter. Skipped.",
                   name.c_str());
          return false;
        }
        continue;
      }
    }
    if (!openNextFile()) {
      finished = true;
      return false;
    }
  }
  return true;
}

TimeTagStreamBuffer FileReader::getData(std::uint64_t n_events) {
  TagColumns columns;
  // Room for what is decoded already; a large n_events grows the columns as
  // tags come instead of claiming all its memory up front.
  columns.reserve(std::size_t(std::min<std::uint64_t>(n_events, tag_buffer.size() - buffer_position)));
  while (!finished && columns.size() < n_events) {
    const std::size_t available = tag_buffer.size() - buffer_position;
    const std::size_t take = std::size_t(std::min<std::uint64_t>(n_events - columns.size(), available));
    for (std::size_t i = 0; i < take; ++i)
      columns.push(tag_buffer[buffer_position + i]);
    // An index instead of erasing from the front: what is left stays in place.
    buffer_position += take;
    if (buffer_position == tag_buffer.size()) {
      buffer_position = 0;
      if (!getDataRaw(tag_buffer))
        break;
    }
  }
  const std::int64_t t_start = last_time;
  if (columns.size() > 0)
    last_time = columns.timestamps.back();
  return TimeTagStreamBuffer(std::move(columns), t_start, last_time);
}

std::string FileReader::getConfiguration() {
  return current ? current->getConfiguration() : std::string();
}

std::string FileReader::getLastMarker() {
  return current ? current->getLastMarker() : std::string();
}

} // namespace chronotick
