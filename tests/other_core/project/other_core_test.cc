// SPDX-License-Identifier: BSD-3-Clause
//
// The module run by another host, whose copies come in used buffers: what our
// own host makes sure of, such as cleared flags and full headroom, the module
// must not take for granted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_eal.h>
#include <urcu-qsbr.h>

#include <cstring>
#include <memory>

#include "modules/openflow/openflow.h"
#include "tests/support/flow.h"
#include "tests/support/frame.h"

namespace openflow_test {
namespace {

using google::protobuf::Any;
using testing::ElementsAre;

constexpr uint64_t kMetadataValid = uint64_t{1} << 0;
constexpr uint64_t kPuntValid = uint64_t{1} << 1;
constexpr uint64_t kInPortValid = uint64_t{1} << 16;
constexpr uint64_t kOthers = uint64_t{1} << 40 | uint64_t{1} << 7;

template <typename T>
T valueAt(const bess::Packet* packet, size_t offset) {
  T value;
  memcpy(&value, packet->metadata<const char*>() + offset, sizeof(value));
  return value;
}

template <typename T>
void put(uint8_t* area, size_t offset, T value) {
  memcpy(area + offset, &value, sizeof(value));
}

uint64_t flagsOf(const bess::Packet* packet) {
  return valueAt<uint64_t>(packet, 0);
}
uint64_t metadataOf(const bess::Packet* packet) {
  return valueAt<uint64_t>(packet, 16);
}
uint32_t inPortOf(const bess::Packet* packet) {
  return valueAt<uint32_t>(packet, 52);
}
uint32_t puntWordOf(const bess::Packet* packet) {
  return valueAt<uint32_t>(packet, 108);
}

Bytes bytesOf(const bess::Packet* packet) {
  const auto* start = packet->head_data<const uint8_t*>();
  return {start, start + packet->head_len()};
}

const ModuleClass& moduleClass() { return ModuleBuilder::classes().at(0); }

class OtherCore : public testing::Test {
 protected:
  OtherCore() : module_(moduleClass().generator()) {
    EXPECT_EQ(moduleClass().init(module_.get(), Any()).error().code(), 0);
    ctx_.task = &task_;
    for (uint32_t t = 0; t < 2; t++) {
      quil::pb::OpenFlowAclArg arg;
      arg.set_tableid(t);
      arg.set_aclid(2 * t);
      arg.set_ipv6aclid(2 * t + 1);
      command(1, arg);
    }
  }

  ~OtherCore() override {
    for (const Emitted& one : emitted) bess::Packet::Free(one.packet);
    for (bess::Packet* packet : dropped) bess::Packet::Free(packet);
    emitted.clear();
    dropped.clear();
    memset(bess::copy_metadata, 0, sizeof(bess::copy_metadata));
    bess::copy_headroom = 128;
    module_->DeInit();
    module_.reset();
    rcu_barrier();
  }

  void command(size_t index, const google::protobuf::Message& arg) {
    Any any;
    any.PackFrom(arg);
    const auto response = moduleClass().cmds.at(index).func(module_.get(), any);
    EXPECT_EQ(response.error().errmsg(), "");
  }

  void add(uint32_t tableId, const Flow& flow) {
    quil::pb::OpenFlowUpdateFlowsArg arg;
    arg.set_tableid(tableId);
    *arg.add_adds() = flow.message();
    command(0, arg);
  }

  // One packet, with metadata 7 and in-port 0x10003.
  void run() {
    bess::Packet* packet = bess::make(kFrame);
    auto* area = packet->metadata<uint8_t*>();
    put(area, 0, kMetadataValid | kInPortValid);
    put(area, 16, uint64_t{7});
    put(area, 52, uint32_t{0x10003});
    bess::PacketBatch batch;
    batch.clear();
    batch.add(packet);
    module_->ProcessBatch(&ctx_, &batch);
  }

  // The areas of copies from now on.
  static void copiesHave(uint64_t flags, uint32_t puntWord) {
    memset(bess::copy_metadata, 0x5a, sizeof(bess::copy_metadata));
    put(bess::copy_metadata, 0, flags);
    put(bess::copy_metadata, 108, puntWord);
  }

  static inline const Bytes kFrame =
      Frame::eth().ipv4(0x0a000001, 0x0a000002).tcp(7, 80);

