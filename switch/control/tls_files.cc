// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/tls_files.h"

#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <string>

#include "switch/flow/file_text.h"
#include "switch/live/live_switch.h"

namespace ofswitch {
namespace {

std::string readTlsFile(const char* key, const std::string& path) {
  try {
    return readFile(path, kSettingsText);
  } catch (const FileError& error) {
    throw StartError(fmt::format("control.tls.{}: {}", key, error.what()));
  }
}

// gRPC would find out when the first client comes, and then only log it.
void checkFiles(const SwitchConfig& config) {
  const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context(
      SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  const auto check = [](bool good, const char* key, const std::string& path,
                        const char* wanted) {
    ERR_clear_error();
    if (!good) {
      throw StartError(
          fmt::format("control.tls.{}: {}: is no {}", key, path, wanted));
    }
  };
  check(SSL_CTX_use_certificate_chain_file(context.get(),
                                           config.tlsCertificate.c_str()) == 1,
        "certificate", config.tlsCertificate, "certificate in PEM format");
  check(SSL_CTX_load_verify_locations(context.get(), config.tlsClientCa.c_str(),
                                      nullptr) == 1,
        "client_ca", config.tlsClientCa, "certificate in PEM format");
  check(SSL_CTX_use_PrivateKey_file(context.get(), config.tlsKey.c_str(),
                                    SSL_FILETYPE_PEM) == 1,
        "key", config.tlsKey, "private key of the certificate in PEM format");
}

}  // namespace

bool hasTls(const SwitchConfig& config) {
  return !config.tlsCertificate.empty();
}

std::shared_ptr<grpc::ServerCredentials> makeTlsCredentials(
    const SwitchConfig& config) {
  grpc::SslServerCredentialsOptions options(
      GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  options.pem_root_certs = readTlsFile("client_ca", config.tlsClientCa);
  options.pem_key_cert_pairs.push_back(
      {readTlsFile("key", config.tlsKey),
       readTlsFile("certificate", config.tlsCertificate)});
  checkFiles(config);
  return grpc::SslServerCredentials(options);
}

}  // namespace ofswitch
