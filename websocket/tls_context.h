// What a listener serves TLS with (RFC 8446, RFC 5246): its certificate and key.
#pragma once

#include <boost/system/result.hpp>
#include <filesystem>
#include <memory>
#include <string>

struct ssl_ctx_st;

namespace tarnlink {

/// Immutable; connections share it, on any thread.
class TlsContext {
 public:
  /// Reads a certificate with its chain and its key (PEM; without a password). The error names the
  /// file and what is wrong with it. TLS 1.2 and 1.3, no renegotiation.
  static boost::system::result<std::shared_ptr<const TlsContext>, std::string> load(
      const std::filesystem::path& certificate, const std::filesystem::path& key);

  /// For load().
  explicit TlsContext(ssl_ctx_st* owned) : context_(owned) {}
  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  ssl_ctx_st* native() const { return context_; }

 private:
  ssl_ctx_st* const context_;
};

}  // namespace tarnlink
