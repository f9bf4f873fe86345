// Makes the operating system's VLAN interfaces with its interface tool.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "app/host/prompt_refusals.h"
#include "app/host/vlan_dialect.h"
#include "platform/admin_command.h"
#include "platform/child_process.h"
#include "server/vlan_setup.h"

namespace tarnlink {

/// VLAN 100 is the link vlan100, whatever its parent: one VLAN id is one name in the whole system.
/// A link made here stays when the program ends and carries a mark; it is replaced only when its
/// name is needed with another parent and nothing uses it. One person is asked one question at a
/// time: ensureVlanInterface() belongs on one thread of its own, where it may block as long as the
/// runner lets a prompt stand. The other operations are safe from any thread.
class VlanInterfaceHelper final : public VlanSetup {
 public:
  /// `prompt`: where the rights for making and removing links come from.
  VlanInterfaceHelper(std::unique_ptr<ProcessRunner> runner, const VlanDialect& dialect,
                      const AdminPrompt& prompt);

  /// Fails with code
  ///   2  the parent's name breaks the rule of goosestack/interface_name.h; nothing has been run;
  ///   1  the link cannot be: no such id, no such parent, or another link has its name and is not
  ///      ours to remove; or it is not there after all;
  ///   kAdminCancelled, kAdminUnanswered, kAdminUnavailable  see platform/admin_command.h; also
  ///      without a prompt, as PromptRefusals says;
  ///   else the status of the tool, with what it wrote.
  VlanResult<std::string> ensureVlanInterface(const std::string& parent,
                                              std::uint16_t vid) override;
  std::optional<std::string> readyVlanInterface(const std::string& parent,
                                                std::uint16_t vid) override;
  void cancel() override { runner_->cancel(); }

 private:
  VlanResult<bool> exists(const std::string& name);
  VlanResult<ExistingLink> readBack(const std::string& name);
  AdminResult runAsAdmin(const std::string& name, const std::string& commandLine);
  VlanResult<void> change(const std::string& name, const std::string& commandLine);
  VlanResult<std::string> create(const std::string& name, const VlanInfo& link);

  std::unique_ptr<ProcessRunner> runner_;
  const VlanDialect& dialect_;
  const AdminPrompt& prompt_;
  PromptRefusals refusals_;
};

}  // namespace tarnlink
