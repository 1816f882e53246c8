// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <string>

namespace ofswitch {

struct HttpAnswer {
  int status = 0;
  std::string headers;
  std::string body;
};

// One request to a server on 127.0.0.1. Throws std::runtime_error when there
// is no answer within ten seconds.
HttpAnswer httpRequest(uint16_t port, const std::string& method,
                       const std::string& path);

// "http://127.0.0.1:9469/metrics" -> 9469
uint16_t portOfUrl(const std::string& url);

// Sends `bytes`, reads nothing and cuts the connection.
void sendAndReset(uint16_t port, const std::string& bytes);

}  // namespace ofswitch
