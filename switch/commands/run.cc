// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch run: the switch itself, in the foreground until it is told to stop.
#include <fmt/core.h>
#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "switch/commands/commands.h"
#include "switch/commands/service_notice.h"
#include "switch/commands/stop_request.h"
#include "switch/control/control_server.h"
#include "switch/live/config.h"
#include "switch/live/flow_files.h"
#include "switch/live/live_switch.h"
#include "switch/telemetry/dpdk_telemetry.h"
#include "switch/telemetry/metrics_server.h"
#include "switch/terminal/amounts.h"
#include "switch/terminal/standard_error.h"
#include "switch/terminal/standard_output.h"

namespace ofswitch {
namespace {

constexpr char kLoading[] = "while flows were being loaded";

struct RunOptions {
  std::string config = kDefaultConfig;
  bool check = false;
};

std::string workersText(const SwitchConfig& config) {
  std::string cores;
  for (const int core : config.workers) {
    if (core >= 0)
      cores += fmt::format("{}{}", cores.empty() ? "" : ", ", core);
  }
  std::string text = plural(config.workers.size(), "worker");
  return cores.empty() ? text : text + fmt::format(" on core {}", cores);
}

void printSummary(const LiveSwitch& live) {
  const SwitchConfig& config = live.config();
  for (const std::string& note : live.startNotes()) {
    printMessage("note: {}\n", printable(note));
  }
  const pb::PortsReply ports = live.ports();
  for (const pb::Port& port : ports.ports()) {
    if (port.port() == 0) continue;
    printMessage("port {} {}: {} ({}), {}, {}, MTU {}, link {}\n", port.port(),
                 port.name(), port.device(), port.driver(), port.mac(),
                 plural(port.rx_queues(), "queue"), port.mtu(),
                 port.link_up() ? "up" : "down");
  }
  printMessage("running: {}, {}, {}\n", plural(config.ports.size(), "port"),
               workersText(config), plural(live.stats().flows(), "flow"));
  std::fflush(stdout);
}

void printEnd(const pb::StatsReply& stats) {
  uint64_t dropped = 0;
  for (const pb::DropCause& cause : stats.drops()) dropped += cause.packets();
  printMessage("stopped: {} received, {} sent, {} dropped\n",
               plural(stats.packets_received(), "packet"), stats.packets_sent(),
               dropped);
}

// What can be said without starting anything.
int check(const SwitchConfig& config) {
  checkControlAddress(config);
  const std::string obstacle = metricsObstacle(config.metricsAddress);
  if (!obstacle.empty()) {
    printError(
        "note: metrics: {}: {}; if it is not this switch that runs and "
        "has it, give another address, or \"metrics: false\"\n",
        config.metricsAddress, obstacle);
  }
  const ConfiguredFlows files = readFlowFiles(config);
  for (const std::string& refusal : files.refusals) printError("{}\n", refusal);
  fmt::print("{}: {}, {}, {}, {} refused\n", config.file,
             plural(config.ports.size(), "port"), workersText(config),
             plural(files.flows.size(), "flow"), files.refusals.size());
  return files.refusals.empty() ? 0 : 1;
}

// Null when the configuration wants none.
std::unique_ptr<MetricsServer> serveMetrics(const LiveSwitch& live) {
  const SwitchConfig& config = live.config();
  if (config.metricsAddress.empty()) return nullptr;
  auto server = std::make_unique<MetricsServer>(live, config.metricsAddress,
                                                config.metricsFlows);
  printMessage("metrics: {}\n", server->url());
  return server;
}

// The system chooses the port where the configuration says 0.
void printDoor(const SwitchConfig& config, uint16_t port) {
  printMessage("control: {}\n", config.controlSocket);
  const std::string& address = config.controlAddress;
  if (!address.empty()) {
    printMessage("control: {}:{}{}\n", address.substr(0, address.rfind(':')),
                 port, config.tlsCertificate.path.empty() ? "" : " with TLS");
  }
}

// What a switch that is told to stop may have to wait for.
const char* workOf(const LiveSwitch& live) {
  return live.isChangingFlows() ? "while flows were being changed"
                                : "before its ports were closed";
}

int run(const RunOptions& options) {
  SwitchConfig config = loadConfig(options.config);
  if (options.check) return check(config);
  config.dpdkTelemetry = true;
  // It outlives whoever reads its messages.
  signal(SIGPIPE, SIG_IGN);
  StopRequest stop;
  stop.setWork(kLoading);
  ControlSockets sockets(config);
  stop.setFile(config.controlSocket);
  LiveSwitch live(config);
  try {
    live.start([&stop] { return stop.isMade(); });
  } catch (const StartCancelled&) {
    printMessage("stopped {}\n", kLoading);
    return 0;
  }
  const std::unique_ptr<MetricsServer> metrics = serveMetrics(live);
  const DpdkTelemetry telemetry(live);
  ControlServer control(std::move(sockets), &live);
  printDoor(live.config(), control.tcpPort());
  printMessage("DPDK telemetry: {}\n", DpdkTelemetry::command());
  printSummary(live);
  tellServiceManager("READY=1");
  stop.wait();
  tellServiceManager("STOPPING=1");
  stop.setWork(workOf(live));
  stop.setFile("");  // its path is free from here on: for another switch, too
  control.stop();
  stop.setWork(workOf(live));
  printEnd(live.stop());
  return live.captureError().empty() ? 0 : 1;  // it was told when it came
}

}  // namespace

void addRunCommand(CLI::App* app, int* status) {
  CLI::App* command =
      app->add_subcommand("run", "Run the switch until SIGTERM or Ctrl-C");
  auto options = std::make_shared<RunOptions>();
  command
      ->add_option("-c,--config", options->config,
                   "Configuration file (examples/switch.yaml explains all)")
      ->type_name("FILE.yaml")
      ->capture_default_str();
  command->add_flag(
      "--check", options->check,
      "Only say whether the configuration and its flows can be taken");
  command->callback([options, status] { *status = run(*options); });
}

}  // namespace ofswitch
