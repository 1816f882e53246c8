// SPDX-License-Identifier: BSD-3-Clause
#include "utils/ko_rcu_ht.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <semaphore>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/utils/interpose.h"

namespace {

// A value that counts its releases.
struct Flow {
  std::atomic<int> released{0};
};

void releaseFlow(Flow* flow) { flow->released++; }

std::atomic<int> keysReleased;
void releaseKey(uint32_t) { keysReleased++; }

using Table = KoRcuHt<uint32_t, Flow*>;
using Node = KoRcuHtNode<uint32_t, Flow*>;

// A QSBR reader that stays in its read-side section until told to leave.
class Reader {
 public:
  Reader()
      : thread_([this] {
          rcu_register_thread();
          online_.release();
          leave_.acquire();
          rcu_unregister_thread();
        }) {
    online_.acquire();
  }
  ~Reader() {
    if (thread_.joinable()) {
      leave();
    }
  }
  void leave() {
    leave_.release();
    thread_.join();
  }

 private:
  std::binary_semaphore online_{0};
  std::binary_semaphore leave_{0};
  std::thread thread_;
};

// Without tables: CRC32C bit by bit, as the polynomial has it.
uint32_t crc32c(uint32_t key, uint32_t seed) {
  uint32_t crc = seed ^ key;
  for (int bit = 0; bit < 32; bit++) {
    crc = crc >> 1 ^ (crc & 1 ? 0x82f63b78u : 0);
  }
  return crc;
}

class KoRcuHtTest : public testing::TestWithParam<bool> {
 protected:
  KoRcuHtTest() { keysReleased = 0; }
  ~KoRcuHtTest() override { rcu_barrier(); }

  const Interposed::Scope scope_;
};

TEST_F(KoRcuHtTest, LooksUpNothingInAnEmptyTable) {
  Table table("RTE", 1024);
  EXPECT_EQ(table.lookup(0), nullptr);
  EXPECT_EQ(table.lookup(7), nullptr);
}

TEST_F(KoRcuHtTest, AsksForAnAutomaticallyResizedQsbrTable) {
  Table table("RTE", 1024);
  const Interposed::NewTable& made = Interposed::state().newTable;
  EXPECT_EQ(made.initSize, 1024u);
  EXPECT_EQ(made.minBuckets, 1024u);
  EXPECT_EQ(made.maxBuckets, 0u);
  EXPECT_EQ(made.flags, CDS_LFHT_AUTO_RESIZE | CDS_LFHT_ACCOUNTING);
  EXPECT_EQ(made.memory, nullptr);
  EXPECT_EQ(made.flavor, &urcu_qsbr_flavor);
  EXPECT_EQ(made.attributes, nullptr);
  EXPECT_EQ(table.size(), 1024u);
  EXPECT_TRUE(table.deferFree());
}

TEST_F(KoRcuHtTest, HasBucketsByDefault) {
  Table table("RTE");
  EXPECT_EQ(table.size(), 128u);
  EXPECT_EQ(Interposed::state().newTable.initSize, 128u);
}

TEST_F(KoRcuHtTest, TakesItsSeedFromTheTime) {
  Interposed::state().now = 1700000000;
  Table table("RTE", 1024);
  EXPECT_EQ(table.seed(), 1700000000u);
}

TEST_F(KoRcuHtTest, HashesWithCrc32c) {
  Interposed::state().now = 0x12345678;
  Table table("RTE", 1024);
  for (const uint32_t key : {0u, 1u, 7u, 0x80000000u, 0xffffffffu}) {
    EXPECT_EQ(table.hash(key), crc32c(key, 0x12345678)) << key;
  }
}

TEST_F(KoRcuHtTest, TablesOfDifferentSecondsHashDifferently) {
  Flow flow;
  Interposed::state().now = 1700000000;
  Table first("RTE", 1024);
  Interposed::state().now = 1700000001;
  Table second("RTE", 1024);
  EXPECT_NE(first.hash(42), second.hash(42));
  first.addReplace(42, &flow, nullptr);
  second.addReplace(42, &flow, nullptr);
  ASSERT_NE(first.lookup(42), nullptr);
  ASSERT_NE(second.lookup(42), nullptr);
}

TEST_F(KoRcuHtTest, FillsANodeOfDpdkMemory) {
  Flow flow;
  Table table("RTE", 1024);
  table.addReplace(42, &flow, releaseFlow);
  const Node* node = table.lookup(42);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->key, 42u);
  EXPECT_EQ(node->value, &flow);
  EXPECT_EQ(node->keyRelease, nullptr);
  EXPECT_EQ(node->valueRelease, &releaseFlow);
  EXPECT_FALSE(node->keyHandedOver);
  EXPECT_EQ(node->owner, &table);

