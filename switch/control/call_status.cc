// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/call_status.h"

#include <algorithm>
#include <new>
#include <string>

#include "switch/control/message_codec.h"
#include "switch/flow/refused.h"
#include "switch/live/live_switch.h"

namespace ofswitch {
namespace {

// Clients refuse headers above 8 KiB, in which other bytes than ASCII take
// three times their room.
constexpr size_t kLongestText = 1000;

}  // namespace

grpc::Status callStatus(grpc::StatusCode code, std::string_view text) {
  std::string line(text.substr(0, kLongestText));
  std::ranges::replace_if(
      line, [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
  if (text.size() > kLongestText) line += "...";
  return {code, line};
}

grpc::Status tooManyCalls() {
  return callStatus(grpc::StatusCode::RESOURCE_EXHAUSTED,
                    "too many requests at once; try again");
}

grpc::Status statusOf(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const BadMessage& bad) {
    return callStatus(bad.isTooLong ? grpc::StatusCode::RESOURCE_EXHAUSTED
                                    : grpc::StatusCode::INVALID_ARGUMENT,
                      bad.what());
  } catch (const BadRequest& bad) {
    return callStatus(grpc::StatusCode::INVALID_ARGUMENT, bad.what());
  } catch (const Refused& refused) {
    return callStatus(grpc::StatusCode::INVALID_ARGUMENT, refused.what());
  } catch (const std::bad_alloc&) {
    return callStatus(grpc::StatusCode::RESOURCE_EXHAUSTED,
                      "there is not enough memory for this request");
  } catch (const std::exception& other) {
    return callStatus(grpc::StatusCode::INTERNAL, other.what());
  } catch (...) {
    return callStatus(grpc::StatusCode::INTERNAL, "something unknown failed");
  }
}

}  // namespace ofswitch
