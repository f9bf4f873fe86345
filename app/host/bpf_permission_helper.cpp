#include "app/host/bpf_permission_helper.h"

#include "app/host/tool_text.h"

namespace tarnlink {
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
  return readableText(error.text, "unknown error");
}

}  // namespace tarnlink
