#include "app/host/bridge_process.h"

#include <net/if.h>
#include <unistd.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "app/host/bridge_advertiser.h"
#include "app/host/named_interfaces.h"
#include "app/host/pairing_code_output.h"
#include "app/host/vlan_interface_helper.h"
#include "goosestack/goose_receiver.h"
#include "goosestack/publishing.h"
#include "goosestack/real_time_thread.h"
#include "goosestack/sv_receiver.h"
#include "platform/console_log.h"
#include "platform/free_memory.h"
#include "platform/preference_store.h"
#include "platform/process_capabilities.h"
#include "platform/service_notify.h"
#include "server/bridge_server.h"
#include "websocket/tls_context.h"
#include "websocket/websocket.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

constexpr int kExitStartFailed = 1;
// How long connections may take to close after the server has stopped; then the process ends.
constexpr std::chrono::milliseconds kCloseTime{1'200};
// Captures open here, and one slow look-up of display names must not hold them up.
constexpr std::size_t kBlockingThreads = 2;
// For each tool, and so for each prompt: time to find somebody with the password.
constexpr std::chrono::minutes kToolTime{2};
// Of the owner's token, in characters: 128 bits in hexadecimal digits, and room for other forms.
constexpr std::size_t kShortestToken = 32;
constexpr std::size_t kLongestToken = 256;
// What a capture's records may hold in memory while they wait for the server; from there on the
// kernel drops frames. Some 30,000 messages of ten values. Octets.
constexpr std::size_t kCaptureQueue = 32 << 20;

std::vector<goosestack::NetworkInterfaceInfo> listInterfaces(BridgePorts::Names names) {
  return names == BridgePorts::Names::display
             ? listNamedInterfaces()
             : goosestack::InterfaceDiscovery::listEthernetInterfaces(nullptr);
}

// Asks the user only where the process may not set up links itself.
std::shared_ptr<VlanSetup> makeVlanSetup() {
  return std::make_shared<VlanInterfaceHelper>(
      makeProcessRunner(kToolTime), kLinuxVlanDialect,
      hasLinkSetupCapability() ? kRightsHeld : kPkexecPrompt);
}

std::unique_ptr<ServiceAdvertiser> makeAdvertiser(std::int32_t port) {
  return std::make_unique<BridgeAdvertiser>(port, logToConsole);
}

// Empty when there is no line, or one that is shorter than a token may be.
std::string readOwnerToken() {
  std::string line;
  char octet = 0;
  while (line.size() < kLongestToken && ::read(STDIN_FILENO, &octet, 1) == 1 && octet != '\n') {
    line += octet;
  }
  return octet == '\n' && line.size() >= kShortestToken ? line : std::string();
}

// The owner's token and the TLS key; why not, where they cannot be had.
std::string readSecrets(DaemonOptions& options) {
  if (options.readsOwnerToken) {
    options.ownerToken = readOwnerToken();
    if (options.ownerToken.empty()) {
      return "no token of " + std::to_string(kShortestToken) +
             " characters or more on standard input";
    }
  }
  if (!options.tlsCertificate.empty()) {
    const auto tls = TlsContext::load(options.tlsCertificate, options.tlsKey);
    if (!tls) return tls.error();
    options.access.tls = *tls;
  }
  return {};
}

std::string ownPath() {
  std::error_code unreadable;
  const auto path = std::filesystem::read_symlink("/proc/self/exe", unreadable);
  return unreadable ? "/usr/bin/tarnlinkd" : path.string();
}

// The bridge serves all the same.
void tellWhatIsMissing(const DaemonOptions& options) {
  if (!hasCaptureCapability()) {
    logToConsole(
        "[KorvelTarnlink] No CAP_NET_RAW: capturing and publishing will end in \"permission "
        "denied\". Ways to give it: the packaged service, sudo, or sudo setcap cap_net_raw=ep " +
        ownPath());
  }
  if (!storedPairingCode(options.preferences, logToConsole)) {
    logToConsole("[KorvelTarnlink] Nobody can pair: make " + options.preferences.string() +
                 " a file that this user can write, or name another with --preferences");
  }
  if (!options.interface.empty() && ::if_nametoindex(options.interface.c_str()) == 0) {
    logToConsole("[KorvelTarnlink] No interface " + options.interface +
                 " at present; 'ip -brief link' lists those there are");
  }
}

/// Owns everything that lives while the bridge serves.
class BridgeProcess {
 public:
  explicit BridgeProcess(const DaemonOptions& options)
      : port_(options.port),
        isBound_(!options.access.addresses.empty()),
        untilInputEnds_(options.untilInputEnds),
        preferences_(makePreferenceStore(options.preferences, logToConsole)),
        transport_(makeWebSocketTransport(io_.get_executor(), {}, options.access)),
        signals_(io_, SIGTERM, SIGINT),
        server_(std::make_shared<BridgeServer>(io_.get_executor(), ports(options),
                                               options.interface)) {}

  int run() {
    asio::co_spawn(io_, stopOnSignal(), asio::detached);
    asio::co_spawn(io_, serve(), asio::detached);
    if (untilInputEnds_) asio::co_spawn(io_, stopWhenInputEnds(), asio::detached);
    io_.run();
    io_.restart();
    boost::system::error_code ignored;
    input_.close(ignored);
    io_.run_for(kCloseTime);
    return exitCode_;
  }

 private:
  BridgePorts ports(const DaemonOptions& options) {
    const auto mode = options.lowLatency ? goosestack::CaptureMode::lowLatency
                                         : goosestack::CaptureMode::standard;
    return BridgePorts{
        .transport = *transport_,
        .preferences = *preferences_,
        .log = logToConsole,
        .makeGooseReceiver =
            [this, mode] {
              return goosestack::makeGooseReceiver(blocking_.executor(), mode, kCaptureQueue);
            },
        .makeSvReceiver =
            [this, mode] {
              return goosestack::makeSvReceiver(blocking_.executor(), mode, kCaptureQueue);
            },
        .makeGoosePublisher =
            [this] { return goosestack::makeGoosePublisher(realTime_.executor(), logToConsole); },
        .makeSvPublisher = [this] { return goosestack::makeSvPublisher(sending_.executor()); },
        .makeVlanSetup = makeVlanSetup,
        .hostExecutor = host_.executor(),
        .listInterfaces = listInterfaces,
        .blockingExecutor = blocking_.executor(),
        .makeAdvertiser = options.advertise ? AdvertiserFactory(makeAdvertiser) : nullptr,
        .authDelay = options.authDelay ? std::optional(AuthDelay()) : std::nullopt,
        .ownerToken = options.ownerToken,
        .returnFreeMemory = returnFreeMemory,
    };
  }

  asio::awaitable<void> serve() {
    const auto started = co_await server_->start(port_);
    if (isStopping_) co_return;
    if (!started) {
      tellWhyNot(started.error());
      exitCode_ = kExitStartFailed;
      signals_.cancel();
      io_.stop();
      co_return;
    }
    const auto listening = "Listening on port " + std::to_string(port_);
    logToConsole("[KorvelTarnlink] " + listening);
    notifyServiceReady(listening);
  }

  void tellWhyNot(const BridgeError& error) const {
    logToConsole("[KorvelTarnlink] Start failed: " + error.description());
    if (error.isAddressInUse()) {
      const auto port = std::to_string(port_);
      logToConsole("[KorvelTarnlink] Another program, perhaps another bridge, listens on port " +
                   port + ": find it with 'ss -ltnp sport = :" + port +
                   "' and end it, or choose another port with --port");
    } else if (isBound_) {
      logToConsole(
          "[KorvelTarnlink] --bind takes addresses of this computer, which 'ip -brief address' "
          "lists");
    }
  }

  asio::awaitable<void> stopOnSignal() {
    boost::system::error_code cancelled;
    co_await signals_.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
    if (cancelled) co_return;
    isStopping_ = true;
    notifyServiceStopping();
    co_await server_->stop();
    io_.stop();
  }

  // The end of its writer, whatever way it comes, ends the input; then it is as if asked to stop.
  asio::awaitable<void> stopWhenInputEnds() {
    input_.assign(::dup(STDIN_FILENO));
    std::array<char, 64> ignored;
    const auto buffer = asio::buffer(ignored);
    boost::system::error_code ended;
    while (!ended && input_.is_open()) {
      co_await input_.async_read_some(buffer, asio::redirect_error(asio::use_awaitable, ended));
    }
    if (input_.is_open()) std::raise(SIGTERM);
  }

  std::uint16_t port_;
  bool isBound_;  // To chosen addresses.
  bool untilInputEnds_;
  asio::io_context io_{1};
  asio::thread_pool blocking_{kBlockingThreads};
  asio::thread_pool host_{1};     // Waits for people and tools, one request at a time.
  asio::thread_pool sending_{1};  // SV frames, which nothing slow may hold up.
  goosestack::RealTimeThread realTime_;
  std::unique_ptr<PreferenceStore> preferences_;
  std::unique_ptr<WebSocketTransport> transport_;
  asio::signal_set signals_;
  asio::posix::stream_descriptor input_{io_};
  std::shared_ptr<BridgeServer> server_;
  bool isStopping_ = false;
  int exitCode_ = 0;
};

}  // namespace

int runBridgeProcess(DaemonOptions options) {
  std::signal(SIGPIPE, SIG_IGN);
  if (const auto reduced = keepOnlyCaptureCapabilities(); !reduced) {
    logToConsole("[KorvelTarnlink] Privileges could not be given up: " + reduced.error().message());
  }
  if (options.showPairingCode) return printPairingCode(options);
  if (const auto refusal = readSecrets(options); !refusal.empty()) {
    logToConsole("[KorvelTarnlink] Start failed: " + refusal);
    return kExitStartFailed;
  }
  tellWhatIsMissing(options);
  return BridgeProcess(options).run();
}

}  // namespace tarnlink
