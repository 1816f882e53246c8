// SPDX-License-Identifier: BSD-3-Clause
#include "switch/telemetry/metrics_server.h"

#include <fmt/format.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <future>
#include <optional>
#include <vector>

#include "switch/telemetry/metric_families.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;

class SwitchCollector : public prometheus::Collectable {
 public:
  SwitchCollector(const LiveSwitch& live, size_t mostFlows)
      : live_(live), mostFlows_(mostFlows) {}

  // On a thread of the server's, several at a time.
  std::vector<prometheus::MetricFamily> Collect() const override {
    const std::optional<LiveSwitch::Reading> reading = live_.read(mostFlows_);
    return reading ? metricFamilies(*reading)
                   : std::vector<prometheus::MetricFamily>();
  }

 private:
  const LiveSwitch& live_;
  const size_t mostFlows_;
};

// A TCP socket of this process.
class Socket {
 public:
  Socket() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~Socket() { close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// 0 when somebody could listen there.
int bindError(const ListenAddress& address) {
  const Socket probe;
  const sockaddr_in where = address.socketAddress();
  const int on = 1;
  setsockopt(probe.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  return bind(probe.fd(), reinterpret_cast<const sockaddr*>(&where),
              sizeof(where)) == 0
             ? 0
             : errno;
}

// Why nobody can listen there; the HTTP server does not tell.
std::string whyNot(const ListenAddress& address) {
  const int error = bindError(address);
  return error == 0 ? "the HTTP server does not start" : std::strerror(error);
}

void knock(const ListenAddress& address) {
  const Socket visitor;
  const sockaddr_in where = address.socketAddress();
  connect(visitor.fd(), reinterpret_cast<const sockaddr*>(&where),
          sizeof(where));
}

// Another address of the same kind.
ListenAddress neighbour(ListenAddress address) {
  address.port += address.port < UINT16_MAX ? 1 : -1;
  return address;
}

std::unique_ptr<prometheus::Exposer> listen(const ListenAddress& address) {
  // More threads than scrapers, because a connection that is kept open keeps
  // its thread until it times out.
  const std::vector<std::string> options = {
      "listening_ports",    address.text(), "num_threads", "4",
      "request_timeout_ms", "5000"};
  return std::make_unique<prometheus::Exposer>(options);
}

}  // namespace

std::string metricsObstacle(const std::string& text) {
  const std::optional<ListenAddress> address = parseListenAddress(text);
  if (!address) return "";
  const int error = bindError(*address);
  return error == 0 ? "" : std::strerror(error);
}

MetricsServer::MetricsServer(const LiveSwitch& live, const std::string& text,
                             size_t mostFlows)
    : collector_(std::make_shared<SwitchCollector>(live, mostFlows)) {
  std::optional<ListenAddress> address = parseListenAddress(text);
  if (!address || !address->loopback()) {
    throw StartError(
        fmt::format("metrics: \"{}\" is no loopback address", text));
  }
  try {
    exposer_ = listen(*address);
  } catch (const std::exception&) {
    throw StartError(fmt::format(
        "metrics: cannot listen on {}: {}; give another address, such as "
        "\"metrics: {}\", or \"metrics: false\"",
        address->text(), whyNot(*address), neighbour(*address).text()));
  }
  exposer_->RegisterCollectable(collector_);
  address->port = static_cast<uint16_t>(exposer_->GetListeningPorts().at(0));
  address_ = *address;
}

// The HTTP server sees that it is to stop when somebody comes, or else after
// two seconds.
MetricsServer::~MetricsServer() {
  const auto stopped =
      std::async(std::launch::async, [this] { exposer_.reset(); });
  do {
    knock(address_);
  } while (stopped.wait_for(10ms) != std::future_status::ready);
}

std::string MetricsServer::url() const {
  return "http://" + address_.text() + "/metrics";
}

}  // namespace ofswitch
