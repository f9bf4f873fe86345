// capabilities(7) through libcap.
#include <sys/capability.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>

#include <memory>

#include "platform/posix.h"
#include "platform/process_capabilities.h"

namespace tarnlink {
namespace {

struct CapFree {
  void operator()(cap_t set) const { ::cap_free(set); }
};
using CapabilitySet = std::unique_ptr<std::remove_pointer_t<cap_t>, CapFree>;

bool holds(const CapabilitySet& set, cap_value_t capability, cap_flag_t flag) {
  cap_flag_value_t value = CAP_CLEAR;
  return set && ::cap_get_flag(set.get(), capability, flag, &value) == 0 && value == CAP_SET;
}

// For root every execve() permits what the bounding set holds, so what root's children shall not
// get must leave that set. Capabilities that the kernel knows are those below cap_max_bits().
boost::system::result<void> boundToLinkCapabilities() {
  for (cap_value_t capability = 0; capability < ::cap_max_bits(); ++capability) {
    if (capability == CAP_NET_RAW || capability == CAP_NET_ADMIN) continue;
    if (::cap_get_bound(capability) > 0 && ::cap_drop_bound(capability) != 0) return lastError();
  }
  return {};
}

// Root's programs get what root holds, others what is ambient.
bool isPassedOn() {
  return hasCaptureCapability() && (::geteuid() == 0 || ::cap_get_ambient(CAP_NET_RAW) > 0);
}

// "Safety checking for capability-dumb binaries" and what follows it in capabilities(7): where the
// kernel ignores what the file gives, or refuses to start it.
bool isHonoured(const char* file) {
  struct statvfs mount {};
  return ::cap_get_bound(CAP_NET_RAW) > 0 && ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 0 &&
         ::statvfs(file, &mount) == 0 && (mount.f_flag & ST_NOSUID) == 0;
}

}  // namespace

bool hasCaptureCapability(int process) {
  const CapabilitySet its(::cap_get_pid(process));
  return holds(its, CAP_NET_RAW, CAP_EFFECTIVE);
}

bool hasCaptureCapability() {
  const CapabilitySet current(::cap_get_proc());
  return holds(current, CAP_NET_RAW, CAP_EFFECTIVE);
}

bool givesCaptureCapability(const std::filesystem::path& program) {
  const char* file = program.c_str();
  if (::access(file, X_OK) != 0) return false;
  if (isPassedOn()) return true;
  const CapabilitySet its(::cap_get_file(file));
  return holds(its, CAP_NET_RAW, CAP_PERMITTED) && holds(its, CAP_NET_RAW, CAP_EFFECTIVE) &&
         isHonoured(file);
}

bool hasLinkSetupCapability() {
  const CapabilitySet current(::cap_get_proc());
  return holds(current, CAP_NET_ADMIN, CAP_EFFECTIVE);
}

boost::system::result<void> keepOnlyCaptureCapabilities() {
  const CapabilitySet current(::cap_get_proc());
  if (!current) return lastError();
  const bool keepAdmin = holds(current, CAP_NET_ADMIN, CAP_PERMITTED);

  // Without CAP_NET_ADMIN links are set up by a set-user-id tool that asks the user (pkexec), and
  // that tool's root must be a whole one: its bounding set is ours.
  if (keepAdmin && holds(current, CAP_SETPCAP, CAP_EFFECTIVE)) {
    if (auto bounded = boundToLinkCapabilities(); !bounded) return bounded;
  }

  const CapabilitySet kept(::cap_init());
  if (!kept) return lastError();
  for (const cap_value_t capability : {CAP_NET_RAW, CAP_NET_ADMIN}) {
    if (!holds(current, capability, CAP_PERMITTED)) continue;
    ::cap_set_flag(kept.get(), CAP_PERMITTED, 1, &capability, CAP_SET);
    ::cap_set_flag(kept.get(), CAP_EFFECTIVE, 1, &capability, CAP_SET);
  }
  if (keepAdmin) {
    const cap_value_t admin = CAP_NET_ADMIN;
    ::cap_set_flag(kept.get(), CAP_INHERITABLE, 1, &admin, CAP_SET);
  }
  if (::cap_reset_ambient() != 0) return lastError();
  if (::cap_set_proc(kept.get()) != 0) return lastError();
  // Ambient capabilities are what a program without file capabilities gets from a non-root parent.
  if (keepAdmin && ::cap_set_ambient(CAP_NET_ADMIN, CAP_SET) != 0) return lastError();
  return {};
}

}  // namespace tarnlink
