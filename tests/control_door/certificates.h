// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/captures/capture_files.h"

namespace ofswitch {

// Authorities and certificates, made by openssl(1).
class Certificates {
 public:
  Certificates() {
    makeAuthority("ca");
    makeAuthority("other");
    makeCertificate("server", "ca");
    makeCertificate("client", "ca");
    makeCertificate("stranger", "other");
  }

  std::string path(const std::string& name) const { return dir_ / name; }
  std::string text(const std::string& name) const {
    return openflow_test::readFile(path(name));
  }

 private:
  static void run(const std::string& arguments) {
    const std::string command = "openssl " + arguments + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  void makeAuthority(const std::string& name) const {
    run(
        fmt::format("req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN={0} "
                    "-keyout {1}.key -out {1}.pem",
                    name, path(name)));
  }

  void makeCertificate(const std::string& name,
                       const std::string& authority) const {
    run(
        fmt::format("req -newkey rsa:2048 -nodes -subj /CN={0} "
                    "-addext subjectAltName=IP:127.0.0.1 -keyout {1}.key "
                    "-out {1}.csr",
                    name, path(name)));
    run(
        fmt::format("x509 -req -days 2 -copy_extensions copy -in {0}.csr "
                    "-CA {1}.pem -CAkey {1}.key -CAcreateserial -out {0}.pem",
                    path(name), path(authority)));
  }

  openflow_test::ScratchDir dir_;
};

// Made once a process.
inline const Certificates& certificates() {
  static const Certificates made;
  return made;
}

}  // namespace ofswitch
