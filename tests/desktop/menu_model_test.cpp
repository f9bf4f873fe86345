#include "app/desktop/menu_model.h"

#include <gtest/gtest.h>

namespace tarnlink {
using namespace goosestack;
namespace {

// One line an item: "-" for a separator, else the check mark, the title and, for an item that can
// be chosen, "-> action represented".
std::vector<std::string> linesOf(const MenuModel& menu) {
  static const char* const kActions[] = {"", " -> copy", " -> select ", " -> install", " -> quit"};
  std::vector<std::string> lines;
  for (const auto& item : menu) {
    lines.push_back(item.isSeparator
                        ? "-" + item.title
                        : (item.isChecked ? "*" : "") + item.title +
                              kActions[static_cast<int>(item.action)] + item.represented);
  }
  return lines;
}

TEST(MenuModel, ShowsTheBridgeAsItIs) {
  const NetworkInterfaceInfo office{"eth0", "Ethernet", true, "", true};
  const NetworkInterfaceInfo bus{"bus0", "", false, "", true};
  const struct {
    const char* situation;
    MenuState state;
    std::vector<std::string> lines;
    Language language = Language::german;
  } cases[] = {
      {"just launched",
       {"1.2", BridgePhase::stopped, 8765, "000123", {}, "", false},
       {"Korvel 61850 Tarnlink 1.2", "-", "○ Gestoppt",
        "Pairing-Code: 000123  (klicken zum Kopieren) -> copy", "-",
        "Netzwerk-Interface:", "  (keine Interfaces gefunden)", "-",
        "⚠ BPF-Zugriff einrichten… -> install", "-", "Beenden -> quit"}},
      {"serving",
       {"dev", BridgePhase::running, 8765, "654321", {office, bus}, "bus0", true},
       {"Korvel 61850 Tarnlink dev", "-", "● Läuft  ·  Port 8765",
        "Pairing-Code: 654321  (klicken zum Kopieren) -> copy", "-",
        "Netzwerk-Interface:", "  eth0 — Ethernet -> select eth0", "*  bus0  (down) -> select bus0",
        "-", "✓ BPF-Zugriff aktiv", "-", "Beenden -> quit"}},
      {"being restarted, in English",
       {"dev", BridgePhase::restarting, 8765, "654321", {office}, "", false},
       {"Korvel 61850 Tarnlink dev", "-", "○ Restarting…",
        "Pairing code: 654321  (click to copy) -> copy", "-",
        "Network interface:", "  eth0 — Ethernet -> select eth0", "-",
        "⚠ Set up BPF access… -> install", "-", "Quit -> quit"},
       Language::english},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    EXPECT_EQ(linesOf(buildMenu(c.state, userTexts(c.language))), c.lines);
  }
}

}  // namespace
}  // namespace tarnlink
