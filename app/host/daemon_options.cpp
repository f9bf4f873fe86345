#include "app/host/daemon_options.h"

#include <CLI/CLI.hpp>
#include <boost/asio/ip/address.hpp>
#include <limits>
#include <string>
#include <vector>

#include "platform/preference_store.h"
#include "protocol/bridge_event_encoder.h"

namespace tarnlink {
namespace {

constexpr const char* kFooter =
    "Exit codes: 0 after an orderly stop, 1 when the bridge cannot start or there is no pairing\n"
    "code to show, 2 for bad usage.\n"
    "Needs CAP_NET_RAW for capturing and sending; gives up every other privilege but\n"
    "CAP_NET_ADMIN, which VLAN set-up uses where it is given.";

// More than a process may have descriptors. Connections.
constexpr int kMostClients = 1'000'000;

using Texts = std::vector<std::string>;

// Checks of values, as CLI11 has them: the text of the error, empty when there is none.
std::string checkOrigin(const std::string& text) {
  if (OriginPattern::parse(text)) return {};
  return "'" + text + "' is no origin: scheme://host[:port] with * for parts, null, or *";
}
std::string checkHost(const std::string& text) {
  if (!text.empty() && text.find_first_of(":/[]*@ ") == std::string::npos) return {};
  return "'" + text + "' is no host name";
}
std::string checkAddress(const std::string& text) {
  boost::system::error_code error;
  boost::asio::ip::make_address(text, error);
  return error ? "'" + text + "' is no IPv4 or IPv6 address" : "";
}
CLI::Validator check(std::string (*function)(const std::string&)) {
  return {[function](std::string& text) { return function(text); }, ""};
}

// Adds what decides who may connect.
void addAccessOptions(CLI::App& app, WebSocketAccess& access) {
  app.add_option_function<Texts>(
         "--allow-origin",
         [&access](const Texts& patterns) {
           for (const auto& text : patterns) {
             access.rules.origins.push_back(*OriginPattern::parse(text));
           }
           access.rules.checksHost = true;
         },
         "Web pages that may connect, such as https://*.example.org:*; programs always may")
      ->type_name("PATTERN")
      ->check(check(checkOrigin));
  app.add_option_function<Texts>(
         "--allow-host",
         [&access](const Texts& names) {
           access.rules.hosts = names;
           access.rules.checksHost = true;
         },
         "Further names of this computer that web pages may use")
      ->type_name("NAME")
      ->check(check(checkHost));
  app.add_option("--max-clients", access.maxClients, "Connections at a time; 0: any number")
      ->type_name("NUMBER")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(CLI::Range(0, kMostClients));
  app.add_option_function<Texts>(
         "--bind",
         [&access](const Texts& addresses) {
           for (const auto& text : addresses) {
             access.addresses.push_back(boost::asio::ip::make_address(text));
           }
         },
         "Local addresses to listen on instead of all")
      ->type_name("ADDRESS")
      ->check(check(checkAddress));
}

}  // namespace

void addServiceOptions(CLI::App& app, DaemonOptions& options) {
  app.add_option("--port", options.port, "TCP port of the WebSocket server")
      ->check(CLI::Range(0, int{std::numeric_limits<std::uint16_t>::max()}))
      ->capture_default_str();
  app.add_option("--interface", options.interface,
                 "Interface for capture and publishing in this run; not stored");
  app.add_flag("!--no-advertise", options.advertise, "Do not announce the bridge by DNS-SD");
  app.add_flag("--low-latency", options.lowLatency,
               "Take each frame from the kernel at once instead of within 100 ms");
  addAccessOptions(app, options.access);
  app.add_flag("--auth-delay", options.authDelay,
               "Compare at most one wrong pairing code a second after the first ten");
}

std::variant<DaemonOptions, ExitCode> parseDaemonOptions(int argc, const char* const* argv) {
  DaemonOptions options;
  options.preferences = defaultPreferenceFile();

  CLI::App app("tarnlinkd - bridge between IEC 61850 layer-2 traffic and WebSocket clients");
  app.footer(kFooter);
  app.set_version_flag("--version", "tarnlinkd " + std::string(BridgeEventEncoder::appVersion()));
  addServiceOptions(app, options);
  const auto* preferences =
      app.add_option("--preferences", options.preferences, "File of the preferences")
          ->capture_default_str();
  app.add_flag("--show-pairing-code", options.showPairingCode,
               "Print the pairing code, making one when there is none, and exit");
  auto* const certificate =
      app.add_option("--tls-cert", options.tlsCertificate,
                     "Serve TLS (wss) alone, with this certificate and its chain (PEM)")
          ->type_name("FILE");
  auto* const key = app.add_option("--tls-key", options.tlsKey, "The certificate's key (PEM)")
                        ->type_name("FILE")
                        ->needs(certificate);
  certificate->needs(key);
  app.add_flag("--until-input-ends", options.untilInputEnds,
               "Stop when standard input ends, and so with the program that started this one");
  app.add_flag("--owner-token", options.readsOwnerToken,
               "Read a token from the first line of standard input, for the program that started "
               "this one: taken like the pairing code, without delay");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return ExitCode{app.exit(error) == 0 ? 0 : kExitUsage};
  }
  options.arePreferencesGiven = preferences->count() > 0;
  return options;
}

}  // namespace tarnlink
