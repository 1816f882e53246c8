// SPDX-License-Identifier: BSD-3-Clause
#include "switch/tls/tls_files.h"

#include <fmt/format.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>
#include <string_view>

#include "switch/flow/file_text.h"

namespace ofswitch {
namespace {

template <auto kFree>
struct Freed {
  template <class T>
  void operator()(T* object) const {
    kFree(object);
  }
};
using Certificate = std::unique_ptr<X509, Freed<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using Bytes = std::unique_ptr<BIO, Freed<BIO_free>>;

[[noreturn]] void fail(const TlsFile& file, std::string_view reason) {
  throw TlsError(fmt::format("{}: {}: {}", file.name, file.path, reason));
}

std::string textOf(const TlsFile& file) {
  try {
    return readFile(file.path, kSettingsText);
  } catch (const FileError& error) {
    throw TlsError(fmt::format("{}: {}", file.name, error.what()));
  }
}

Bytes bytesOf(const std::string& text) {
  return Bytes(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// OpenSSL would ask for one on the terminal.
int noPassword(char*, int, int, void* asked) {
  *static_cast<bool*>(asked) = true;
  return -1;
}

// The first one; those of its authorities may follow.
Certificate certificateIn(const TlsFile& file, const std::string& text) {
  const Bytes bytes = bytesOf(text);
  const auto next = [&] {
    return Certificate(
        PEM_read_bio_X509(bytes.get(), nullptr, nullptr, nullptr));
  };
  ERR_clear_error();
  Certificate first = next();
  while (first && next()) {
  }
  const bool isRead =
      ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  ERR_clear_error();
  if (!first || !isRead) fail(file, "is no certificate in PEM format");
  return first;
}

Key keyIn(const TlsFile& file, const std::string& text) {
  bool isAsked = false;
  Key key(PEM_read_bio_PrivateKey(bytesOf(text).get(), nullptr, noPassword,
                                  &isAsked));
  ERR_clear_error();
  if (isAsked) fail(file, "needs a password, which nobody is asked for");
  if (!key) fail(file, "is no private key in PEM format");
  return key;
}

}  // namespace

TlsTexts readTlsFiles(const TlsFiles& files) {
  const TlsTexts texts = {textOf(files.certificate), textOf(files.key),
                          textOf(files.authority)};
  const Certificate own = certificateIn(files.certificate, texts.certificate);
  const Key key = keyIn(files.key, texts.key);
  const bool isPair = X509_check_private_key(own.get(), key.get()) == 1;
  ERR_clear_error();
  if (!isPair) {
    fail(files.key, fmt::format("is not the private key of the certificate {}",
                                files.certificate.path));
  }
  certificateIn(files.authority, texts.authority);
  return texts;
}

}  // namespace ofswitch
