// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/control_server.h"

#include <fmt/format.h>
#include <grpc/grpc.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/health_check_service_interface.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <utility>
#include <vector>

#include "switch/control/connection_door.h"
#include "switch/control/control_socket.h"
#include "switch/control/grpc_log.h"
#include "switch/control/host_service.h"
#include "switch/control/message_codec.h"
#include "switch/control/switch_service.h"
#include "switch/control/tcp_address.h"
#include "switch/control/work_queue.h"
#include "switch/tls/tls_files.h"

namespace ofswitch {
namespace {

using std::chrono::milliseconds;

constexpr unsigned kCommandThreads = 4;
constexpr unsigned kReaderThreads = 2;
// Calls that can be under way at once: those that the command thread answers,
// and readers of the log, of which most wait for something to happen.
constexpr size_t kMostCommands = 4096;
constexpr size_t kMostReaders = 4096;

constexpr size_t kMostConnections = 4096;
constexpr int kMostCallsOfConnection = 128;
// What requests and replies that are under way may take up.
constexpr size_t kMemory = size_t{512} << 20;
// For reflection, whose calls take one each.
constexpr int kMostThreads = 16;
constexpr size_t kFrame = 1024;  // around a message

constexpr milliseconds kHandshakeTime{10'000};
// After how long a silent client is asked whether it is still there, and how
// long it has to say so.
constexpr milliseconds kKeepaliveTime{60'000};
constexpr milliseconds kKeepaliveTimeout{20'000};
constexpr milliseconds kLeastPingTime{5'000};
// For clients to take the end of their calls.
constexpr milliseconds kPartingTime{200};

// A connection takes a descriptor. Others are left for ports and files.
size_t connectionLimit() {
  constexpr rlim_t kOthers = 256;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 512;
  limit.rlim_cur = std::min<rlim_t>(
      limit.rlim_max,
      std::max<rlim_t>(limit.rlim_cur, kMostConnections + kOthers));
  setrlimit(RLIMIT_NOFILE, &limit);
  getrlimit(RLIMIT_NOFILE, &limit);
  return std::min<size_t>(kMostConnections, limit.rlim_cur > 2 * kOthers
                                                ? limit.rlim_cur - kOthers
                                                : limit.rlim_cur / 2);
}

bool hasTls(const SwitchConfig& config) {
  return !config.tlsCertificate.path.empty();
}

TlsFile tlsFile(const char* key, const ConfiguredFile& file) {
  return {file.placed(key), file.path};
}

// Credentials that take only clients with a certificate of the configured
// authority.
std::shared_ptr<grpc::ServerCredentials> tlsCredentials(
    const SwitchConfig& config) {
  try {
    const TlsTexts texts =
        readTlsFiles({tlsFile("control.tls.certificate", config.tlsCertificate),
                      tlsFile("control.tls.key", config.tlsKey),
                      tlsFile("control.tls.client_ca", config.tlsClientCa)});
    grpc::SslServerCredentialsOptions options(
        GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
    options.pem_root_certs = texts.authority;
    options.pem_key_cert_pairs.push_back({texts.key, texts.certificate});
    return grpc::SslServerCredentials(options);
  } catch (const TlsError& error) {
    throw StartError(error.what());
  }
}

void setLimits(grpc::ServerBuilder* builder) {
  builder->SetMaxReceiveMessageSize(
      static_cast<int>(kLargeMessage.bytes + kFrame));
  builder->SetResourceQuota(
      grpc::ResourceQuota("control").Resize(kMemory).SetMaxThreads(
          kMostThreads));
  builder->SetSyncServerOption(grpc::ServerBuilder::NUM_CQS, 1);
  builder->SetSyncServerOption(grpc::ServerBuilder::MIN_POLLERS, 1);
  builder->SetSyncServerOption(grpc::ServerBuilder::MAX_POLLERS, 1);
  const auto setTime = [builder](const char* name, milliseconds time) {
    builder->AddChannelArgument(name, static_cast<int>(time.count()));
  };
  builder->AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS,
                              kMostCallsOfConnection);
  setTime(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS, kHandshakeTime);
  setTime(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveTime);
  setTime(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, kKeepaliveTimeout);
  setTime(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS,
          kLeastPingTime);
  builder->AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
}

constexpr char kAddressKey[] = "control.address";

TcpAddress checkedAddress(const SwitchConfig& config) {
  TcpAddress address(config.controlAddress, kAddressKey);
  if (!address.isLoopback() && !hasTls(config)) {
    throw StartError(fmt::format(
        "{}: {} can be reached from elsewhere and needs control.tls: "
        "certificate, key and client_ca",
        kAddressKey, config.controlAddress));
  }
  return address;
}

}  // namespace

void checkControlAddress(const SwitchConfig& config) {
  if (config.controlAddress.empty()) return;
  checkedAddress(config);
  if (hasTls(config)) tlsCredentials(config);
}

struct ControlSockets::Impl {
  std::shared_ptr<grpc::ServerCredentials> tcpCredentials;  // null: no TCP
  ListeningSocket tcp;
  ListeningSocket local;
};

ControlSockets::ControlSockets(const SwitchConfig& config)
    : impl_(std::make_unique<Impl>()) {
  // Never shut down again: that would wait up to ten seconds for a thread of
  // gRPC's that polls.
  static const bool isInitialized = (grpc_init(), keepGrpcMessages(), true);
  static_cast<void>(isInitialized);
  if (!config.controlAddress.empty()) {
    const TcpAddress address = checkedAddress(config);
    impl_->tcpCredentials = hasTls(config) ? tlsCredentials(config)
                                           : grpc::InsecureServerCredentials();
    impl_->tcp =
        ListeningSocket::atAddress(config.controlAddress, address, kAddressKey);
  }
  impl_->local = ListeningSocket::atPath(config.controlSocket);
}

ControlSockets::ControlSockets(ControlSockets&&) noexcept = default;
ControlSockets::~ControlSockets() = default;

class ControlServer::Impl {
 public:
  Impl(std::unique_ptr<ControlSockets::Impl> sockets, LiveSwitch* live)
      : sockets_(std::move(sockets)),
        commands_(kCommandThreads, kMostCommands),
        readers_(kReaderThreads, kMostReaders),
        switchService_(live, &commands_, &readers_),
        hostService_(&commands_) {
    grpc::EnableDefaultHealthCheckService(true);
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();
    grpc::ServerBuilder builder;
    setLimits(&builder);
    builder.RegisterService(&switchService_);
    builder.RegisterService(&hostService_);
    std::vector<ConnectionDoor::Entrance> entrances;
    entrances.push_back(
        {&sockets_->local,
         acceptor(&builder, grpc::InsecureServerCredentials())});
    if (sockets_->tcpCredentials != nullptr) {
      entrances.push_back(
          {&sockets_->tcp, acceptor(&builder, sockets_->tcpCredentials)});
    }
    server_ = builder.BuildAndStart();
    if (server_ == nullptr) throw StartError("the control door cannot open");
    for (const char* name : {pb::Switch::service_full_name(),
                             bess::pb::Host::service_full_name()}) {
      server_->GetHealthCheckService()->SetServingStatus(name, true);
    }
    door_ = std::make_unique<ConnectionDoor>(std::move(entrances),
                                             connectionLimit());
  }

  ~Impl() { stop(); }

  void stop() {
    if (server_ == nullptr) return;
    door_->close();
    sockets_.reset();
    // Ends all calls. What is said to a client that takes nothing from its
    // socket waits for ever.
    std::future<void> end = std::async(std::launch::async, [this] {
      server_->Shutdown(std::chrono::system_clock::now());
    });
    if (end.wait_for(kPartingTime) != std::future_status::ready) {
      door_->disconnect();
    }
    end.wait();
    server_.reset();
    door_.reset();
  }

  uint16_t tcpPort() const {
    return sockets_ == nullptr || sockets_->tcpCredentials == nullptr
               ? 0
               : sockets_->tcp.port();
  }

 private:
  static std::unique_ptr<ConnectionDoor::Acceptor> acceptor(
      grpc::ServerBuilder* builder,
      const std::shared_ptr<grpc::ServerCredentials>& credentials) {
    using Type = grpc::ServerBuilder::experimental_type::ExternalConnectionType;
    return builder->experimental().AddExternalConnectionAcceptor(Type::FROM_FD,
                                                                 credentials);
  }

  // From those that are used to those that use them.
  std::unique_ptr<ControlSockets::Impl> sockets_;
  WorkQueue commands_;
  WorkQueue readers_;
  SwitchService switchService_;
  HostService hostService_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<ConnectionDoor> door_;
};

ControlServer::ControlServer(ControlSockets sockets, LiveSwitch* live)
    : impl_(std::make_unique<Impl>(std::move(sockets.impl_), live)) {}

ControlServer::~ControlServer() = default;

void ControlServer::stop() { impl_->stop(); }

uint16_t ControlServer::tcpPort() const { return impl_->tcpPort(); }

}  // namespace ofswitch
