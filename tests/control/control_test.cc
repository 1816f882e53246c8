// SPDX-License-Identifier: BSD-3-Clause
#include "tests/control/control_test.h"

#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <chrono>
#include <semaphore>
#include <thread>

#include "modules/openflow/tables/acl_retire.h"

namespace openflow_test {

Update::Update(uint32_t tableId, int flowType) {
  arg_.set_tableid(tableId);
  arg_.set_flowtype(static_cast<quil::pb::OpenFlowType>(flowType));
}

Update& Update::add(const Flow& flow) {
  *arg_.add_adds() = flow.message();
  return *this;
}

Update& Update::erase(uint32_t flowId) {
  arg_.add_deletes()->set_flowid(flowId);
  return *this;
}

ControlTest::ControlTest() : module_(new OpenFlow) {
  EXPECT_THAT(module_->Init({}), Succeeds());
  // The new database has freed what the one before left.
  Calls::state().frees.clear();
  Calls::state().aclFrees.clear();
  Calls::state().order.clear();
}

ControlTest::~ControlTest() {
  if (module_ != nullptr) {
    tearDown();
  }
}

QuilModules::AclCtx& ControlTest::slot(uint32_t id) {
  return OpenFlowPeer::aclDb(*module_)
      ->getAclCtxTableByTarget(kAclTarget)
      ->slots[id];
}

void ControlTest::bind(uint32_t tableId) {
  EXPECT_THAT(bind(tableId, 2 * tableId, 2 * tableId + 1), Succeeds());
}

CommandResponse ControlTest::bind(uint32_t tableId, uint32_t aclId,
                                  uint32_t ipv6AclId) {
  quil::pb::OpenFlowAclArg arg;
  arg.set_tableid(tableId);
  arg.set_aclid(aclId);
  arg.set_ipv6aclid(ipv6AclId);
  return module_->setAclIds(arg);
}

QuilModules::AclCtx& ControlTest::slotOf(uint32_t tableId, int flowType) {
  return slot(2 * tableId + flowType);
}

void ControlTest::update(const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  EXPECT_THAT(module_->updateFlows(arg), Succeeds());
}

void ControlTest::tearDown() {
  module_->DeInit();
  module_.reset();
  rcu_barrier();
}

std::vector<uint32_t> FamilyTest::stored() {
  return storedFlows(table(3), GetParam());
}

std::string FamilyTest::contextName(uint32_t generation) const {
  return (ipv6() ? "table3-ipv6-" : "table3-") + std::to_string(generation);
}

void freeKeptUserdata(void* array, size_t records) {
  auto* userdata = static_cast<QuilModules::KoAclUserdata*>(array);
  for (size_t i = 0; i < records; i++) {
    rte_free(userdata[i].action);
  }
  delete[] userdata;
}

testing::Matcher<const CommandResponse&> Succeeds() {
  return testing::AllOf(
      testing::Property("has_error", &CommandResponse::has_error, false),
      testing::Property("has_data", &CommandResponse::has_data, false));
}

testing::Matcher<const CommandResponse&> FailsWith(int code,
                                                   const std::string& text) {
  return testing::AllOf(
      testing::Property(
          "error", &CommandResponse::error,
          testing::AllOf(
              testing::Property("code", &bess::pb::Error::code, code),
              testing::Property("errmsg", &bess::pb::Error::errmsg, text))),
      testing::Property("has_data", &CommandResponse::has_data, false));
}

std::vector<std::string> traced(const TraceMark& mark) {
  std::vector<std::string> lines;
  for (const TraceMark::Entry& entry : mark.entries()) {
    lines.push_back(std::to_string(entry.level) + " " + entry.text);
  }
  return lines;
}

std::vector<const OfFlowAction*> publishedActions(
    const QuilModules::AclCtx& slot) {
  std::vector<const OfFlowAction*> actions;
  if (slot.data != nullptr) {
    for (uint32_t i = 1; i <= slot.data->numUserdata; i++) {
      actions.push_back(
          static_cast<const OfFlowAction*>(slot.data->userdata[i].action));
    }
  }
  return actions;
}

const OfFlowAction* classify(const QuilModules::AclCtx& slot, const void* key) {
  const auto* bytes = static_cast<const uint8_t*>(key);
  uint32_t result = 0;
  EXPECT_EQ(rte_acl_classify(slot.data->ctx, &bytes, &result, 1, 1), 0);
  return result == 0 ? nullptr
                     : static_cast<const OfFlowAction*>(
                           slot.data->userdata[result].action);
}

namespace {

template <typename FLOW_TYPE>
std::vector<uint32_t> keysOf(const OpenFlowInfo<FLOW_TYPE>& info) {
  std::vector<uint32_t> keys;
  cds_lfht_iter it;
  for (auto* node = info.flows->first(&it); node != nullptr;
       node = info.flows->next(&it)) {
    keys.push_back(node->key);
  }
  std::ranges::sort(keys);
  return keys;
}

}  // namespace

std::vector<uint32_t> storedFlows(const OpenFlowTable& table, int flowType) {
  return flowType == kIpv6 ? keysOf(table.ipv6) : keysOf(table.ipv4);
}

HeapUse heapUse() {
  rcu_barrier();
  rte_malloc_socket_stats stats;
  EXPECT_EQ(rte_malloc_get_socket_stats(0, &stats), 0);
  return {stats.alloc_count, stats.heap_allocsz_bytes};
}

void PrintTo(const HeapUse& use, std::ostream* out) {
  *out << use.blocks << " blocks, " << use.bytes << " bytes";
}

class Reader::Impl {
 public:
  Impl()
      : thread_([this] {
          rcu_register_thread();
          online_.release();
          leave_.acquire();
          rcu_unregister_thread();
        }) {
    online_.acquire();
  }
  ~Impl() {
    leave_.release();
    thread_.join();
  }

 private:
  std::binary_semaphore online_{0};
  std::binary_semaphore leave_{0};
  std::thread thread_;
};

Reader::Reader() : impl_(std::make_unique<Impl>()) {}
Reader::~Reader() = default;
void Reader::leave() { impl_.reset(); }

void letWrongReleasesShow() {
  rcu_thread_offline();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  rcu_thread_online();
}

}  // namespace openflow_test
