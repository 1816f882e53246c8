// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/switch_client.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "switch/client/probe.h"
#include "switch/terminal/standard_error.h"
#include "switch/tls/tls_files.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;

// A switch opens its door first and answers when its flows are loaded. Who
// waits longer than this is told so.
constexpr auto kQuietTime = 2s;

std::shared_ptr<grpc::ChannelCredentials> credentials(const DoorOptions& door) {
  if (door.tlsCa.empty()) return grpc::InsecureChannelCredentials();
  const TlsTexts texts = readTlsFiles({{"--tls-cert", door.tlsCertificate},
                                       {"--tls-key", door.tlsKey},
                                       {"--tls-ca", door.tlsCa}});
  return grpc::SslCredentials({texts.authority, texts.key, texts.certificate});
}

// gRPC takes addresses as URIs.
std::string percentEncoded(const std::string& path) {
  std::string encoded;
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) || std::string("/-._~").find(c) != std::string::npos)
      encoded += c;
    else
      encoded += fmt::format("%{:02X}", byte);
  }
  return encoded;
}

enum class Answer { kReady, kNone, kWrong };

// How the switch takes the connection. `tellWaiting` is called when that takes
// long.
Answer waitForAnswer(grpc::Channel* channel, std::chrono::milliseconds patience,
                     const std::function<void()>& tellWaiting) {
  const auto start = std::chrono::system_clock::now();
  bool isTold = false;
  while (true) {
    const grpc_connectivity_state state = channel->GetState(true);
    if (state == GRPC_CHANNEL_READY) return Answer::kReady;
    if (state == GRPC_CHANNEL_TRANSIENT_FAILURE) return Answer::kWrong;
    const auto limit =
        isTold ? patience
               : std::min<std::chrono::milliseconds>(kQuietTime, patience);
    if (channel->WaitForStateChange(state, start + limit)) continue;
    if (limit == patience) return Answer::kNone;
    tellWaiting();
    isTold = true;
  }
}

// What to try with a peer that speaks, but not as a switch does.
std::string remedy(const DoorOptions& door) {
  if (door.address.empty()) return "";
  return door.tlsCa.empty()
             ? "; it may want --tls-ca, --tls-cert and --tls-key"
             : "; it may not use TLS, or not trust the certificate, or not be "
               "named in its own";
}

std::chrono::milliseconds patienceOf(const DoorOptions& door) {
  return std::chrono::milliseconds(static_cast<int64_t>(door.wait * 1000));
}

std::shared_ptr<grpc::Channel> makeChannel(const DoorOptions& door) {
  // It explains failures on standard error in lines of its own.
  setenv("GRPC_VERBOSITY", "NONE", 0);
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  // It gives up by itself after this time, and must not before we do.
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS,
                   static_cast<int>((patienceOf(door) + 5s).count()));
  const std::string target = door.address.empty()
                                 ? "unix:" + percentEncoded(door.socketPath())
                                 : "dns:///" + door.address;
  return grpc::CreateCustomChannel(target, credentials(door), arguments);
}

}  // namespace

SwitchClient::SwitchClient(const DoorOptions& door)
    : where_(door.address.empty() ? "control socket " + door.socketPath()
                                  : "control address " + door.address) {
  const std::string obstacle = door.address.empty()
                                   ? probeUnixSocket(door.socketPath())
                                   : probeAddress(door.address);
  if (!obstacle.empty()) throw ClientError(where_ + ": " + obstacle);
  channel_ = makeChannel(door);
  const Answer answer = waitForAnswer(channel_.get(), patienceOf(door), [&] {
    printError(
        "ofswitch: {}: waiting up to {:g} s for an answer; the switch "
        "may still be loading its flows\n",
        where_, door.wait);
  });
  if (answer == Answer::kNone) {
    throw ClientError(fmt::format(
        "{}: something listens there, but it did not answer within {:g} s; if "
        "it is a switch that loads many flows, say --wait SECONDS",
        where_, door.wait));
  }
  if (answer == Answer::kWrong) {
    throw ClientError(
        fmt::format("{}: something listens there, but it does "
                    "not answer as a switch does{}",
                    where_, remedy(door)));
  }
  stub_ = pb::Switch::NewStub(channel_);
}

void SwitchClient::check(const grpc::Status& status) const {
  switch (status.error_code()) {
    case grpc::StatusCode::OK:
      return;
    case grpc::StatusCode::INVALID_ARGUMENT:  // says what is wrong by itself
      throw ClientError(status.error_message());
    case grpc::StatusCode::UNAVAILABLE:
      throw ClientError(where_ + ": the switch has stopped, or hung up: " +
                        status.error_message());
    case grpc::StatusCode::UNIMPLEMENTED:
      throw ClientError(fmt::format("{}: this switch cannot do that: {}",
                                    where_, status.error_message()));
    default:
      throw ClientError(fmt::format("{}: {}", where_, status.error_message()));
  }
}

}  // namespace ofswitch
