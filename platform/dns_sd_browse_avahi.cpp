// What is on the network is known to avahi-daemon; the library asks it over D-Bus.
#include <avahi-client/lookup.h>
#include <avahi-common/address.h>
#include <avahi-common/error.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <map>
#include <system_error>
#include <tuple>
#include <utility>

#include "platform/avahi_thread.h"
#include "platform/dns_sd.h"

namespace tarnlink {
namespace {

// How long a thread that is not stuck may take to answer when its time is up.
constexpr std::chrono::milliseconds kSlack{200};
// Against a network that announces without end.
constexpr std::size_t kMaxInstances = 1000;

using Instances = std::vector<DnsSdInstance>;
using Found = boost::system::result<Instances, DnsSdError>;

/// The instance on one link by one protocol, as mDNS sees it.
struct Place {
  std::string name;
  AvahiProtocol protocol;
  AvahiIfIndex interface;

  auto operator<=>(const Place& other) const {  // IPv4 before IPv6 within a name.
    return std::tie(name, protocol, interface) <=>
           std::tie(other.name, other.protocol, other.interface);
  }
};

std::string addressText(const AvahiAddress& address, AvahiIfIndex interface) {
  std::array<char, AVAHI_ADDRESS_STR_MAX> text{};
  ::avahi_address_snprint(text.data(), text.size(), &address);
  std::array<char, IF_NAMESIZE> name{};
  // RFC 4007, section 11: a link-local address means nothing without its link.
  const bool isLinkLocal = address.proto == AVAHI_PROTO_INET6 &&
                           address.data.ipv6.address[0] == 0xFE &&
                           (address.data.ipv6.address[1] & 0xC0U) == 0x80U;
  if (!isLinkLocal || ::if_indextoname(static_cast<unsigned>(interface), name.data()) == nullptr) {
    return text.data();
  }
  return std::string(text.data()) + '%' + name.data();
}

/// Lives on its thread's stack.
class Browser {
 public:
  Browser(AvahiLoop& loop, const std::string& onlyName) : loop_(loop), onlyName_(onlyName) {}

  /// Returns when all is found, and with what is found when asked to stop.
  Found run(const std::string& type) {
    int error = AVAHI_OK;
    const AvahiClientHandle client(
        ::avahi_client_new(loop_.api(), AvahiClientFlags{}, &Browser::onClient, this, &error));
    if (!client) return avahiError(error);
    if (::avahi_service_browser_new(client.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type.c_str(),
                                    "local", AvahiLookupFlags{}, &Browser::onBrowser,
                                    this) == nullptr) {
      error_ = ::avahi_client_errno(client.get());
    } else {
      loop_.run();
    }
    if (error_ != AVAHI_OK) return avahiError(error_);
    return merged();
  }

 private:
  static void onClient(AvahiClient* client, AvahiClientState state, void* context) {
    if (state != AVAHI_CLIENT_FAILURE) return;
    static_cast<Browser*>(context)->fail(client);
  }

  static void onBrowser(AvahiServiceBrowser* browser, AvahiIfIndex interface,
                        AvahiProtocol protocol, AvahiBrowserEvent event, const char* name,
                        const char* type, const char* domain, AvahiLookupResultFlags,
                        void* context) {
    auto& self = *static_cast<Browser*>(context);
    switch (event) {
      case AVAHI_BROWSER_NEW:
        self.resolve(::avahi_service_browser_get_client(browser), {name, protocol, interface}, type,
                     domain);
        return;
      case AVAHI_BROWSER_REMOVE:
        self.places_.erase({name, protocol, interface});
        return;
      case AVAHI_BROWSER_ALL_FOR_NOW:
        self.isAllSeen_ = true;
        return self.quitWhenDone();
      case AVAHI_BROWSER_FAILURE:
        return self.fail(::avahi_service_browser_get_client(browser));
      case AVAHI_BROWSER_CACHE_EXHAUSTED:
        return;
    }
  }

  static void onResolver(AvahiServiceResolver* resolver, AvahiIfIndex interface,
                         AvahiProtocol protocol, AvahiResolverEvent event, const char* name,
                         const char*, const char*, const char* host, const AvahiAddress* address,
                         std::uint16_t port, AvahiStringList*, AvahiLookupResultFlags,
                         void* context) {
    auto& self = *static_cast<Browser*>(context);
    const auto place = self.places_.find({name, protocol, interface});
    if (event == AVAHI_RESOLVER_FOUND && place != self.places_.end()) {
      place->second = {name, host, {addressText(*address, interface)}, port};
      if (self.onlyName_ == name) self.loop_.quit();
    }
    ::avahi_service_resolver_free(resolver);
    --self.pending_;
    self.quitWhenDone();
  }

  // Each place is asked for an address of its own protocol: together they are all of them.
  void resolve(AvahiClient* client, const Place& place, const char* type, const char* domain) {
    if (!onlyName_.empty() && place.name != onlyName_) return;
    if (places_.size() >= kMaxInstances) return;
    if (::avahi_service_resolver_new(client, place.interface, place.protocol, place.name.c_str(),
                                     type, domain, place.protocol, AvahiLookupFlags{},
                                     &Browser::onResolver, this) == nullptr) {
      return;
    }
    places_[place];
    ++pending_;
  }

  void quitWhenDone() {
    if (isAllSeen_ && pending_ == 0) loop_.quit();
  }

  void fail(AvahiClient* client) {
    error_ = ::avahi_client_errno(client);
    loop_.quit();
  }

  Instances merged() const {
    Instances instances;
    for (const auto& [place, instance] : places_) {
      if (instance.addresses.empty()) continue;
      if (instances.empty() || instances.back().name != instance.name) {
        instances.push_back(instance);
        continue;
      }
      auto& addresses = instances.back().addresses;
      const auto& address = instance.addresses.front();
      if (std::find(addresses.begin(), addresses.end(), address) == addresses.end()) {
        addresses.push_back(address);
      }
    }
    return instances;
  }

  AvahiLoop& loop_;
  const std::string& onlyName_;
  std::map<Place, DnsSdInstance> places_;
  std::size_t pending_ = 0;
  bool isAllSeen_ = false;
  int error_ = AVAHI_OK;
};

}  // namespace

Found browseDnsSd(const std::string& type, std::chrono::milliseconds wait,
                  const std::string& onlyName) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  // Shared: the thread may have to be left behind.
  const auto answer = std::make_shared<Found>(avahiError(AVAHI_ERR_TIMEOUT));
  try {
    AvahiThread thread(
        [answer, type, onlyName](AvahiLoop& loop) { *answer = Browser(loop, onlyName).run(type); });
    thread.waitUntil(deadline);
    if (thread.stop(kSlack)) return *answer;
  } catch (const std::system_error& error) {
    return DnsSdError{error.code().value(), error.what()};
  }
  return avahiError(AVAHI_ERR_TIMEOUT);
}

}  // namespace tarnlink
