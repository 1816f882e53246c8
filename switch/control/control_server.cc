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
#include <utility>
#include <vector>

#include "switch/control/connection_door.h"
#include "switch/control/control_socket.h"
#include "switch/control/host_service.h"
#include "switch/control/message_codec.h"
#include "switch/control/switch_service.h"
#include "switch/control/tcp_address.h"
#include "switch/control/tls_files.h"
#include "switch/control/work_queue.h"

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
  if (hasTls(config)) makeTlsCredentials(config);
}

class ControlServer::Impl {
 public:
  explicit Impl(const SwitchConfig& config) {
    // Never shut down again: that would wait up to ten seconds for a thread of
    // gRPC's that polls.
    static const bool isInitialized = (grpc_init(), true);
    static_cast<void>(isInitialized);
    if (!config.controlAddress.empty()) {
      const TcpAddress address = checkedAddress(config);
      tcpCredentials_ = hasTls(config) ? makeTlsCredentials(config)
                                       : grpc::InsecureServerCredentials();
      tcpSocket_ = ListeningSocket::atAddress(config.controlAddress, address,
                                              kAddressKey);
    }
    unixSocket_ = ListeningSocket::atPath(config.controlSocket);
  }

  ~Impl() { stop(); }

  void serve(LiveSwitch* live) {
    commands_ = std::make_unique<WorkQueue>(kCommandThreads, kMostCommands);
    readers_ = std::make_unique<WorkQueue>(kReaderThreads, kMostReaders);
    service_ =
        std::make_unique<SwitchService>(live, commands_.get(), readers_.get());
    hostService_ = std::make_unique<HostService>(commands_.get());
    grpc::EnableDefaultHealthCheckService(true);
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();
    grpc::ServerBuilder builder;
    setLimits(&builder);
    builder.RegisterService(service_.get());
    builder.RegisterService(hostService_.get());
    std::vector<ConnectionDoor::Entrance> entrances;
    entrances.push_back(
        {&unixSocket_, acceptor(&builder, grpc::InsecureServerCredentials())});
    if (tcpCredentials_ != nullptr) {
      entrances.push_back({&tcpSocket_, acceptor(&builder, tcpCredentials_)});
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

  void stop() {
    door_.reset();
    unixSocket_ = {};
    tcpSocket_ = {};
    if (server_ != nullptr) {
      server_->Shutdown(std::chrono::system_clock::now());
      server_.reset();
    }
    service_.reset();
    hostService_.reset();
    commands_.reset();
    readers_.reset();
  }

  uint16_t tcpPort() const {
    return tcpCredentials_ == nullptr ? 0 : tcpSocket_.port();
  }

 private:
  static std::unique_ptr<ConnectionDoor::Acceptor> acceptor(
      grpc::ServerBuilder* builder,
      const std::shared_ptr<grpc::ServerCredentials>& credentials) {
    using Type = grpc::ServerBuilder::experimental_type::ExternalConnectionType;
    return builder->experimental().AddExternalConnectionAcceptor(Type::FROM_FD,
                                                                 credentials);
  }

  std::shared_ptr<grpc::ServerCredentials> tcpCredentials_;  // null: no TCP
  ListeningSocket tcpSocket_;
  ListeningSocket unixSocket_;
  std::unique_ptr<WorkQueue> commands_;
  std::unique_ptr<WorkQueue> readers_;
  std::unique_ptr<SwitchService> service_;
  std::unique_ptr<HostService> hostService_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<ConnectionDoor> door_;
};

ControlServer::ControlServer(const SwitchConfig& config)
    : impl_(std::make_unique<Impl>(config)) {}

ControlServer::~ControlServer() = default;

void ControlServer::serve(LiveSwitch* live) { impl_->serve(live); }

void ControlServer::stop() { impl_->stop(); }

uint16_t ControlServer::tcpPort() const { return impl_->tcpPort(); }

}  // namespace ofswitch
