#include "stack/kept_send_handle.h"

#include <utility>

namespace goosestack {

KeptSendHandle::KeptSendHandle(const SendRules& rules, std::shared_ptr<SendHandleSource> source)
    : rules_(rules), source_(std::move(source)) {}

GooseResult<void> KeptSendHandle::ensureHandle(const std::string& interface) {
  if (handle_ && openedInterface_ == interface && handle_->isOn(interface)) return {};
  // One that has lost its interface keeps the name, so that restore() may find it again.
  if (openedInterface_ == interface) {
    lose();
  } else {
    close();
  }
  auto opened = source_->openSendHandle(interface);
  if (!opened) return opened.error();
  const auto mac = source_->macAddressBytes(interface);
  if (!mac) return GooseError::sendFailed(rules_.missingMacText(interface));
  handle_ = std::move(*opened);
  openedInterface_ = interface;
  srcMac_ = *mac;
  return {};
}

void KeptSendHandle::restore() {
  if (openedInterface_.empty()) return;
  const std::string interface = openedInterface_;
  (void)ensureHandle(interface);
}

GooseResult<void> KeptSendHandle::send(ByteView frame, std::uint8_t priority) {
  using Status = SendOutcome::Status;
  if (!handle_) return GooseError::notRunning();
  if (priority_ != priority) {
    handle_->setPriority(priority);
    priority_ = priority;
  }
  SendOutcome outcome = handle_->sendPacket(frame);
  if (outcome.status == Status::failed && rules_.triesInject) outcome = handle_->inject(frame);
  if (outcome.status == Status::sent) return {};
  if (outcome.status == Status::interfaceGone) lose();
  return GooseError::sendFailed(outcome.text.empty() ? rules_.unknownErrorText
                                                     : std::move(outcome.text));
}

void KeptSendHandle::close() {
  lose();
  openedInterface_.clear();
}

void KeptSendHandle::lose() {
  handle_.reset();
  priority_.reset();
}

}  // namespace goosestack
