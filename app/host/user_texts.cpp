#include "app/host/user_texts.h"

namespace tarnlink {
namespace {

constexpr UserTexts kGerman{
    .running = "● Läuft  ·  Port ",
    .stopped = "○ Gestoppt",
    .restarting = "○ Startet neu…",
    .pairingCode = "Pairing-Code: ",
    .copyHint = "  (klicken zum Kopieren)",
    .interfaces = "Netzwerk-Interface:",
    .noInterfaces = "  (keine Interfaces gefunden)",
    .accessActive = "✓ BPF-Zugriff aktiv",
    .accessMissing = "⚠ BPF-Zugriff einrichten…",
    .quit = "Beenden",
    .needTitle = "Tarnlink braucht Netzwerk-Berechtigung",
    .needMessage =
        "Für den Empfang von GOOSE-Nachrichten auf Layer 2 muss die Bridge auf /dev/bpf* "
        "zugreifen. macOS erlaubt das nur mit Admin-Rechten.\n\n"
        "Die Bridge installiert dafür einen kleinen System-Service (gleicher Ansatz wie "
        "Wireshark's ChmodBPF), der beim Systemstart die Berechtigung automatisch setzt. Dieser "
        "Schritt ist nur einmal nötig.",
    .needOnLinux =
        "Auf diesem Linux-Rechner geschieht stattdessen Folgendes: Nach der Bestätigung durch "
        "einen Administrator erhält die Datei {file} die Capability CAP_NET_RAW (Netzwerkverkehr "
        "mitlesen und senden). Ausführen können sie danach nur noch root, die Gruppe „tarnlink“, "
        "falls es sie gibt, und die Benutzer, die wie Sie zugestimmt haben. Ein System-Service "
        "wird nicht installiert.\n\nZurücknehmen: sudo {helper} --remove",
    .install = "Installieren…",
    .later = "Später",
    .failedTitle = "Installation fehlgeschlagen",
    .error = "Fehler: ",
    .cancelled = "Benutzer hat abgebrochen",
    .noAdministrator = "",
    .doneTitle = "Installation erfolgreich",
    .doneMessage = "Die Bridge kann jetzt GOOSE-Nachrichten empfangen.",
    .incompleteTitle = "Installation unvollständig",
    .incompleteMessage =
        "Der Service wurde installiert, aber /dev/bpf* ist noch nicht zugänglich. Bitte Bridge "
        "neu starten.",
};

constexpr UserTexts kEnglish{
    .running = "● Running  ·  Port ",
    .stopped = "○ Stopped",
    .restarting = "○ Restarting…",
    .pairingCode = "Pairing code: ",
    .copyHint = "  (click to copy)",
    .interfaces = "Network interface:",
    .noInterfaces = "  (no interfaces found)",
    .accessActive = "✓ BPF access active",
    .accessMissing = "⚠ Set up BPF access…",
    .quit = "Quit",
    .needTitle = "Tarnlink needs permission to use the network",
    .needMessage =
        "To receive GOOSE messages on layer 2, the bridge must access /dev/bpf*. macOS allows "
        "that with administrator rights only.\n\n"
        "For this the bridge installs a small system service (as Wireshark's ChmodBPF does) that "
        "sets the permission at every system start. This step is needed only once.",
    .needOnLinux =
        "On this Linux computer the following happens instead: once an administrator has "
        "confirmed, the file {file} gets the capability CAP_NET_RAW (capture and send raw network "
        "traffic). From then on only root, the group \"tarnlink\" where there is one, and the "
        "users who agreed, as you do, can run it. No system service is installed.\n\n"
        "To take it back: sudo {helper} --remove",
    .install = "Install…",
    .later = "Later",
    .failedTitle = "Installation failed",
    .error = "Error: ",
    .cancelled = "Cancelled by the user",
    .noAdministrator = "No administrator rights. Please run by hand: sudo {helper}",
    .doneTitle = "Installation complete",
    .doneMessage = "The bridge can receive GOOSE messages now.",
    .incompleteTitle = "Installation incomplete",
    .incompleteMessage =
        "The service has been installed, but /dev/bpf* is not accessible yet. Please restart the "
        "bridge.",
};

}  // namespace

const UserTexts& userTexts(Language language) {
  return language == Language::german ? kGerman : kEnglish;
}

std::string filled(std::string_view text, std::string_view name, std::string_view value) {
  const std::string place = "{" + std::string(name) + "}";
  std::string result(text);
  for (auto at = result.find(place); at != std::string::npos;
       at = result.find(place, at + value.size())) {
    result.replace(at, place.size(), value);
  }
  return result;
}

}  // namespace tarnlink
