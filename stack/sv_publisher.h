// Sends Sampled Values payloads (IEC 61850-9-2).
#pragma once

#include <atomic>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/strand.hpp>
#include <cstdint>
#include <memory>

#include "goosestack/publishing.h"
#include "stack/kept_send_handle.h"

namespace goosestack {

/// An actor on its own strand of the executor given. Make it with std::make_shared.
class SvPublisher final : public SvPublishing, public std::enable_shared_from_this<SvPublisher> {
 public:
  SvPublisher(const boost::asio::any_io_executor& executor,
              std::shared_ptr<SendHandleSource> handles);

  boost::asio::awaitable<GooseResult<void>> publishApdu(Bytes pdu, SvPublishConfig config) override;
  boost::asio::awaitable<void> stop() override;

  /// Frames sent since construction. Any thread.
  std::int64_t stats() const { return publishedCount_; }

 private:
  GooseResult<void> send(ByteView pdu, const SvPublishConfig& config);

  boost::asio::strand<boost::asio::any_io_executor> strand_;
  KeptSendHandle pcapHandle_;
  std::atomic<std::int64_t> publishedCount_{0};
};

}  // namespace goosestack
