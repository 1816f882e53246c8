// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "switch/live/listen_address.h"
#include "switch/live/live_switch.h"

namespace prometheus {
class Collectable;
class Exposer;
}  // namespace prometheus

namespace ofswitch {

// Why nothing can listen at such an address now, or nothing.
std::string metricsObstacle(const std::string& address);

// Serves /metrics to Prometheus, over HTTP. Every scrape reads the switch anew,
// on the host's command thread: workers do not notice, but a scrape waits while
// flows are being changed.
class MetricsServer {
 public:
  // At a loopback address such as "127.0.0.1:9469"; port 0 takes any. Flows
  // beyond the first `mostFlows` have no series. Throws StartError. The switch
  // must outlive the server; while it does not run, it has no metrics.
  MetricsServer(const LiveSwitch& live, const std::string& address,
                size_t mostFlows);
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  // "http://127.0.0.1:9469/metrics"
  std::string url() const;

 private:
  std::shared_ptr<prometheus::Collectable> collector_;
  std::unique_ptr<prometheus::Exposer> exposer_;
  ListenAddress address_;
};

}  // namespace ofswitch