  ASSERT_EQ(Interposed::state().zmallocs.size(), 1u);
  const Interposed::Allocation& call = Interposed::state().zmallocs[0];
  EXPECT_EQ(call.type, "RTE_KoRcuHt");
  EXPECT_EQ(call.size, 128u);
  EXPECT_EQ(call.align, 64u);
  EXPECT_EQ(call.result, node);
}

TEST_F(KoRcuHtTest, MatchesByKeyOnly) {
  Node node{};
  node.key = 42;
  const uint32_t same = 42;
  EXPECT_NE(Table::koMatch(&node.link, &same), 0);
  for (int bit = 0; bit < 32; bit++) {
    const uint32_t other = same ^ uint32_t { 1 } << bit;
    EXPECT_EQ(Table::koMatch(&node.link, &other), 0) << bit;
  }
}

TEST_F(KoRcuHtTest, KeepsKeysApart) {
  std::map<uint32_t, Flow> flows;
  Table table("RTE", 64);
  for (uint32_t key = 0; key < 5000; key++) {
    table.addReplace(key * 7919, &flows[key * 7919], releaseFlow);
  }
  for (auto& [key, flow] : flows) {
    ASSERT_NE(table.lookup(key), nullptr) << key;
    EXPECT_EQ(table.lookup(key)->value, &flow);
  }
  EXPECT_EQ(table.lookup(3), nullptr);
}

TEST_F(KoRcuHtTest, WalksEveryNodeOnce) {
  std::map<uint32_t, Flow> flows;
  Table table("RTE", 64);
  for (uint32_t key = 100; key < 300; key++) {
    table.addReplace(key, &flows[key], nullptr);
  }
  std::set<uint32_t> walked;
  cds_lfht_iter it;
  int count = 0;
  for (Node* node = table.first(&it); node; node = table.next(&it)) {
    walked.insert(node->key);
    count++;
  }
  EXPECT_EQ(count, 200);
  EXPECT_EQ(walked.size(), 200u);
  EXPECT_EQ(*walked.begin(), 100u);

  // The same order as liburcu's own walk of the handle.
  cds_lfht_first(table.handle(), &it);
  cds_lfht_iter again;
  EXPECT_EQ(table.first(&again), reinterpret_cast<Node*>(it.node));
}

INSTANTIATE_TEST_SUITE_P(Modes, KoRcuHtTest, testing::Bool(),
                         [](const auto& mode) {
                           return mode.param ? "Deferred" : "Synchronous";
                         });

TEST_P(KoRcuHtTest, ReplacingReleasesTheFirstValueAndNoKey) {
  Flow first, second;
  Table table("RTE", 1024, GetParam());
  table.addReplace(42, &first, releaseFlow);
  Node* old = table.lookup(42);
  old->keyRelease = releaseKey;
  table.addReplace(42, &second, releaseFlow);
  rcu_barrier();
  EXPECT_EQ(table.lookup(42)->value, &second);
  EXPECT_FALSE(table.lookup(42)->keyHandedOver);
  EXPECT_EQ(first.released, 1);
  EXPECT_EQ(second.released, 0);
  EXPECT_EQ(keysReleased, 0);
  EXPECT_EQ(Interposed::countFrees(old), 1);
  cds_lfht_iter it;
  ASSERT_NE(table.first(&it), nullptr);
  EXPECT_EQ(table.next(&it), nullptr);
}

