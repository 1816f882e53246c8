// SPDX-License-Identifier: BSD-3-Clause
//
// What a running switch is made of, as its configuration file says it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ofswitch {

// A file that a configuration names.
struct ConfiguredFile {
  std::string path;        // empty: none
  std::string place = {};  // "switch.yaml:5", where it is named

  // What is wrong with it, behind the place that asked for it.
  std::string placed(const std::string& error) const {
    return place.empty() ? error : place + ": " + error;
  }
};

struct PortConfig {
  uint16_t number = 0;     // 1 to 8191; what flows call it
  std::string name;        // "port1" unless given
  std::string device;      // a PCI address, or a virtual device with arguments
  uint16_t queues = 1;     // to receive from; a device may have fewer to send
  uint16_t mtu = 0;        // 0: as the device has it
  std::string place = {};  // "switch.yaml:5", where the device stands
};

struct SwitchConfig {
  std::string file;  // where it was read

  std::vector<PortConfig> ports;  // ascending by number
  // The core of each worker; -1 leaves a worker to the system's scheduler.
  std::vector<int> workers = {-1};
  std::string workersPlace;  // "switch.yaml:5", where they stand

  size_t memoryMb = 512;
  bool hugepages = false;
  size_t packetBuffers = 16383;
  // Heap that building a classifier may take; 0: a quarter of what is available
  // at the start, 4096 at most.
  size_t buildMb = 0;

  std::vector<ConfiguredFile> flowFiles;  // loaded before the first packet
  ConfiguredFile module;                  // none: where it is installed

  std::string controlSocket = "/run/ofswitch/control.sock";
  // Where else the control door listens; empty: nowhere.
  std::string controlAddress;
  ConfiguredFile tlsCertificate;
  ConfiguredFile tlsKey;
  ConfiguredFile tlsClientCa;

  std::string metricsAddress = "127.0.0.1:9469";  // empty: not served
  size_t metricsFlows = 10'000;  // at most so many have series of their own
  bool dpdkTelemetry = false;    // set by who runs the switch, not by the file
  ConfiguredFile controllerCapture;  // pcap of what goes to the controller

  // Trace levels that also go to standard error, by facility.
  std::map<std::string, uint32_t> logLevels;

  // Flow counters of a worker; each rule of the module takes two.
  uint32_t counters = 1u << 20;
};

// The text is one line that names file and line and says what would be right.
struct ConfigError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Where the configuration is unless somebody says otherwise.
inline constexpr char kDefaultConfig[] = "/etc/ofswitch/switch.yaml";

// Reads a configuration file; paths in it are relative to its folder. Throws
// ConfigError.
SwitchConfig loadConfig(const std::string& path);

// The same from text; `name` stands in errors.
SwitchConfig parseConfig(const std::string& text, const std::string& name);

}  // namespace ofswitch
