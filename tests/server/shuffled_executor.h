// An executor that runs what it is given in the order that a test draws by lot.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/execution.hpp>
#include <boost/asio/execution_context.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

namespace tarnlink::test {

/// Whatever must wait for something outside passes through here, and takes as long as the lot
/// wants. Safe from any thread.
class Shuffle : public boost::asio::execution_context {
 public:
  struct Executor {
    Shuffle* owner;

    boost::asio::execution_context& query(boost::asio::execution::context_t) const noexcept {
      return *owner;
    }
    static constexpr boost::asio::execution::blocking_t::never_t query(
        boost::asio::execution::blocking_t) noexcept {
      return boost::asio::execution::blocking.never;
    }
    void execute(auto&& task) const { owner->add(std::forward<decltype(task)>(task)); }
    bool operator==(const Executor& other) const noexcept { return owner == other.owner; }
    bool operator!=(const Executor& other) const noexcept { return owner != other.owner; }
  };

  ~Shuffle() {
    shutdown();
    destroy();
  }
  boost::asio::any_io_executor executor() { return Executor{this}; }

  /// Runs one of the waiting tasks. False when there is none.
  bool runOne(std::uint64_t lot) {
    std::function<void()> task;
    {
      const std::lock_guard hold(lock_);
      if (tasks_.empty()) return false;
      std::swap(tasks_[lot % tasks_.size()], tasks_.back());
      task = std::move(tasks_.back());
      tasks_.pop_back();
    }
    task();
    return true;
  }

 private:
  template <class Task>
  void add(Task&& task) {
    auto shared = std::make_shared<std::decay_t<Task>>(std::forward<Task>(task));
    const std::lock_guard hold(lock_);
    tasks_.push_back([shared] { std::move (*shared)(); });
  }

  std::mutex lock_;
  std::vector<std::function<void()>> tasks_;
};

}  // namespace tarnlink::test
