// SPDX-License-Identifier: BSD-3-Clause
//
// try_it PLUGIN: loads the plug-in into a host, sends frames through an
// instance of its class, and tells what came out of which gate.
#include <google/protobuf/wrappers.pb.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "eal.h"
#include "graph.h"
#include "inline_worker.h"
#include "modules/sink.h"
#include "modules/source.h"
#include "packet_pool.h"
#include "plugin.h"

namespace {

void orDie(const std::string& error) {
  if (!error.empty()) {
    std::cerr << "try_it: " << error << "\n";
    exit(1);
  }
}

void orDie(const CommandResponse& response) {
  orDie(response.error().errmsg());
}

google::protobuf::Any limit(uint32_t bytes) {
  google::protobuf::UInt32Value value;
  value.set_value(bytes);
  google::protobuf::Any any;
  any.PackFrom(value);
  return any;
}

void push(Source* source, uint16_t length) {
  bess::Packet* pkt = bess::PacketPool::Default()->Alloc(length);
  memset(pkt->head_data(), 0, length);
  source->Push(pkt);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: try_it PLUGIN\n";
    return 2;
  }
  orDie(bess::InitEal({.memory_mb = 128}));
  orDie(bess::LoadPlugin(argv[1]));

  orDie(bess::CreateModule("Source", "in").response);
  orDie(bess::CreateModule("LengthSplit", "split", limit(100)).response);
  orDie(bess::CreateModule("Sink", "shorter").response);
  orDie(bess::CreateModule("Sink", "longer").response);
  orDie(bess::ConnectModules("in", 0, "split", 0));
  orDie(bess::ConnectModules("split", 0, "shorter", 0));
  orDie(bess::ConnectModules("split", 1, "longer", 0));

  auto* source = static_cast<Source*>(bess::FindModule("in"));
  for (const uint16_t length : {60, 100, 101, 1500, 80}) push(source, length);
  {
    bess::InlineWorker worker;
    worker.Run(source->tasks()[0].get());
  }
  const auto count = [](const char* sink) {
    return static_cast<Sink*>(bess::FindModule(sink))->count();
  };
  const CommandResponse answer = bess::RunModuleCommand("split", "getLonger");
  orDie(answer);
  google::protobuf::UInt64Value longer;
  answer.data().UnpackTo(&longer);
  std::cout << bess::FindModule("split")->GetDesc() << ": " << count("shorter")
            << " frames; longer: " << count("longer") << " frames, "
            << longer.value() << " counted\n";

  const CommandResponse refused =
      bess::RunModuleCommand("split", "setLimit", limit(10));
  std::cout << "setLimit 10: " << refused.error().errmsg() << "\n";

  orDie(bess::DestroyAllModules());
  orDie(bess::UnloadPlugin(argv[1]));
}
