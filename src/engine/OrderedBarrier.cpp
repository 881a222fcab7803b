#include <chronotick/OrderedBarrier.h>

namespace chronotick {

OrderedBarrier::OrderedBarrier() : next_ticket(0), released(0) {}

OrderedBarrier::OrderInstance OrderedBarrier::queue() {
  return OrderInstance(this, next_ticket.fetch_add(1));
}

void OrderedBarrier::waitUntilFinished() {
  std::unique_lock<std::mutex> lock(mutex);
  condition.wait(lock, [this] { return released == next_ticket.load(); });
}

void OrderedBarrier::obtain(std::uint64_t ticket) {
  std::unique_lock<std::mutex> lock(mutex);
  condition.wait(lock, [this, ticket] { return released == ticket; });
  lock.release(); // the holder keeps the mutex across its ordered work
}

void OrderedBarrier::release(std::uint64_t) {
  ++released;
  mutex.unlock();
  condition.notify_all();
}

OrderedBarrier::OrderInstance::OrderInstance() : barrier(nullptr), holding(false), ticket(0) {}

OrderedBarrier::OrderInstance::OrderInstance(OrderedBarrier *b, std::uint64_t t)
    : barrier(b), holding(false), ticket(t) {}

OrderedBarrier::OrderInstance::~OrderInstance() {
  release();
}

void OrderedBarrier::OrderInstance::sync() {
  if (barrier && !holding) {
    barrier->obtain(ticket);
    holding = true;
  }
}

void OrderedBarrier::OrderInstance::release() {
  if (holding) {
    holding = false;
    barrier->release(ticket);
  }
}

OrderedPipeline::OrderedPipeline() : position(0) {}

} // namespace chronotick
