#include <sys/capability.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <memory>

#include "app/host/bpf_capability_access.h"
#include "platform/process_capabilities.h"

namespace tarnlink {
namespace {

struct CapFree {
  void operator()(cap_t set) const { ::cap_free(set); }
};
using CapabilitySet = std::unique_ptr<std::remove_pointer_t<cap_t>, CapFree>;

// Root's programs get what root holds, others what is ambient.
bool isPassedOn() {
  return hasCaptureCapability() && (::geteuid() == 0 || ::cap_get_ambient(CAP_NET_RAW) > 0);
}

bool fileGives(const char* file, cap_flag_t flag) {
  const CapabilitySet set(::cap_get_file(file));
  cap_flag_value_t value = CAP_CLEAR;
  return set && ::cap_get_flag(set.get(), CAP_NET_RAW, flag, &value) == 0 && value == CAP_SET;
}

// "Safety checking for capability-dumb binaries" and what follows it in capabilities(7): where the
// kernel ignores what the file gives, or refuses to start it.
bool isHonoured(const char* file) {
  struct statvfs mount {};
  return ::cap_get_bound(CAP_NET_RAW) > 0 && ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 0 &&
         ::statvfs(file, &mount) == 0 && (mount.f_flag & ST_NOSUID) == 0;
}

}  // namespace

bool BpfCapabilityAccess::isGranted() {
  const char* file = files_.bridge.c_str();
  if (::access(file, X_OK) != 0) return false;
  if (isPassedOn()) return true;
  return fileGives(file, CAP_PERMITTED) && fileGives(file, CAP_EFFECTIVE) && isHonoured(file);
}

AdminResult BpfCapabilityAccess::install() {
  return runProgramAsAdmin(*runner_, files_.pkexec.string(), files_.helper.string());
}

}  // namespace tarnlink
