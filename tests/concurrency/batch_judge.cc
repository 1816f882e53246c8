// SPDX-License-Identifier: BSD-3-Clause
#include "tests/concurrency/batch_judge.h"

#include <fmt/format.h>

#include <bitset>

#include "tests/concurrency/traffic.h"

namespace openflow_test {
namespace {

size_t stepOf(uint16_t gate) { return (gate - 1u) / 4 / kFamilies; }
size_t familyOfGate(uint16_t gate) { return (gate - 1u) / 4 % kFamilies; }

}  // namespace

void BatchJudge::begin() {
  for (size_t s = 0; s < kSteps; s++) {
    for (size_t f = 0; f < kFamilies; f++) {
      doneBefore_[s][f] = histories_[s][f]->done();
    }
  }
  dropsBefore_ = module_->deadends(wid_);
  seen_.clear();
  open_ = true;
}

void BatchJudge::see(uint16_t gate, const bess::Packet& copy) {
  const auto* frame = copy.head_data<const uint8_t*>();
  const size_t l4 = get16(frame + 12) == 0x0800 ? 34 : 54;
  seen_.push_back({gate,
                   frame[l4 + 8],
                   {decode(frame), decode(frame + 6)},
                   get16(frame + l4),
                   get16(frame + l4 + 2)});
  bytes_ += static_cast<uint64_t>(copy.total_len());
}

void BatchJudge::fail(const std::string& what) {
  if (error_.empty()) {
    error_ = fmt::format("worker {}, batch {}: {}", wid_, batches_, what);
  }
}

void BatchJudge::checkCopy(const Seen& copy, size_t step, size_t family,
                           uint32_t version, const Versions* before) {
  const FlowLabel expected = {step, family, classOf(copy.index), version};
  const size_t written = step == 1 ? 1 : 0;  // which MAC
  const FlowLabel& label = copy.labels[written];
  if (familyOf(copy.index) != family || label != expected ||
      copy.srcPort != (version & 0xffff) ||
      copy.dstPort != portOf(expected.packetClass) ||
      copy.gate != gateOf(step, family, version)) {
    fail(fmt::format(
        "packet {} (family {}, class {}) left on gate {} with label (step {}, "
        "family {}, class {}, version {}) and source port {}; others of table "
        "{} obeyed version {}",
        copy.index, familyOf(copy.index), classOf(copy.index), copy.gate,
        label.step, label.family, label.packetClass, label.version,
        copy.srcPort, kChain[step], version));
  }
  if (before != nullptr) {
    const FlowLabel& earlier = copy.labels[1 - written];
    const FlowLabel wanted = {step - 1, family, expected.packetClass,
                              (*before)[family]};
    if (earlier != wanted) {
      fail(fmt::format("packet {} came to table {} by version {}, others by {}",
                       copy.index, kChain[step], earlier.version,
                       wanted.version));
    }
  }
}

bool BatchJudge::judge(size_t step, size_t family, const Versions* before,
                       uint32_t* version) {
  std::bitset<kBatch> left;
  size_t count = 0;
  *version = 0;
  for (const Seen& copy : seen_) {
    if (stepOf(copy.gate) != step || familyOfGate(copy.gate) != family) {
      continue;
    }
    if (count++ == 0) *version = copy.labels[step == 1 ? 1 : 0].version;
    checkCopy(copy, step, family, *version, before);
    left.set(copy.index % kBatch);
  }
  if (count != 0 && (count != kPerFamily || left.count() != kPerFamily)) {
    fail(fmt::format("{} copies of {} packets for {} that entered table {}",
                     count, left.count(), kPerFamily, kChain[step]));
  }
  const History& history = *histories_[step][family];
  const size_t begun = history.begun();
  if (begun != doneBefore_[step][family]) overlaps_++;
  if (!history.showed(*version, doneBefore_[step][family], begun)) {
    fail(fmt::format(
        "table {} family {} showed version {}, which was not in "
        "effect in changes {} to {}",
        kChain[step], family, *version, doneBefore_[step][family], begun));
  }
  copies_[step][family] += count;
  return count != 0;
}

void BatchJudge::end() {
  if (!open_) return;
  open_ = false;
  uint64_t certainDrops = 0;
  const uint64_t drops = module_->deadends(wid_) - dropsBefore_;
  std::array<bool, kFamilies> arrive = {true, true};
  Versions before{};
  size_t copies = 0;
  for (size_t step = 0; step < kSteps && (arrive[0] || arrive[1]); step++) {
    const uint64_t entered =
        kPerFamily * ((arrive[0] ? 1 : 0) + (arrive[1] ? 1 : 0));
    uint64_t missed = 0;
    Versions versions{};
    for (size_t f = 0; f < kFamilies; f++) {
      if (!arrive[f]) continue;
      arrive[f] = judge(step, f, step == 0 ? nullptr : &before, &versions[f]);
      (arrive[f] ? copies : missed) += kPerFamily;
    }
    // Nothing came out: all packets missed, or there was no classifier at all
    // and they were freed uncounted. Only the last table reached is silent.
    if (missed == entered && drops == certainDrops) {
      freedBatches_[step]++;
    } else {
      missed_[step] += missed;
      certainDrops += entered;
    }
    before = versions;
  }
  if (copies != seen_.size()) {
    fail(fmt::format("{} copies came out, {} belong to the batch", seen_.size(),
                     copies));
  }
  if (drops != certainDrops) {
    fail(fmt::format("{} packets ended in the module, {} were to", drops,
                     certainDrops));
  }
  batches_++;
}

}  // namespace openflow_test
