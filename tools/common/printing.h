// Events of the bridge as lines for people.
#pragma once

#include <string>
#include <string_view>

#include "protocol/json.h"

namespace tarnlink {

/// The text with everything that could steer a terminal written as \xNN: names and strings come
/// from whoever sends on the network.
std::string printable(std::string_view text);

/// The same for texts of several lines, such as a tool's output: those behind the first begin
/// anew, indented, so that none passes for a line of this program. Empty ones are left out.
std::string printableLines(std::string_view text);

/// One dataset value: true, 5, 1.5, 0b0101, 0x0AFF, "text", a time, {members} or [elements].
std::string valueText(const Json& value);

/// One line for the "message" of a "goose_message" event.
std::string gooseLine(const Json& message);

/// One line for an "sv_apdu" event: the APPID, the addresses, and how the payload begins.
std::string svLine(const Json& event);

/// One line for an element of an "interfaces" event; the active one is starred.
std::string interfaceLine(const Json& interface, std::string_view active);

}  // namespace tarnlink