  std::unique_ptr<Module> module_;
  Task task_;
  Context ctx_ = {};
};

Flow any() { return Flow(1, 10); }

TEST_F(OtherCore, IsToldOfOneClass) {
  ASSERT_EQ(ModuleBuilder::classes().size(), 1u);
  const ModuleClass& known = moduleClass();
  EXPECT_EQ(known.class_name, "OpenFlow");
  EXPECT_EQ(known.name_template, "OpenFlow");
  EXPECT_EQ(known.help_text, "OpenFlow packet processing");
  EXPECT_EQ(known.igates, 8192);
  EXPECT_EQ(known.ogates, 8192);
  std::vector<std::string> names;
  for (const Command& command : known.cmds) {
    names.push_back(command.cmd + " " + command.arg_type);
    EXPECT_EQ(command.mt_safe, Command::THREAD_SAFE);
  }
  EXPECT_THAT(names, ElementsAre("updateFlows OpenFlowUpdateFlowsArg",
                                 "setAclIds OpenFlowAclArg",
                                 "getStats OpenFlowGetStatsArg"));
}

// Looks at what the base class keeps for its heirs.
struct Heir : OpenFlow {
  using Module::max_allowed_workers_;
  using Module::min_allowed_workers_;
};

TEST_F(OtherCore, MayBeRunBySixteenWorkers) {
  const auto heir = std::make_unique<Heir>();
  EXPECT_EQ(heir->max_allowed_workers_, 16);
  EXPECT_EQ(heir->min_allowed_workers_, 1);
}

TEST_F(OtherCore, OutputsAreCopies) {
  add(0, any().output({5, 8191}).outputInPort());
  run();
  ASSERT_EQ(emitted.size(), 3u);
  EXPECT_EQ(emitted[0].ogate, 5);
  EXPECT_EQ(emitted[1].ogate, 8191);
  EXPECT_EQ(emitted[2].ogate, 3);
  ASSERT_EQ(dropped.size(), 1u);
  for (const Emitted& one : emitted) {
    EXPECT_EQ(bytesOf(one.packet), kFrame);
    EXPECT_NE(one.packet, dropped[0]);
  }
}

TEST_F(OtherCore, AnOutputsMetadataIsTheHosts) {
  add(0, any().output({5}).controller(1));
  copiesHave(kOthers | kPuntValid | kMetadataValid, 0x41);
  run();
  ASSERT_EQ(emitted.size(), 2u);
  for (const Emitted& one : emitted) {
    EXPECT_EQ(memcmp(one.packet->metadata<void*>(), bess::copy_metadata, 128),
              0);
  }
}

TEST_F(OtherCore, ATrapKeepsTheCopysPuntWord) {
  add(0, any().trap(9));
  copiesHave(kOthers | kPuntValid, 0x41);
  run();
  ASSERT_EQ(emitted.size(), 1u);
  const bess::Packet* copy = emitted[0].packet;
  EXPECT_EQ(flagsOf(copy), kOthers | kPuntValid | kMetadataValid);
  EXPECT_EQ(puntWordOf(copy), 0x20041u);
  EXPECT_EQ(metadataOf(copy), 7u);
}

TEST_F(OtherCore, ATrapStartsAPuntWordThatIsNotValid) {
  add(0, any().trap(9));
  copiesHave(kOthers, 0x41);
  run();
  ASSERT_EQ(emitted.size(), 1u);
  const bess::Packet* copy = emitted[0].packet;
  EXPECT_EQ(flagsOf(copy), kOthers | kPuntValid | kMetadataValid);
  EXPECT_EQ(puntWordOf(copy), 0x20000u);
}

// The rest of the area, before and behind what a trap sets.
TEST_F(OtherCore, ATrapWritesNothingElse) {
  add(0, any().trap(9));
  copiesHave(kOthers, 0);
  run();
  ASSERT_EQ(emitted.size(), 1u);
  Bytes expected(bess::copy_metadata, bess::copy_metadata + 128);
  put(expected.data(), 0, kOthers | kPuntValid | kMetadataValid);
  put(expected.data(), 16, uint64_t{7});
  put(expected.data(), 108, uint32_t{0x20000});
  const auto* area = emitted[0].packet->metadata<const uint8_t*>();
  EXPECT_EQ(hexDump({area, area + 128}), hexDump(expected));
}

TEST_F(OtherCore, AGotoCopySetsItsTwoValues) {
  add(0, any().gotoTable(1));
  add(1, any().flood({1, 3}));
  copiesHave(kOthers, 0x41);
  run();
  ASSERT_EQ(dropped.size(), 2u);
  Bytes expected(bess::copy_metadata, bess::copy_metadata + 128);
  put(expected.data(), 0, kOthers | kMetadataValid | kInPortValid);
  put(expected.data(), 16, uint64_t{7});
  put(expected.data(), 52, uint32_t{0x10003});
  const auto* area = dropped[1]->metadata<const uint8_t*>();
  EXPECT_EQ(hexDump({area, area + 128}), hexDump(expected));
  EXPECT_EQ(inPortOf(dropped[1]), 0x10003u);
  ASSERT_EQ(emitted.size(), 1u);
  EXPECT_EQ(emitted[0].ogate, 1);
}

// 22 bytes in front of the copy are enough for the controller's header.
TEST_F(OtherCore, TheHeaderNeedsRoomInTheCopy) {
  add(0, any().trap(9));
  for (const uint16_t headroom : {22, 21, 0}) {
    bess::copy_headroom = headroom;
    run();
    const size_t header = headroom >= 22 ? 22 : 0;
    const Bytes out = bytesOf(emitted.back().packet);
    ASSERT_EQ(out.size(), header + kFrame.size() + 4) << headroom;
    EXPECT_EQ(emitted.back().packet->total_len(), static_cast<int>(out.size()));
    EXPECT_EQ(
        hexDump({out.begin() + static_cast<ptrdiff_t>(header), out.end() - 4}),
        hexDump(kFrame));
    EXPECT_EQ(emitted.back().ogate, 0);
    EXPECT_EQ(puntWordOf(emitted.back().packet), 0x20000u);
  }
}

TEST_F(OtherCore, APassTakesABatchForEachTable) {
  add(0, any().gotoTable(1));
  add(1, any().drop());
  run();
  EXPECT_EQ(task_.taken, 2);
}

}  // namespace
}  // namespace openflow_test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  std::vector<const char*> options = {argv[0],       "--no-huge", "--no-shconf",
                                      "--no-pci",    "-m",        "128",
                                      "--log-level", "error"};
  if (rte_eal_init(static_cast<int>(options.size()),
                   const_cast<char**>(options.data())) < 0) {
    return 1;
  }
  rcu_register_thread();
  const int result = RUN_ALL_TESTS();
  rcu_barrier();
  rcu_unregister_thread();
  return result;
}
