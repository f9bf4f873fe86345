#include "app/host/vlan_interface_helper.h"

#include <utility>

#include "stack/interface_name.h"
#include "stack/utf8.h"

namespace tarnlink {
namespace {

constexpr int kCodeNotCreated = 1;
constexpr int kCodeInvalidName = 2;

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out + '"';
}

std::string_view trimmed(std::string_view text) {
  constexpr const char* kSpace = " \t\r\n";
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

VlanError notCreated(const std::string& name, std::string_view reason) {
  std::string text = "vlan-Interface " + name + " konnte nicht erstellt werden";
  if (!reason.empty()) text.append(": ").append(reason);
  return {kCodeNotCreated, std::move(text)};
}

bool isCancelled(const boost::system::error_code& error) {
  return error == boost::system::errc::operation_canceled;
}

VlanError cancelledError() {
  return {kAdminCancelled, "Benutzer hat abgebrochen"};
}

}  // namespace

VlanInterfaceHelper::VlanInterfaceHelper(std::unique_ptr<ProcessRunner> runner,
                                         const VlanDialect& dialect, AdminRights rights)
    : runner_(std::move(runner)), dialect_(dialect), rights_(rights) {}

bool VlanInterfaceHelper::isValidInterfaceName(std::string_view name) {
  return tarnlink::isValidInterfaceName(name);
}

void VlanInterfaceHelper::cancel() {
  runner_->cancel();
}

VlanResult<std::string> VlanInterfaceHelper::ensureVlanInterface(const std::string& parent,
                                                                 std::uint16_t vid) {
  if (!isValidInterfaceName(parent)) {
    return VlanError{kCodeInvalidName, "Ungültiger Interface-Name: " + quoted(parent)};
  }
  const VlanInfo wanted{vid, parent};
  const std::string name = "vlan" + std::to_string(vid);
  const auto isThere = exists(name);
  if (!isThere) return isThere.error();
  if (*isThere) {
    const auto link = readBack(name);
    if (!link) return link.error();
    if (link->vlan == wanted) return name;
    if (auto removed = removeOther(name, *link); !removed) return removed.error();
  }
  return create(name, wanted);
}

// A tool that cannot be started finds no link.
VlanResult<bool> VlanInterfaceHelper::exists(const std::string& name) {
  const auto outcome = runner_->run(dialect_.probe(name));
  if (!outcome && isCancelled(outcome.error())) return cancelledError();
  return {boost::system::in_place_value, outcome && outcome->succeeded()};
}

VlanResult<ExistingLink> VlanInterfaceHelper::readBack(const std::string& name) {
  const auto outcome = runner_->run(dialect_.readBack(name));
  if (!outcome && isCancelled(outcome.error())) return cancelledError();
  return dialect_.parseReadBack(outcome ? std::string_view(outcome->out) : std::string_view());
}

VlanResult<void> VlanInterfaceHelper::runAsAdmin(const std::string& commandLine) {
  auto done = tarnlink::runAsAdmin(*runner_, rights_, commandLine);
  if (done) return {};
  AdminError error = done.error();
  const auto* octets = reinterpret_cast<const std::uint8_t*>(error.text.data());
  const bool isText = isValidUtf8({octets, error.text.size()});
  return VlanError{error.code, isText ? std::move(error.text) : "unknown"};
}

VlanResult<void> VlanInterfaceHelper::removeOther(const std::string& name,
                                                  const ExistingLink& link) {
  if (!link.keptBecause.empty()) return notCreated(name, link.keptBecause);
  return runAsAdmin(dialect_.destroy(name));
}

VlanResult<std::string> VlanInterfaceHelper::create(const std::string& name, const VlanInfo& link) {
  const auto made = runAsAdmin(dialect_.create(name, link));
  // A prompt tool's failure is passed on as it is. Where nobody is asked the status is that of the
  // last step alone, so whether the link is there decides, and the tool's words say why not.
  const bool mayBeThere =
      rights_ == AdminRights::held && !made && made.error().code != kAdminCancelled;
  if (!made && !mayBeThere) return made.error();
  const auto isThere = exists(name);
  if (!isThere) return isThere.error();
  if (!*isThere) {
    return notCreated(name, made ? std::string_view() : trimmed(made.error().description));
  }
  if (!made) return made.error();  // There, but not up.
  return name;
}

}  // namespace tarnlink
