#include <chronotick/ChronotickBase.h>
#include <chronotick/FileWriter.h>

#include "engine/Log.h"
#include "storage/TagFileWriter.h"

#include <filesystem>
#include <random>
#include <stdexcept>
#include <system_error>

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
  // A run that a fault ended may still have blocks on their way out.
  auto lock = getLock();
  idle.wait(lock, [this] { return in_flight == 0; });
  release(current);
}

// Every copy of a part is made and dropped under the iterator's mutex, so the
// count is exact here: the last holder closes the file.
void FileWriter::release(std::shared_ptr<TagFileWriter> &part) {
  std::shared_ptr<TagFileWriter> held = std::move(part);
  if (!held || held.use_count() != 1)
    return;
  try {
    held->close();
  } catch (const std::exception &e) {
    fault(e.what());
  }
}

void FileWriter::fault(const std::string &message) {
  std::lock_guard<std::mutex> guard(part_mutex);
  if (!faulted) {
    faulted = true;
    fault_message = message + " Recording stopped.";
  }
}

// Under the iterator's mutex: a fault ends the run, with one message however
// many blocks were in flight.
void FileWriter::settle() {
  std::string message;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    if (!faulted || reported)
      return;
    message = fault_message;
  }
  reported = true;
  CT_ERROR("%s", message.c_str());
  stopWithinNext();
}

void FileWriter::openPart() {
  // A part gets its whole prelude before it becomes current, so that a block
  // in flight never lands ahead of the configuration or the channel map.
  auto part = std::make_shared<TagFileWriter>(base_name, next_part_index, file_id);
  part->writeConfiguration(tagger ? tagger->getConfiguration() : std::string());
  part->writeChannelList(channels);
  ++next_part_index;
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
  // Closed now, or by the last block in flight that was packed in it.
  release(previous);
}

// Part 0 holds the prelude only; the tags start in part 1. False if a fault
// stopped the recording.
bool FileWriter::openParts() {
  try {
    openPart();
    if (next_part_index == 1)
      openPart();
  } catch (const std::exception &e) {
    fault(e.what());
  }
  settle();
  return current != nullptr;
}

void FileWriter::on_start() {
  const bool after_fault = reported;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    ++run;
    faulted = false;
    fault_message.clear();
  }
  reported = false;
  if (after_fault) {
    std::error_code ignored;
    while (next_part_index > 0 && !std::filesystem::exists(ctbin::partName(base_name, next_part_index - 1), ignored))
      --next_part_index;
  }
  // The client hears of a failed start from the exception alone.
  try {
    openPart();
    if (next_part_index == 1)
      openPart();
  } catch (...) {
    closeCurrent();
    throw;
  }
  std::string message;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    message = fault_message;
  }
  if (!message.empty()) { // part 0 could not be closed
    reported = true;
    closeCurrent();
    throw std::runtime_error(message);
  }
}

void FileWriter::closeCurrent() {
  std::shared_ptr<TagFileWriter> last;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    if (current) {
      closed_events += current->getEvents();
      closed_bytes += current->getBytes();
    }
    last.swap(current);
  }
  release(last);
}

void FileWriter::on_stop() {
  closeCurrent();
  settle(); // the last part's closing may fail too
}

void FileWriter::clear_impl() {
  if (current) // open exactly while running
    openParts();
}

void FileWriter::split(const std::string &new_filename) {
  auto lock = getLock();
  if (!new_filename.empty() && new_filename != base_name) {
    base_name = new_filename;
    next_part_index = 0;
  }
  if (current)
    openParts();
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
  std::string failure;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    if (!current || faulted)
      return;
    try {
      current->writeMarker(marker);
    } catch (const std::exception &e) {
      failure = e.what();
    }
  }
  if (!failure.empty()) {
    fault(failure);
    settle();
  }
}

bool FileWriter::next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  if (!current)
    return false;
  std::uint64_t part_bytes;
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    part_bytes = std::uint64_t(current->getBytes());
  }
  if (part_bytes > std::uint64_t(max_file_size) && !openParts())
    return false;

  // The block belongs to the pool of the part that packed it; holding that
  // part keeps the pool alive across a rotation until the block is recycled.
  std::shared_ptr<TagFileWriter> packer = current;
  ctbin::TagBlock *block = packer->pack(tags, begin_time, end_time);
  const std::uint64_t block_run = run;
  ++in_flight;
  OrderedPipeline pipeline;
  OrderedBarrier::OrderInstance order = parallelize(pipeline);
  unlock();

  // Nothing may leave between unlock() and lock(): failures are kept for settle().
  std::string failure;
  try {
    packer->seal(block);
  } catch (const std::exception &e) {
    failure = std::string("FileWriter: Error on preparing a block for the disk: ") + e.what() + ".";
  }
  order.sync();
  {
    std::lock_guard<std::mutex> guard(part_mutex);
    if (!faulted && run == block_run) { // after a fault, blocks still in flight write nothing
      if (failure.empty()) {
        // The part current at this block's turn; after a stop, the one it was packed for.
        TagFileWriter *target = current ? current.get() : packer.get();
        try {
          target->write(block);
        } catch (const std::exception &e) {
          failure = e.what();
        } catch (...) {
          failure = "FileWriter: Error on writing to the disk.";
        }
      }
      if (!failure.empty()) {
        faulted = true;
        fault_message = failure + " Recording stopped.";
      }
    }
  }

  lock();
  order.release();
  packer->recycle(block);
  release(packer);
  settle();
  if (--in_flight == 0)
    idle.notify_all();
  return false;
}

} // namespace chronotick
