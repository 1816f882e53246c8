// SPDX-License-Identifier: BSD-3-Clause
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "control.h"
#include "ports/port.h"
#include "qsbr.h"

namespace bess {
namespace {

constexpr std::chrono::milliseconds kRefreshPeriod{100};

// The open ports and, while there are any, the thread that keeps an eye on
// their links. Changed on the command thread.
class PortRegistry {
 public:
  // Never destroyed: workers may run until the process ends.
  static PortRegistry& Instance() {
    static auto* registry = new PortRegistry;
    return *registry;
  }

  Port* Find(const std::string& name) {
    const std::lock_guard lock(mutex_);
    const auto found = Locate(name);
    return found != ports_.end() ? found->get() : nullptr;
  }

  void Add(std::unique_ptr<Port> port) {
    const std::lock_guard lock(mutex_);
    ports_.push_back(std::move(port));
    if (!watcher_.joinable()) {
      watcher_ = std::jthread([this](std::stop_token stop) { Watch(stop); });
    }
  }

  std::unique_ptr<Port> Remove(const std::string& name) {
    std::unique_ptr<Port> port;
    std::jthread watcher;
    {
      const std::lock_guard lock(mutex_);
      const auto found = Locate(name);
      port = std::move(*found);
      ports_.erase(found);
      if (ports_.empty()) {
        watcher = std::move(watcher_);
      }
    }
    return port;
  }

  std::vector<Port*> List() {
    const std::lock_guard lock(mutex_);
    std::vector<Port*> list;
    for (const auto& port : ports_) {
      list.push_back(port.get());
    }
    return list;
  }

 private:
  std::vector<std::unique_ptr<Port>>::iterator Locate(const std::string& name) {
    return std::find_if(ports_.begin(), ports_.end(),
                        [&](const auto& port) { return port->name() == name; });
  }

  void Watch(std::stop_token stop) {
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
      for (const auto& port : ports_) {
        port->Refresh();
      }
      wake_.wait_for(lock, stop, kRefreshPeriod, [] { return false; });
    }
  }

  std::mutex mutex_;
  std::condition_variable_any wake_;
  std::vector<std::unique_ptr<Port>> ports_;
  std::jthread watcher_;
};

}  // namespace

std::string OpenPort(const std::string& name, const PortOptions& options) {
  std::string error;
  ControlThread::Instance().Run([&] {
    if (name.empty()) {
      error = "a port needs a name";
    } else if (FindPort(name) != nullptr) {
      error = "port '" + name + "' exists already";
    }
    if (!error.empty()) {
      return;
    }
    try {
      // A driver may take a second; packet workers do not wait for it.
      const QsbrOffline offline;
      PortRegistry::Instance().Add(std::make_unique<Port>(name, options));
    } catch (const std::runtime_error& failure) {
      error = failure.what();
    }
  });
  return error;
}

std::string ClosePort(const std::string& name) {
  std::string error;
  ControlThread::Instance().Run([&] {
    const Port* port = FindPort(name);
    if (port == nullptr) {
      error = "there is no port '" + name + "'";
    } else if (port->in_use()) {
      error = "port '" + name + "' is in use by modules";
    } else {
      const QsbrOffline offline;
      PortRegistry::Instance().Remove(name);
    }
  });
  return error;
}

Port* FindPort(const std::string& name) {
  return PortRegistry::Instance().Find(name);
}

std::vector<Port*> ListPorts() { return PortRegistry::Instance().List(); }

}  // namespace bess