TEST_P(KoRcuHtTest, AReplacedValueWithoutReleaseGetsTheNewOne) {
  Flow first, second;
  Table table("RTE", 1024, GetParam());
  table.addReplace(42, &first, nullptr);
  table.addReplace(42, &second, releaseFlow);
  rcu_barrier();
  EXPECT_EQ(first.released, 1);
  EXPECT_EQ(second.released, 0);
}

TEST_P(KoRcuHtTest, AReplacedValueKeepsItsOwnRelease) {
  Flow first, second;
  Table table("RTE", 1024, GetParam());
  table.addReplace(42, &first, releaseFlow);
  table.addReplace(42, &second, nullptr);
  rcu_barrier();
  EXPECT_EQ(first.released, 1);
}

TEST_P(KoRcuHtTest, ErasingReleasesKeyAndValue) {
  Flow flow, other;
  Table table("RTE", 1024, GetParam());
  table.addReplace(42, &flow, releaseFlow);
  table.addReplace(43, &other, releaseFlow);
  Node* node = table.lookup(42);
  node->keyRelease = releaseKey;
  node->keyHandedOver = true;  // erase() takes the key back
  table.erase(42);
  EXPECT_EQ(table.lookup(42), nullptr);
  rcu_barrier();
  EXPECT_EQ(flow.released, 1);
  EXPECT_EQ(keysReleased, 1);
  EXPECT_EQ(Interposed::countFrees(node), 1);
  EXPECT_EQ(other.released, 0);
  EXPECT_NE(table.lookup(43), nullptr);
}

TEST_P(KoRcuHtTest, ErasingAnAbsentKeyChangesNothing) {
  Flow flow;
  Table table("RTE", 1024, GetParam());
  table.addReplace(42, &flow, releaseFlow);
  table.erase(43);
  rcu_barrier();
  EXPECT_EQ(table.lookup(42)->value, &flow);
  EXPECT_EQ(flow.released, 0);
  EXPECT_TRUE(Interposed::state().frees.empty());
}

TEST_P(KoRcuHtTest, DestructionReleasesEverythingAfterOneGracePeriod) {
  std::vector<Flow> flows(100);
  std::optional<Table> table;
  table.emplace("RTE", 1024, GetParam());
  for (uint32_t key = 0; key < 100; key++) {
    table->addReplace(key, &flows[key], releaseFlow);
  }
  table->lookup(5)->keyRelease = releaseKey;
  table->lookup(6)->keyRelease = releaseKey;
  table->lookup(6)->keyHandedOver = true;
  const int syncs = Interposed::state().syncs;
  table.reset();
  EXPECT_EQ(Interposed::state().syncs, syncs + 1);
  for (const Flow& flow : flows) {
    EXPECT_EQ(flow.released, 1);
  }
  EXPECT_EQ(keysReleased, 2);
  EXPECT_EQ(Interposed::state().frees.size(), 100u);
}

TEST_F(KoRcuHtTest, ReleasesOnlyAfterTheReadersAreThrough) {
  Flow replaced, erased, stored;
  Table table("RTE", 1024);
  table.addReplace(1, &replaced, releaseFlow);
  table.addReplace(2, &erased, releaseFlow);
  Reader reader;
  table.addReplace(1, &stored, releaseFlow);
  table.erase(2);
  EXPECT_EQ(table.lookup(1)->value, &stored);
  EXPECT_EQ(table.lookup(2), nullptr);
  // A wrong release has time to show.
  rcu_thread_offline();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(replaced.released, 0);
  EXPECT_EQ(erased.released, 0);
  reader.leave();
  rcu_thread_online();
  rcu_barrier();
  EXPECT_EQ(replaced.released, 1);
  EXPECT_EQ(erased.released, 1);
  EXPECT_EQ(stored.released, 0);
}

