#include "websocket/inbox.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <utility>

namespace tarnlink {
namespace {

namespace asio = boost::asio;

constexpr auto kWait = asio::as_tuple(asio::use_awaitable);

// A message that is served for longer than this does not keep us from hearing its sender.
constexpr std::chrono::milliseconds kServing{200};
// Further messages are read ahead meanwhile until they make up so much. Octets.
constexpr std::size_t kReadAhead = 64 * 1024;

}  // namespace

Inbox::Inbox(const asio::any_io_executor& strand, const WriteQueue& queue,
             std::size_t unsentAnswers)
    : queue_(queue),
      unsentAnswers_(unsentAnswers),
      wake_(strand),
      arrived_(strand, Clock::time_point::max()) {}

asio::awaitable<Inbox::Received> Inbox::receive() {
  isAwaited_ = true;
  wake_.cancel();
  while (!end_ && messages_.empty()) co_await arrived_.async_wait(kWait);
  isAwaited_ = false;
  if (end_) co_return end_;
  auto message = std::move(messages_.front());
  messages_.pop_front();
  octets_ -= message.data.size();
  servedLong_ = Clock::now() + kServing;
  co_return message;
}

bool Inbox::mayRead() const {
  if (queue_.unsentAnswers() > unsentAnswers_) return false;
  if (isAwaited_) return messages_.empty();
  return Clock::now() >= servedLong_ && octets_ < kReadAhead;
}

asio::awaitable<bool> Inbox::wantsMessage() {
  while (!end_ && !mayRead()) {
    wake_.expires_after(kServing);
    co_await wake_.async_wait(kWait);
  }
  isReading_ = true;
  co_return !end_;
}

void Inbox::put(WebSocketMessage message) {
  isReading_ = false;
  octets_ += message.data.size();
  messages_.push_back(std::move(message));
  arrived_.cancel();
}

void Inbox::end(boost::system::error_code error) {
  if (!end_) end_ = error;
  wake_.cancel();
  arrived_.cancel();
}

}  // namespace tarnlink
