// SPDX-License-Identifier: BSD-3-Clause
#include "message.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>

CommandResponse CommandSuccess() { return CommandResponse(); }

CommandResponse CommandSuccess(const google::protobuf::Message& reply) {
  CommandResponse response;
  response.mutable_data()->PackFrom(reply);
  return response;
}

CommandResponse CommandFailure(int code) {
  return CommandFailure(
      code, "%s", std::generic_category().message(std::abs(code)).c_str());
}

CommandResponse CommandFailure(int code, const char* fmt, ...) {
  std::va_list args;
  std::va_list again;
  va_start(args, fmt);
  va_copy(again, args);
  const int length = vsnprintf(nullptr, 0, fmt, args);
  va_end(args);

  CommandResponse response;
  response.mutable_error()->set_code(code);
  if (length > 0) {
    std::string text(length, '\0');
    vsnprintf(text.data(), text.size() + 1, fmt, again);
    response.mutable_error()->set_errmsg(std::move(text));
  }
  va_end(again);
  return response;
}
