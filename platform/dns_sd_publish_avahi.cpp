// Announcements are made by avahi-daemon; the library asks it for them over D-Bus.
#include <avahi-client/publish.h>
#include <avahi-common/address.h>
#include <avahi-common/alternative.h>
#include <avahi-common/domain.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/avahi_thread.h"
#include "platform/dns_sd.h"

namespace tarnlink {
namespace {

// How long stop() holds its caller. The daemon withdraws by itself what a process that has ended,
// or was left behind, had announced.
constexpr std::chrono::milliseconds kStopPatience{300};

constexpr std::size_t kMaxLabel = AVAHI_LABEL_MAX - 1;  // Octets; RFC 1035, section 2.3.4.

// Never through a character: UTF-8's following octets are 10xxxxxx.
std::string cutToLabel(std::string name) {
  if (name.size() <= kMaxLabel) return name;
  std::size_t end = kMaxLabel;
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0U) == 0x80U) --end;
  name.resize(end);
  return name;
}

/// Passes outcomes on until it is told to be silent; safe from any thread.
class Reporter {
 public:
  explicit Reporter(std::function<void(const DnsSdOutcome&)> report) : report_(std::move(report)) {}

  void pass(const DnsSdOutcome& outcome) {
    const std::lock_guard hold(mutex_);
    const auto name = outcome ? std::optional(*outcome) : std::nullopt;
    // A daemon whose addresses change makes its announcements anew: that is no news.
    const bool isNews = !name || name != announced_;
    announced_ = name;
    if (isNews && report_) report_(outcome);
  }

  void silence() {
    const std::lock_guard hold(mutex_);
    report_ = nullptr;
  }

 private:
  std::mutex mutex_;
  std::function<void(const DnsSdOutcome&)> report_;
  std::optional<std::string> announced_;
};

/// Lives on its thread's stack.
class Announcement {
 public:
  Announcement(AvahiLoop& loop, std::string name, std::string type, std::uint16_t port,
               Reporter& reporter)
      : loop_(loop),
        name_(std::move(name)),
        type_(std::move(type)),
        port_(port),
        reporter_(reporter) {}

  void run() {
    do {
      isDisconnected_ = false;
      group_ = nullptr;
      int error = AVAHI_OK;
      const AvahiClientHandle client(::avahi_client_new(loop_.api(), AVAHI_CLIENT_NO_FAIL,
                                                        &Announcement::onClient, this, &error));
      if (!client) return fail(error);
      loop_.run();
    } while (isDisconnected_ && !loop_.isAskedToStop());
  }

 private:
  static void onClient(AvahiClient* client, AvahiClientState state, void* context) {
    static_cast<Announcement*>(context)->handle(client, state);
  }
  static void onGroup(AvahiEntryGroup* group, AvahiEntryGroupState state, void* context) {
    static_cast<Announcement*>(context)->handle(group, state);
  }

  void handle(AvahiClient* client, AvahiClientState state) {
    switch (state) {
      case AVAHI_CLIENT_S_RUNNING:
        return announce(client);
      case AVAHI_CLIENT_S_REGISTERING:
      case AVAHI_CLIENT_S_COLLISION:
        // The name of the host is not settled, and the announcement refers to it.
        if (group_ != nullptr) ::avahi_entry_group_reset(group_);
        return;
      case AVAHI_CLIENT_CONNECTING:
        return reporter_.pass(avahiError(AVAHI_ERR_NO_DAEMON));
      case AVAHI_CLIENT_FAILURE:
        // A client that has lost the daemon stays useless; a new one waits for the next daemon.
        isDisconnected_ = ::avahi_client_errno(client) == AVAHI_ERR_DISCONNECTED;
        if (!isDisconnected_) return fail(::avahi_client_errno(client));
        loop_.quit();
        return;
    }
  }

  void handle(AvahiEntryGroup* group, AvahiEntryGroupState state) {
    switch (state) {
      case AVAHI_ENTRY_GROUP_ESTABLISHED:
        return reporter_.pass(name_);
      case AVAHI_ENTRY_GROUP_COLLISION:
        takeOtherName();
        ::avahi_entry_group_reset(group);
        return announce(::avahi_entry_group_get_client(group));
      case AVAHI_ENTRY_GROUP_FAILURE:
        return fail(::avahi_client_errno(::avahi_entry_group_get_client(group)));
      case AVAHI_ENTRY_GROUP_UNCOMMITED:
      case AVAHI_ENTRY_GROUP_REGISTERING:
        return;
    }
  }

  void announce(AvahiClient* client) {
    if (group_ == nullptr) {
      group_ = ::avahi_entry_group_new(client, &Announcement::onGroup, this);
      if (group_ == nullptr) return fail(::avahi_client_errno(client));
    }
    int error = add();
    // Another program of this computer has the name; the network is asked only after the commit.
    while (error == AVAHI_ERR_COLLISION) {
      takeOtherName();
      error = add();
    }
    if (error == AVAHI_OK) error = ::avahi_entry_group_commit(group_);
    if (error < 0) fail(error);
  }

  int add() {
    return ::avahi_entry_group_add_service_strlst(group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                  AvahiPublishFlags{}, name_.c_str(), type_.c_str(),
                                                  "local", nullptr, port_, nullptr);
  }

  void takeOtherName() {
    char* other = ::avahi_alternative_service_name(name_.c_str());
    name_ = other;
    ::avahi_free(other);
  }

  void fail(int error) {
    reporter_.pass(avahiError(error));
    loop_.quit();
  }

  AvahiLoop& loop_;
  std::string name_;
  const std::string type_;
  const std::uint16_t port_;
  Reporter& reporter_;
  AvahiEntryGroup* group_ = nullptr;  // Goes with the client.
  bool isDisconnected_ = false;
};

class AvahiPublication final : public DnsSdPublication {
 public:
  AvahiPublication(std::shared_ptr<Reporter> reporter, std::function<void(AvahiLoop&)> work)
      : reporter_(std::move(reporter)) {
    try {
      thread_.emplace(std::move(work));
    } catch (const std::system_error& error) {
      reporter_->pass(DnsSdError{error.code().value(), error.what()});
    }
  }
  ~AvahiPublication() override {
    reporter_->silence();
    if (thread_) thread_->stop(kStopPatience);
  }

 private:
  std::shared_ptr<Reporter> reporter_;
  std::optional<AvahiThread> thread_;
};

}  // namespace

std::unique_ptr<DnsSdPublication> publishDnsSdService(
    std::function<std::string()> name, std::string type, std::uint16_t port,
    std::function<void(const DnsSdOutcome&)> report) {
  const auto reporter = std::make_shared<Reporter>(std::move(report));
  return std::make_unique<AvahiPublication>(
      reporter, [reporter, name = std::move(name), type = std::move(type), port](AvahiLoop& loop) {
        Announcement(loop, cutToLabel(name()), type, port, *reporter).run();
      });
}

}  // namespace tarnlink
