// SPDX-License-Identifier: BSD-3-Clause
#include "probe.h"

#include <cstring>
#include <stdexcept>

#include "internal/registered_class.h"

using bess::Packet;
using bess::PacketBatch;

const Commands Probe::cmds = {
    {"safe", "EmptyArg", MODULE_CMD_FUNC(&Probe::Safe), THREAD_SAFE},
    {"unsafe", "EmptyArg", MODULE_CMD_FUNC(&Probe::Unsafe),
     Command::THREAD_UNSAFE},
    {"throw", "EmptyArg", MODULE_CMD_FUNC(&Probe::Throw), THREAD_SAFE},
    {"echo", "Error", MODULE_CMD_FUNC(&Probe::Echo), Command::THREAD_SAFE},
};

Probe::InitOutcome Probe::next_init = Probe::InitOutcome::kSucceed;

namespace {
const bess::internal::RegisteredClass<Probe> probe_class(
    "Probe", "probe", "does what a test says");
}  // namespace

std::vector<std::string>& Probe::log() {
  static std::vector<std::string> log;
  return log;
}

Probe::~Probe() { log().push_back("delete " + name()); }

CommandResponse Probe::Init(const bess::pb::EmptyArg&) {
  log().push_back("Init " + name());
  switch (std::exchange(next_init, InitOutcome::kSucceed)) {
    case InitOutcome::kFail:
      return CommandFailure(EDOM, "told to fail");
    case InitOutcome::kThrow:
      throw std::runtime_error("failed to construct");
    case InitOutcome::kSucceed:
      break;
  }
  RegisterTask(nullptr);
  return CommandSuccess();
}

void Probe::DeInit() {
  log().push_back("DeInit " + name());
  if (throw_in_deinit) {
    throw std::runtime_error("failed to destruct object");
  }
}

task_result Probe::RunTask(Context* ctx, PacketBatch* batch, void*) {
  if (on_run) {
    on_run(ctx, batch);
  }
  return {.block = false, .packets = 0, .bits = 0};
}

void Probe::ProcessBatch(Context* ctx, PacketBatch* batch) {
  if (on_batch) {
    on_batch(ctx, batch);
  } else {
    Module::ProcessBatch(ctx, batch);
  }
}

int Probe::OnEvent(bess::Event event) {
  log().push_back(event == bess::Event::PreResume ? "PreResume " + name()
                                                  : "?");
  return 0;
}

CommandResponse Probe::Safe(const bess::pb::EmptyArg&) {
  return CommandSuccess();
}

CommandResponse Probe::Unsafe(const bess::pb::EmptyArg&) {
  return CommandSuccess();
}

CommandResponse Probe::Throw(const bess::pb::EmptyArg&) {
  throw std::runtime_error("out of a command");
}

CommandResponse Probe::Echo(const bess::pb::Error& error) {
  return CommandSuccess(error);
}

HostTest::HostTest() : pool_(bess::PacketPool::Default()) {
  Probe::log().clear();
  available_before_ = pool_->available();
}

HostTest::~HostTest() {
  Worker::StopAll();
  bess::DestroyAllModules();
  EXPECT_EQ(pool_->available(), available_before_) << "packets leaked";
}

Probe* HostTest::MakeProbe(const std::string& name) {
  const auto made = bess::CreateModule("Probe", name);
  EXPECT_EQ(made.response.error().errmsg(), "");
  return static_cast<Probe*>(made.module);
}

Sink* HostTest::MakeSink(const std::string& name) {
  const auto made = bess::CreateModule("Sink", name);
  EXPECT_EQ(made.response.error().errmsg(), "");
  return static_cast<Sink*>(made.module);
}

void HostTest::Connect(const Module* from, gate_idx_t ogate, const Module* to,
                       gate_idx_t igate) {
  const auto response =
      bess::ConnectModules(from->name(), ogate, to->name(), igate);
  EXPECT_EQ(response.error().errmsg(), "");
}

Packet* HostTest::MakePacket(const std::string& text) {
  Packet* pkt =
      bess::PacketPool::Default()->Alloc(static_cast<uint16_t>(text.size()));
  if (pkt == nullptr) {
    ADD_FAILURE() << "pool dry";
    return nullptr;
  }
  memcpy(pkt->head_data<char*>(), text.data(), text.size());
  return pkt;
}

std::vector<std::string> HostTest::Texts(
    const std::vector<Sink::Captured>& captured) {
  std::vector<std::string> texts;
  for (const Sink::Captured& one : captured) {
    texts.push_back(one.bytes);
  }
  return texts;
}
