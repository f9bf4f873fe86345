#include "app/host/bpf_permission_helper.h"

#include "stack/utf8.h"

namespace tarnlink {
namespace {

// What tools write is meant for a terminal.
std::string readable(std::string_view text) {
  if (!goosestack::isValidUtf8({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()})) {
    return "unknown error";
  }
  constexpr const char* kSpace = " \t\r\n\v\f";
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(kSpace) - first + 1));
}

}  // namespace

bool BpfPermissionHelper::ensureAccess() {
  if (access_.isGranted()) return true;
  if (!alerts_.confirm(texts_.needTitle, question(), texts_.install, texts_.later)) return false;
  if (const auto installed = access_.install(); !installed) {
    alerts_.showInfo(texts_.failedTitle, std::string(texts_.error) + wordsFor(installed.error()));
    return false;
  }
  if (access_.isGranted()) {
    alerts_.showInfo(texts_.doneTitle, texts_.doneMessage);
    return true;
  }
  alerts_.showInfo(texts_.incompleteTitle, texts_.incompleteMessage);
  return false;
}

std::string BpfPermissionHelper::question() const {
  std::string text(texts_.needMessage);
  if (const auto grant = access_.grant()) {
    text +=
        "\n\n" + filled(filled(texts_.needOnLinux, "file", grant->file), "helper", grant->helper);
  }
  return text;
}

std::string BpfPermissionHelper::wordsFor(const AdminError& error) const {
  if (error.code == kAdminCancelled) return std::string(texts_.cancelled);
  const auto grant = access_.grant();
  if (error.code == kAdminUnavailable && grant && !texts_.noAdministrator.empty()) {
    return filled(texts_.noAdministrator, "helper", grant->helper);
  }
  return readable(error.text);
}

}  // namespace tarnlink
