#include "platform/tls_terminator.h"

#include <dlfcn.h>

#include <boost/asio/local/stream_protocol.hpp>
#include <cerrno>
#include <fstream>
#include <system_error>
#include <utility>

#include "platform/tls_plugin.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using boost::system::error_code;
using Local = boost::asio::local::stream_protocol;

class Terminator final : public TlsTerminator {
 public:
  explicit Terminator(std::unique_ptr<TlsPumps> pumps) : pumps_(std::move(pumps)) {}

  boost::system::result<GatheredStream::Socket> terminate(
      boost::asio::ip::tcp::socket socket) const override {
    error_code error;
    const auto executor = socket.get_executor();
    const int outside = socket.release(error);
    if (error) return error;
    const int inside = pumps_->pump(outside);
    if (inside < 0) return error_code(-inside, boost::system::system_category());
    return GatheredStream::Socket(Local::socket(executor, Local(), inside));
  }

 private:
  std::unique_ptr<TlsPumps> pumps_;
};

std::string whyUnreadable(const fs::path& file) {
  errno = 0;
  const std::ifstream stream(file);
  if (stream && fs::is_regular_file(file)) return {};
  return std::generic_category().message(errno != 0 ? errno : EINVAL);
}

/// Stays loaded: OpenSSL cannot be unloaded.
boost::system::result<MakeTlsPumps, std::string> loadPlugin() {
  std::error_code ignored;
  const auto folder = fs::read_symlink("/proc/self/exe", ignored).parent_path();
  std::string reason;
  // Beside the program as it is built; the error names the place where it is installed.
  for (const auto& path :
       {folder / TARNLINK_TLS_PLUGIN, folder / TARNLINK_PLUGINS / TARNLINK_TLS_PLUGIN}) {
    void* const library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const symbol = library != nullptr ? ::dlsym(library, kMakeTlsPumps) : nullptr;
    if (symbol != nullptr) return reinterpret_cast<MakeTlsPumps>(symbol);
    reason = ::dlerror();  // NOLINT(concurrency-mt-unsafe): each thread has its own in glibc
  }
  return "TLS needs a plug-in: " + reason;
}

}  // namespace

boost::system::result<std::shared_ptr<const TlsTerminator>, std::string> loadTlsTerminator(
    const fs::path& certificate, const fs::path& key) {
  for (const auto& file : {certificate, key}) {
    if (const auto reason = whyUnreadable(file); !reason.empty()) {
      return file.string() + ": " + reason;
    }
  }
  const auto make = loadPlugin();
  if (!make) return make.error();
  std::string error;
  std::unique_ptr<TlsPumps> pumps((*make)(certificate.c_str(), key.c_str(), error));
  if (!pumps) return error;
  return std::make_shared<const Terminator>(std::move(pumps));
}

}  // namespace tarnlink