int syncsAtRelease = 0;
void noteSyncs(Flow*) { syncsAtRelease = Interposed::state().syncs; }

TEST_F(KoRcuHtTest, SynchronousModeReleasesBehindAGracePeriod) {
  Flow first, second;
  Table table("RTE", 1024, false);
  table.addReplace(42, &first, noteSyncs);
  table.addReplace(42, &second, noteSyncs);
  EXPECT_EQ(syncsAtRelease, 1);
  table.erase(42);
  EXPECT_EQ(syncsAtRelease, 2);
}

TEST_F(KoRcuHtTest, SynchronousModeReleasesBeforeItReturns) {
  Flow first, second;
  Table table("RTE", 1024, false);
  EXPECT_FALSE(table.deferFree());
  table.addReplace(42, &first, releaseFlow);
  table.addReplace(42, &second, releaseFlow);
  EXPECT_EQ(first.released, 1);
  EXPECT_EQ(Interposed::state().syncs, 1);
  table.erase(42);
  EXPECT_EQ(second.released, 1);
  EXPECT_EQ(Interposed::state().syncs, 2);
}

// The pending releases find the table's memory overwritten.
TEST_F(KoRcuHtTest, ADeferredReleaseOutlivesItsTable) {
  std::vector<Flow> flows(1000);
  alignas(Table) char memory[sizeof(Table)];
  Table* table = new (memory) Table("RTE", 1024);
  for (uint32_t key = 0; key < 1000; key++) {
    table->addReplace(key, &flows[key], releaseFlow);
  }
  for (uint32_t key = 0; key < 1000; key++) {
    table->erase(key);
  }
  table->~Table();
  std::fill(std::begin(memory), std::end(memory), '\xff');
  rcu_barrier();
  for (const Flow& flow : flows) {
    EXPECT_EQ(flow.released, 1);
  }
}

TEST_F(KoRcuHtTest, DestroysTheTableOffline) {
  { Table table("RTE", 1024); }
  EXPECT_NE(rcu_read_ongoing(), 0) << "the caller is a reader again";
  rcu_thread_offline();
  { Table table("RTE", 1024); }
  EXPECT_EQ(rcu_read_ongoing(), 0) << "the caller was none";
  rcu_thread_online();
  EXPECT_EQ(Interposed::state().destroys, std::vector<bool>({false, false}));
}

TEST_F(KoRcuHtTest, ReadersNeverSeeAHalfMadeChange) {
  constexpr uint32_t kKeys = 64;
  std::vector<Flow> even(kKeys), odd(kKeys);
  Table table("RTE", 64);
  for (uint32_t key = 0; key < kKeys; key++) {
    table.addReplace(key, &even[key], nullptr);
  }
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::atomic<int> rounds{0};
  const auto look = [&] {
    rcu_register_thread();
    while (!done) {
      for (uint32_t key = 0; key < kKeys; key++) {
        const Node* node = table.lookup(key);
        if (node == nullptr || node->key != key ||
            (node->value != &even[key] && node->value != &odd[key])) {
          wrong++;
        }
      }
      rounds++;
      rcu_quiescent_state();
    }
    rcu_unregister_thread();
  };
  std::thread readers[] = {std::thread(look), std::thread(look)};
  for (int round = 0; round < 200 || rounds < 20; round++) {
    for (uint32_t key = 0; key < kKeys; key++) {
      table.addReplace(key, round % 2 ? &even[key] : &odd[key], nullptr);
    }
    rcu_quiescent_state();
  }
  done = true;
  rcu_thread_offline();
  for (std::thread& reader : readers) {
    reader.join();
  }
  rcu_thread_online();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
