#include "app/host/bpf_permission_helper.h"

#include "stack/utf8.h"

namespace tarnlink {
namespace {

constexpr std::string_view kNeedTitle = "Tarnlink braucht Netzwerk-Berechtigung";
constexpr std::string_view kNeedMessage =
    "Für den Empfang von GOOSE-Nachrichten auf Layer 2 muss die Bridge auf /dev/bpf* zugreifen. "
    "macOS erlaubt das nur mit Admin-Rechten.\n\n"
    "Die Bridge installiert dafür einen kleinen System-Service (gleicher Ansatz wie Wireshark's "
    "ChmodBPF), der beim Systemstart die Berechtigung automatisch setzt. Dieser Schritt ist nur "
    "einmal nötig.";

// What tools write is meant for a terminal.
std::string readable(std::string_view text) {
  if (!isValidUtf8({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()})) {
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
  if (!alerts_.confirm(kNeedTitle, kNeedMessage, "Installieren…", "Später")) return false;
  if (const auto installed = access_.install(); !installed) {
    alerts_.showInfo("Installation fehlgeschlagen", "Fehler: " + readable(installed.error().text));
    return false;
  }
  if (access_.isGranted()) {
    alerts_.showInfo("Installation erfolgreich",
                     "Die Bridge kann jetzt GOOSE-Nachrichten empfangen.");
    return true;
  }
  alerts_.showInfo("Installation unvollständig",
                   "Der Service wurde installiert, aber /dev/bpf* ist noch nicht zugänglich. Bitte "
                   "Bridge neu starten.");
  return false;
}

}  // namespace tarnlink
