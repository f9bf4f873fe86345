// Announcements are made by avahi-daemon; the library asks it for them over D-Bus.
#include <avahi-client/publish.h>
#include <avahi-common/address.h>
#include <avahi-common/alternative.h>
#include <avahi-common/domain.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

#include <limits>
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
  explicit Reporter(DnsSdPublicationDelegate& delegate) : delegate_(&delegate) {}

  void published(const DnsSdService& service) {
    const std::lock_guard hold(mutex_);
    // A daemon whose addresses change makes its announcements anew: that is no news.
    if (delegate_ == nullptr || reportedName_ == service.name) return;
    reportedName_ = service.name;
    delegate_->netServiceDidPublish(service);
  }

  void failed(const DnsSdService& service, const DnsSdError& error) {
    const std::lock_guard hold(mutex_);
    reportedName_.reset();
    if (delegate_ != nullptr) delegate_->netService(service, error);
  }

  void silence() {
    const std::lock_guard hold(mutex_);
    delegate_ = nullptr;
  }

 private:
  std::mutex mutex_;
  DnsSdPublicationDelegate* delegate_;
  std::optional<std::string> reportedName_;
};

/// Lives on its thread's stack.
class Announcement {
 public:
  Announcement(AvahiLoop& loop, DnsSdService service, Reporter& reporter)
      : loop_(loop), service_(std::move(service)), reporter_(reporter) {}

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
        return reporter_.failed(service_, avahiError(AVAHI_ERR_NO_DAEMON));
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
        return reporter_.published(service_);
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
    if (service_.port < 1 || service_.port > std::numeric_limits<std::uint16_t>::max()) {
      return AVAHI_ERR_INVALID_PORT;
    }
    return ::avahi_entry_group_add_service_strlst(
        group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags{}, service_.name.c_str(),
        service_.type.c_str(), "local", nullptr, static_cast<std::uint16_t>(service_.port),
        nullptr);
  }

  void takeOtherName() {
    char* other = ::avahi_alternative_service_name(service_.name.c_str());
    service_.name = other;
    ::avahi_free(other);
  }

  void fail(int error) {
    reporter_.failed(service_, avahiError(error));
    loop_.quit();
  }

  AvahiLoop& loop_;
  DnsSdService service_;
  Reporter& reporter_;
  AvahiEntryGroup* group_ = nullptr;  // Goes with the client.
  bool isDisconnected_ = false;
};

class AvahiPublication final : public DnsSdPublication {
 public:
  AvahiPublication(std::function<std::string()> name, std::string type, std::int32_t port,
                   DnsSdPublicationDelegate& delegate)
      : reporter_(std::make_shared<Reporter>(delegate)) {
    DnsSdService service{.name = {}, .type = std::move(type), .port = port};
    try {
      thread_.emplace(
          [reporter = reporter_, name = std::move(name), service](AvahiLoop& loop) mutable {
            service.name = cutToLabel(name());
            Announcement(loop, std::move(service), *reporter).run();
          });
    } catch (const std::system_error& error) {
      reporter_->failed(service, {error.code().value(), error.what()});
    }
  }
  ~AvahiPublication() override { stop(); }

  void stop() override {
    reporter_->silence();
    if (thread_) thread_->stop(kStopPatience);
  }

 private:
  std::shared_ptr<Reporter> reporter_;
  std::optional<AvahiThread> thread_;
};

}  // namespace

std::unique_ptr<DnsSdPublication> publishDnsSdService(std::function<std::string()> name,
                                                      std::string type, std::int32_t port,
                                                      DnsSdPublicationDelegate& delegate) {
  return std::make_unique<AvahiPublication>(std::move(name), std::move(type), port, delegate);
}

}  // namespace tarnlink
