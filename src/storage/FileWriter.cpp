#include <chronotick/ChronotickBase.h>
#include <chronotick/FileWriter.h>

#include "storage/ChronotickFileIO.h"

#include <exception>
#include <random>
#include <stdexcept>

namespace chronotick {

FileWriter::FileWriter(ChronotickBase *tagger, const std::string &filename, const std::vector<std::int32_t> &channels)
    : IteratorBase(tagger), base_name(filename), max_file_size(0x40000000), closed_events(0), closed_bytes(0),
      next_part_index(0), file_id{} {
  if (channels.size() > ctbin::MAX_CHANNEL_CODE)
    throw std::runtime_error("Too many channels. This format does not support more than 250 channels.");
  if (channels.empty())
    throw std::runtime_error("FileWriter is called without any channels. This would result in an empty file.");
  for (std::int32_t channel : channels) {
    if (tagger->isUnusedChannel(channel))
      continue;
    this->channels.emplace_back(channel, tagger->getInvertedChannel(channel));
    registerChannel(channel);
  }
  std::random_device device;
  for (auto &word : file_id)
    word = device();
  clear();
  finishInitialization();
}

FileWriter::~FileWriter() {
  stop();
  std::shared_ptr<TagFileWriter> last;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    last.swap(current);
  }
  // `last` closes its part here, outside the part mutex.
}

void FileWriter::openPart() {
  // A part gets its whole prelude before it becomes current, so that a block
  // in flight never lands ahead of the configuration or the channel map.
  auto part = std::make_shared<TagFileWriter>(base_name, next_part_index++, file_id);
  part->writeConfiguration(tagger ? tagger->getConfiguration() : std::string());
  part->writeChannelList(channels);
  if (current) // a rotation inside an overflow stretch must not turn its missed events into time tags
    part->continueOverflow(current->inOverflow());
  std::shared_ptr<TagFileWriter> previous;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    if (current) {
      closed_events += current->getEvents();
      closed_bytes += current->getBytes();
    }
    previous = std::move(current);
    current = std::move(part);
  }
  // `previous` writes BLOCK_END when its last in-flight block lets go of it.
}

void FileWriter::on_start() {
  openPart();
  // Part 0 holds the prelude only; the tags start in part 1.
  if (next_part_index == 1)
    openPart();
}

void FileWriter::on_stop() {
  std::shared_ptr<TagFileWriter> last;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    if (current) {
      closed_events += current->getEvents();
      closed_bytes += current->getBytes();
    }
    last.swap(current);
  }
}

void FileWriter::on_close() {
  std::lock_guard<std::mutex> guard(part_mutex);
  if (current) {
    closed_events += current->getEvents();
    closed_bytes += current->getBytes();
  }
}

void FileWriter::clear_impl() {
  if (current) // open exactly while running
    on_start();
}

void FileWriter::split(const std::string &new_filename) {
  auto lock = getLock();
  if (!new_filename.empty() && new_filename != base_name) {
    base_name = new_filename;
    next_part_index = 0;
  }
  if (current)
    on_start();
}

void FileWriter::setMaxFileSize(std::int64_t max_file_size) {
  auto lock = getLock();
  this->max_file_size = max_file_size;
}

std::int64_t FileWriter::getMaxFileSize() {
  auto lock = getLock();
  return max_file_size;
}

std::int64_t FileWriter::getTotalEvents() {
  auto lock = getLock();
  std::lock_guard<std::mutex> guard(part_mutex);
  return closed_events + (current ? current->getEvents() : 0);
}

std::int64_t FileWriter::getTotalSize() {
  auto lock = getLock();
  std::lock_guard<std::mutex> guard(part_mutex);
  return closed_bytes + (current ? current->getBytes() : 0);
}

void FileWriter::setMarker(const std::string &marker) {
  auto lock = getLock();
  std::lock_guard<std::mutex> guard(part_mutex);
  if (current)
    current->writeMarker(marker);
}

bool FileWriter::next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  OrderedPipeline pipeline;
  if (!current)
    return false;
  std::uint64_t part_bytes;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    part_bytes = std::uint64_t(current->getBytes());
  }
  if (part_bytes > std::uint64_t(max_file_size))
    on_start();

  // The block belongs to the pool of the part that packed it; holding that
  // part keeps the pool alive across a rotation until the block is recycled.
  std::shared_ptr<TagFileWriter> packer = current;
  ctbin::TagBlock *block = packer->pack(tags, begin_time, end_time);
  OrderedBarrier::OrderInstance order = parallelize(pipeline);
  unlock();

  std::exception_ptr error;
  try {
    packer->seal(block);
  } catch (...) {
    error = std::current_exception();
  }
  order.sync();
  if (!error) {
    try {
      std::lock_guard<std::mutex> guard(part_mutex);
      // The part current at this block's turn; after a stop, the one it was packed for.
      TagFileWriter *target = current ? current.get() : packer.get();
      target->write(block);
    } catch (...) {
      error = std::current_exception();
    }
  }

  lock();
  order.release();
  packer->recycle(block);
  packer.reset();
  if (error)
    std::rethrow_exception(error);
  return false;
}

} // namespace chronotick
