#include "platform/avahi_thread.h"

#include <avahi-common/error.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

namespace tarnlink {

AvahiLoop::AvahiLoop()
    : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), poll_(::avahi_simple_poll_new()) {
  if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
  if (!poll_) throw std::bad_alloc();
  // Never read, so that a request which comes between two iterations ends the next one too.
  api()->watch_new(
      api(), wake_.get(), AVAHI_WATCH_IN, [](AvahiWatch*, int, AvahiWatchEvent, void*) {}, nullptr);
}

const AvahiPoll* AvahiLoop::api() const {
  return ::avahi_simple_poll_get(poll_.get());
}

void AvahiLoop::run() {
  while (!isQuit_ && !isAskedToStop_) {
    if (::avahi_simple_poll_iterate(poll_.get(), -1) != 0) break;
  }
  isQuit_ = false;
}

void AvahiLoop::askToStop() {
  isAskedToStop_ = true;
  ::eventfd_write(wake_.get(), 1);
}

AvahiThread::AvahiThread(std::function<void(AvahiLoop&)> work)
    : loop_(std::make_shared<AvahiLoop>()) {
  std::packaged_task<void()> task([loop = loop_, work = std::move(work)] { work(*loop); });
  ended_ = task.get_future();
  thread_ = std::thread(std::move(task));
}

void AvahiThread::waitUntil(std::chrono::steady_clock::time_point deadline) const {
  ended_.wait_until(deadline);
}

bool AvahiThread::stop(std::chrono::milliseconds patience) {
  if (!thread_.joinable()) return false;
  loop_->askToStop();
  const bool hasEnded = ended_.wait_for(patience) == std::future_status::ready;
  hasEnded ? thread_.join() : thread_.detach();
  return hasEnded;
}

DnsSdError avahiError(int code) {
  return {code, ::avahi_strerror(code)};
}

}  // namespace tarnlink
