#include "app/host/vlan_interface_helper.h"

#include <chrono>
#include <iomanip>
#include <sstream>
#include <utility>

#include "app/host/tool_text.h"
#include "goosestack/interface_name.h"

namespace tarnlink {
namespace {

constexpr int kCodeNotCreated = 1;
constexpr int kCodeInvalidName = 2;
constexpr const char* kUnreadable = "unknown";
// IEEE 802.1Q, table 9-2: 0 is no VLAN, 4095 is reserved.
constexpr std::uint16_t kFirstVlan = 1;
constexpr std::uint16_t kLastVlan = 4094;

std::string nameOf(std::uint16_t vid) {
  return "vlan" + std::to_string(vid);
}

// What tools write is meant for a terminal.
VlanError toVlanError(const std::string& name, const AdminError& error) {
  const bool isOurText = error.code == kAdminCancelled || error.code == kAdminUnanswered ||
                         error.code == kAdminUnavailable;
  return {error.code,
          isOurText || error.text == kUnreadable ? error.text : name + ": " + error.text};
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
  return {kAdminCancelled, cancelledByUser().text};
}

}  // namespace

VlanInterfaceHelper::VlanInterfaceHelper(std::unique_ptr<ProcessRunner> runner,
                                         const VlanDialect& dialect, const AdminPrompt& prompt)
    : runner_(std::move(runner)), dialect_(dialect), prompt_(prompt) {}

VlanResult<std::string> VlanInterfaceHelper::ensureVlanInterface(const std::string& parent,
                                                                 std::uint16_t vid) {
  if (!goosestack::isValidInterfaceName(parent)) {
    const auto quoted = (std::ostringstream() << std::quoted(parent)).str();
    return VlanError{kCodeInvalidName, "Ungültiger Interface-Name: " + quoted};
  }
  const std::string name = nameOf(vid);
  if (vid < kFirstVlan || vid > kLastVlan) return notCreated(name, "VLAN-IDs sind 1 bis 4094");
  if (parent == name) return notCreated(name, "es kann nicht auf sich selbst liegen");
  const VlanInfo wanted{vid, parent};
  const auto isThere = exists(name);
  if (!isThere) return isThere.error();
  if (*isThere) {
    const auto link = readBack(name);
    if (!link) return link.error();
    if (link->vlan == wanted) {
      if (link->lacks.empty()) return name;
      const auto done = change(name, dialect_.complete(name, *link));
      return done ? VlanResult<std::string>(name) : done.error();
    }
    if (!link->keptBecause.empty()) return notCreated(name, link->keptBecause);
  }
  if (dialect_.probesParent) {
    const auto hasParent = exists(parent);
    if (!hasParent) return hasParent.error();
    if (!*hasParent) return notCreated(name, "das Interface " + parent + " gibt es nicht");
  }
  if (*isThere) {
    if (auto removed = change(name, dialect_.destroy(name)); !removed) return removed.error();
  }
  return create(name, wanted);
}

std::optional<std::string> VlanInterfaceHelper::readyVlanInterface(const std::string& parent,
                                                                   std::uint16_t vid) {
  const std::string name = nameOf(vid);
  const auto link = readBack(name);
  if (!link || link->vlan != VlanInfo{vid, parent} || !link->lacks.empty()) return {};
  return name;
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

AdminResult VlanInterfaceHelper::runAsAdmin(const std::string& name,
                                            const std::string& commandLine) {
  if (prompt_.asksSomebody) {
    if (auto refusal = refusals_.standing(name, std::chrono::steady_clock::now())) return *refusal;
  }
  auto done = tarnlink::runAsAdmin(*runner_, prompt_, commandLine);
  if (done) return {};
  AdminError error = done.error();
  error.text = readableText(error.text, kUnreadable);
  if (prompt_.asksSomebody) refusals_.note(name, error, std::chrono::steady_clock::now());
  return error;
}

VlanResult<void> VlanInterfaceHelper::change(const std::string& name,
                                             const std::string& commandLine) {
  const auto done = runAsAdmin(name, commandLine);
  if (!done) return toVlanError(name, done.error());
  return {};
}

VlanResult<std::string> VlanInterfaceHelper::create(const std::string& name, const VlanInfo& link) {
  const auto made = runAsAdmin(name, dialect_.create(name, link));
  // A prompt tool's failure is passed on as it is. Where nobody is asked the status is that of the
  // last step alone, so whether the link is there decides, and the tool's words say why not.
  const bool mayBeThere = !prompt_.asksSomebody && !made && made.error().code != kAdminCancelled;
  if (!made && !mayBeThere) return toVlanError(name, made.error());
  const auto isThere = exists(name);
  if (!isThere) return isThere.error();
  if (!*isThere) return notCreated(name, made ? std::string() : made.error().text);
  if (!made) return toVlanError(name, made.error());  // There, but not up.
  return name;
}

}  // namespace tarnlink
