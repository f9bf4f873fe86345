#include "macos/bpf_device_access.h"

#include <cstdlib>
#include <string_view>
#include <system_error>
#include <utility>

#include "macos/osascript_prompt.h"
#include "platform/posix.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using boost::system::error_code;

constexpr int kDevices = 256;

// The application's reverse-DNS identifier and what the daemon does.
const std::string kLabel = "com.korvel.tarnlink.chmodbpf";
const std::string kDaemonFile = "/Library/LaunchDaemons/" + kLabel + ".plist";

// The group's change may fail where a device is busy; the access rights still help its owner.
constexpr std::string_view kGiveAccess = "chgrp admin /dev/bpf* 2>/dev/null; chmod g+rw /dev/bpf*";

// launchd.plist(5).
std::string propertyList() {
  std::string text = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
    <key>Label</key>
    <string>)";
  text.append(kLabel).append(R"(</string>
    <key>ProgramArguments</key>
    <array>
        <string>/bin/sh</string>
        <string>-c</string>
        <string>)");
  text.append(kGiveAccess).append(R"(</string>
    </array>
    <key>RunAtLoad</key>
    <true/>
    <key>KeepAlive</key>
    <false/>
</dict>
</plist>)");
  return text;
}

// What follows the first semicolon runs even if loading fails, and gives access without a restart.
std::string installLine(const std::string& source, const std::string& target) {
  return "cp '" + source + "' '" + target + "' && chown root:wheel '" + target +
         "' && chmod 644 '" + target + "' && launchctl load '" + target + "' 2>/dev/null; " +
         std::string(kGiveAccess);
}

// In one step: readers see the whole text or what was there before.
error_code replaceFile(const fs::path& path, std::string_view text) {
  std::string draft = path.string() + ".XXXXXX";
  const UniqueFd file(::mkstemp(draft.data()));
  if (!file) return lastError();
  const auto size = static_cast<ssize_t>(text.size());  // Small: a regular file takes it whole.
  error_code error;
  if (::write(file.get(), text.data(), text.size()) != size ||
      ::rename(draft.c_str(), path.c_str()) != 0) {
    error = lastError();
    ::unlink(draft.c_str());
  }
  return error;
}

}  // namespace

bool BpfDeviceAccess::isGranted() {
  for (int i = 0; i < kDevices; ++i) {
    if (::access((devicePrefix_ + std::to_string(i)).c_str(), R_OK) == 0) return true;
    if (errno != ENOENT) return false;
  }
  return false;
}

AdminResult BpfDeviceAccess::install() {
  const fs::path draft = temporaryFolder_ / (kLabel + ".plist");
  if (const auto error = replaceFile(draft, propertyList())) {
    return AdminError{error.value(), error.message()};
  }
  auto done = runAsAdmin(*runner_, kOsascriptPrompt, installLine(draft.string(), kDaemonFile));
  if (!done) return done;
  std::error_code ignored;
  fs::remove(draft, ignored);
  return {};
}

}  // namespace tarnlink
