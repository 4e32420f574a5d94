#include "base/executors.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

namespace qev::base {

SerialQueue::SerialQueue(asio::thread_pool& pool, std::string label)
    : strand_(asio::make_strand(pool.get_executor())), label_(std::move(label)) {}

void SerialQueue::post(Task task) {
  asio::post(strand_, std::move(task));
}

Executors::Executors(std::size_t threads) : pool_(threads) {}

Executors::~Executors() {
  stop();
}

void Executors::post(Task task) {
  if (stopped_) return;
  asio::post(pool_, std::move(task));
}

void Executors::postAfter(std::chrono::milliseconds delay, Task task) {
  if (stopped_) return;
  auto timer = std::make_shared<asio::steady_timer>(pool_, delay);
  timer->async_wait([timer, task = std::move(task)](const std::error_code& ec) {
    if (!ec) task();
  });
}

std::shared_ptr<SerialQueue> Executors::makeSerialQueue(std::string label) {
  return std::make_shared<SerialQueue>(pool_, std::move(label));
}

void Executors::stop() {
  if (stopped_.exchange(true)) return;
  pool_.stop();
  pool_.join();
}

}  // namespace qev::base
