// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <memory>
#include <string>
#include <thread>

namespace ofswitch {

// SIGTERM, SIGINT, and SIGHUP if it would end the process. Made before any
// other thread, so that one of its own is the only one that takes them.
//
// A classifier that is being built cannot be interrupted and may take longer
// than whoever stops the switch waits. So from the signal on the process has a
// limited time; then it ends, saying what it did not wait for.
class StopRequest {
 public:
  StopRequest();  // throws std::system_error
  ~StopRequest();
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;

  bool isMade() const;
  void wait();

  // What is under way: "while flows were being loaded". A literal.
  void setWork(const char* work);
  // A file that must not stay when the process ends in the midst of it.
  void setFile(const std::string& path);

 private:
  struct State;

  static void serve(State* state);

  std::shared_ptr<State> state_;
  std::thread thread_;
};

}  // namespace ofswitch
