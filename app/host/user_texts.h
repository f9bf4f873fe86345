// What the desktop program says to its users, in the languages that it speaks.
#pragma once

#include <string>
#include <string_view>

namespace tarnlink {

enum class Language { german, english };

/// UTF-8. Spaces at either end belong to the texts.
struct UserTexts {
  // The menu.
  std::string_view running;  ///< The port follows.
  std::string_view stopped;
  std::string_view restarting;
  std::string_view pairingCode;  ///< The code and `copyHint` follow.
  std::string_view copyHint;
  std::string_view interfaces;
  std::string_view noInterfaces;
  std::string_view accessActive;
  std::string_view accessMissing;
  std::string_view quit;

  // The question for capture access, and what became of it.
  std::string_view needTitle;
  std::string_view needMessage;
  std::string_view needOnLinux;  ///< {file} and {helper} stand for paths.
  std::string_view install;
  std::string_view later;
  std::string_view failedTitle;
  std::string_view error;  ///< What went wrong follows.
  std::string_view cancelled;
  std::string_view noAdministrator;  ///< {helper}. Empty: the prompt's own words, with its reason.
  std::string_view doneTitle;
  std::string_view doneMessage;
  std::string_view incompleteTitle;
  std::string_view incompleteMessage;
};

const UserTexts& userTexts(Language language);

/// The text with each `{name}` replaced by the value.
std::string filled(std::string_view text, std::string_view name, std::string_view value);

}  // namespace tarnlink
