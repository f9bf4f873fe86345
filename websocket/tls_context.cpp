#include "websocket/tls_context.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <fstream>
#include <system_error>

namespace tarnlink {
namespace {

namespace fs = std::filesystem;

std::string whyUnreadable(const fs::path& file) {
  errno = 0;
  const std::ifstream stream(file);
  if (stream && fs::is_regular_file(file)) return {};
  return std::generic_category().message(errno != 0 ? errno : EINVAL);
}

std::string lastReason() {
  const char* const reason = ERR_reason_error_string(ERR_get_error());
  ERR_clear_error();
  return reason != nullptr ? reason : "no reason given";
}

void configure(SSL_CTX* context) {
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
  // A silent connection keeps no buffers: 34 KiB of its 50.
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
  // Without this OpenSSL would ask on the terminal.
  SSL_CTX_set_default_passwd_cb(context, [](char*, int, int, void*) { return 0; });
}

}  // namespace

boost::system::result<std::shared_ptr<const TlsContext>, std::string> TlsContext::load(
    const fs::path& certificate, const fs::path& key) {
  for (const auto& file : {certificate, key}) {
    if (const auto reason = whyUnreadable(file); !reason.empty()) {
      return file.string() + ": " + reason;
    }
  }
  const auto context = std::make_shared<const TlsContext>(SSL_CTX_new(TLS_server_method()));
  if (context->native() == nullptr) return "TLS: " + lastReason();
  configure(context->native());
  if (SSL_CTX_use_certificate_chain_file(context->native(), certificate.c_str()) != 1) {
    return certificate.string() + ": no certificate in PEM: " + lastReason();
  }
  if (SSL_CTX_use_PrivateKey_file(context->native(), key.c_str(), SSL_FILETYPE_PEM) != 1) {
    return key.string() + ": not the certificate's key in PEM: " + lastReason();
  }
  return context;
}

TlsContext::~TlsContext() {
  SSL_CTX_free(context_);
}

}  // namespace tarnlink
