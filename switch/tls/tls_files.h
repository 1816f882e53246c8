// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <stdexcept>
#include <string>

namespace ofswitch {

// A line that names the file and says what is wrong with it.
struct TlsError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A file, and what a person called it by: an option, a key of a configuration.
struct TlsFile {
  std::string name;
  std::string path;
};

// What one end of a connection has: its own certificate with the private key,
// and the authority that signed the certificate of the other end.
struct TlsFiles {
  TlsFile certificate;
  TlsFile key;
  TlsFile authority;
};

// Their texts, in PEM format.
struct TlsTexts {
  std::string certificate;
  std::string key;
  std::string authority;
};

// Reads them and looks whether they are what they are called: gRPC would find
// out when a connection is made, and then not say what it has found. Throws
// TlsError.
TlsTexts readTlsFiles(const TlsFiles& files);

}  // namespace ofswitch
