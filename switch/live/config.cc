// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/config.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <sstream>

#include "switch/flow/diagnostic.h"
#include "switch/flow/file_text.h"
#include "switch/flow/flow.h"
#include "switch/live/listen_address.h"
#include "switch/live/log_levels.h"
#include "switch/live/yaml_section.h"

namespace ofswitch {
namespace {

constexpr unsigned kMaxWorkers = 16;
constexpr unsigned kMaxCore = 1023;

// Of the longest jumbo frames that network cards know.
constexpr unsigned kMaxMtu = 9710;

// Paths are meant from the folder of the file.
std::string resolved(const std::string& file, const std::string& path) {
  if (path.empty()) return path;
  return (std::filesystem::path(file).parent_path() / path).lexically_normal();
}

ConfiguredFile readFileName(const YamlSection& section, const YAML::Node& node,
                            const char* key) {
  return {resolved(section.file(), section.toText(node, key)),
          section.place(node)};
}

void readFileName(YamlSection& section, const char* key, ConfiguredFile* file) {
  section.each(key, [&](const YAML::Node& node) {
    *file = readFileName(section, node, key);
  });
}

void readPort(YamlSection& section, SwitchConfig* config) {
  PortConfig port;
  if (!section.has("number")) section.fail("a port needs a number");
  section.number("number", 1, kMaxPort, &port.number);
  section.each("device", [&](const YAML::Node& node) {
    port.device = section.toText(node, "device");
    port.place = section.place(node);
  });
  if (port.device.empty()) {
    section.fail(
        "a port needs a device, such as 0000:03:00.0 or "
        "net_af_packet0,iface=eth1");
  }
  port.name = fmt::format("port{}", port.number);
  section.text("name", &port.name);
  section.number("queues", 1, 64, &port.queues);
  section.number("mtu", 68, kMaxMtu, &port.mtu);
  for (const PortConfig& other : config->ports) {
    if (other.number == port.number) {
      section.fail(fmt::format("port {} is there twice", port.number));
    }
    if (other.name == port.name) {
      section.fail(fmt::format("two ports have the name \"{}\"", port.name));
    }
  }
  if (port.name.empty() || port.name.find_first_not_of(
                               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQR"
                               "STUVWXYZ0123456789_.-") != std::string::npos) {
    section.fail(
        fmt::format("\"{}\": a name is made of letters, digits, \"_\", \".\" "
                    "and \"-\"",
                    port.name));
  }
  config->ports.push_back(std::move(port));
}

// "workers: 2" leaves their cores to the system, "workers: [2, 3]" pins them.
void readWorkers(YamlSection& file, SwitchConfig* config) {
  file.each("workers", [&](const YAML::Node& node) {
    config->workers.clear();
    config->workersPlace = file.place(node);
    if (node.IsScalar()) {
      config->workers.assign(file.toNumber(node, "workers", 1, kMaxWorkers),
                             -1);
      return;
    }
    if (!node.IsSequence()) {
      file.failAt(node, "workers: must be a number, or a list of cores");
    }
    std::set<int> seen;
    for (const YAML::Node& item : node) {
      const auto core =
          static_cast<int>(file.toNumber(item, "workers", 0, kMaxCore));
      if (!seen.insert(core).second) {
        file.failAt(item, fmt::format("workers: core {} is there twice", core));
      }
      config->workers.push_back(core);
    }
    if (config->workers.empty() || config->workers.size() > kMaxWorkers) {
      file.failAt(node,
                  fmt::format("workers: must be 1 to {} cores", kMaxWorkers));
    }
  });
}

void readControl(YamlSection& control, SwitchConfig* config) {
  control.text("socket", &config->controlSocket);
  config->controlSocket = resolved(control.file(), config->controlSocket);
  control.text("address", &config->controlAddress);
  control.section("tls", [&](YamlSection& tls) {
    readFileName(tls, "certificate", &config->tlsCertificate);
    readFileName(tls, "key", &config->tlsKey);
    readFileName(tls, "client_ca", &config->tlsClientCa);
    if (config->tlsCertificate.path.empty() || config->tlsKey.path.empty() ||
        config->tlsClientCa.path.empty()) {
      tls.fail("control.tls: needs certificate, key and client_ca");
    }
  });
}

void readMemory(YamlSection& memory, SwitchConfig* config) {
  memory.number("mb", 64, 1u << 20, &config->memoryMb);
  memory.flag("hugepages", &config->hugepages);
  memory.number("buffers", 511, (1u << 24) - 1, &config->packetBuffers);
  memory.number("build_mb", 16, 1u << 20, &config->buildMb);
}

// Metrics go out unencrypted to whoever asks, and matches name the addresses of
// a network.
void checkMetricsAddress(const YamlSection& file, const YAML::Node& node,
                         const std::string& text) {
  const std::optional<ListenAddress> address = parseListenAddress(text);
  if (!address) {
    file.failAt(node,
                fmt::format("metrics: \"{}\" must be an IPv4 address and a "
                            "port, such as 127.0.0.1:9469, or false",
                            text));
  }
  if (!address->loopback()) {
    file.failAt(node, fmt::format("metrics: \"{}\" must be a loopback address, "
                                  "such as 127.0.0.1:{}, because metrics are "
                                  "not encrypted; a proxy with TLS can pass "
                                  "them on",
                                  text, address->port));
  }
}

void readMetricsAddress(const YamlSection& file, const YAML::Node& node,
                        SwitchConfig* config) {
  const std::string text = file.toText(node, "metrics");
  const bool wanted = text != "false" && !text.empty();
  if (wanted) checkMetricsAddress(file, node, text);
  config->metricsAddress = wanted ? text : "";
}

// "metrics: 127.0.0.1:9469", or a section with more to it.
void readMetrics(YamlSection& file, const std::string& name,
                 SwitchConfig* config) {
  file.each("metrics", [&](const YAML::Node& node) {
    if (!node.IsMap()) return readMetricsAddress(file, node, config);
    YamlSection metrics(node, name, "metrics");
    metrics.each("address", [&](const YAML::Node& address) {
      readMetricsAddress(metrics, address, config);
    });
    metrics.number("flows", 0, 1u << 20, &config->metricsFlows);
    metrics.finish();
  });
}

void readLog(YamlSection& log, SwitchConfig* config) {
  for (const char* facility : kLogFacilities) {
    log.each(facility, [&](const YAML::Node& node) {
      config->logLevels[facility] = logLevelMask(
          static_cast<uint32_t>(log.toNumber(node, facility, 0, kMaxLogLevel)));
    });
  }
}

SwitchConfig read(const YAML::Node& root, const std::string& name) {
  SwitchConfig config;
  config.file = name;
  YamlSection file(root, name, "");
  file.sections("ports", [&](YamlSection& port) { readPort(port, &config); });
  readWorkers(file, &config);
  file.section("memory",
               [&](YamlSection& memory) { readMemory(memory, &config); });
  file.list("flows", [&](const YAML::Node& node) {
    config.flowFiles.push_back(readFileName(file, node, "flows"));
  });
  file.section("control",
               [&](YamlSection& control) { readControl(control, &config); });
  readMetrics(file, name, &config);
  file.section("controller", [&](YamlSection& controller) {
    readFileName(controller, "capture", &config.controllerCapture);
  });
  file.section("log", [&](YamlSection& log) { readLog(log, &config); });
  readFileName(file, "module", &config.module);
  file.number("counters", 1024, 1u << 28, &config.counters);
  file.finish();

  std::ranges::sort(config.ports, {}, &PortConfig::number);
  return config;
}

// Most often the parser takes such a tab for part of a value, and speaks of
// something else.
bool isIndentedByTab(const std::string& text, int line) {
  std::istringstream lines(text);
  std::string found;
  for (int i = 0; i <= line; i++) std::getline(lines, found);
  const size_t word = found.find_first_not_of(" \t");
  return found.substr(0, word).find('\t') != std::string::npos;
}

std::string reasonOf(const YAML::Exception& error, const std::string& text) {
  return isIndentedByTab(text, error.mark.line)
             ? "a tab in front of the line; YAML indents by blanks"
             : error.msg;
}

}  // namespace

SwitchConfig parseConfig(const std::string& text, const std::string& name) {
  try {
    return read(YAML::Load(text), name);
  } catch (const YAML::Exception& error) {
    throw ConfigError(
        Diagnostic{name, error.mark.line + 1, reasonOf(error, text)}.text());
  }
}

SwitchConfig loadConfig(const std::string& path) {
  std::string text;
  try {
    text = readFile(path, kSettingsText);
  } catch (const FileError& error) {
    throw ConfigError(error.what());
  }
  return parseConfig(text, path);
}

}  // namespace ofswitch
