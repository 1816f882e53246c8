// SPDX-License-Identifier: BSD-3-Clause
//
// Classifiers: how they are made of a table's flows and published.
#include <rte_acl.h>
#include <urcu-qsbr.h>

#include <cstring>

#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

// Rule i of the last build, as it was handed to the library.
template <typename FLOW_TYPE>
FLOW_TYPE builtRule(uint32_t i) {
  FLOW_TYPE rule;
  memcpy(&rule, &Calls::state().aclAdds.back().bytes[i * sizeof(rule)],
         sizeof(rule));
  return rule;
}

rte_acl_rule_data builtHeader(int flowType, uint32_t i) {
  return flowType == kIpv6 ? builtRule<of_flow_acl_rule_ipv6>(i).data
                           : builtRule<of_flow_acl_rule>(i).data;
}

using Publication = FamilyTest;

INSTANTIATE_FAMILIES(Publication);

TEST_P(Publication, CreatesAClassifierOfTheExactSize) {
  update(message().add(Flow(1, 1)).add(Flow(2, 1)).add(Flow(3, 1)).erase(3));
  ASSERT_EQ(Calls::state().aclCreates.size(), 1u);
  const Calls::AclCreate& create = Calls::state().aclCreates[0];
  EXPECT_EQ(create.name, contextName(1));
  EXPECT_EQ(create.socket, -1);
  EXPECT_EQ(create.ruleSize, ipv6() ? 432u : 352u);
  EXPECT_EQ(create.maxRules, 2u);
  ASSERT_EQ(Calls::state().aclAdds.size(), 1u);
  EXPECT_EQ(Calls::state().aclAdds[0].ctx, create.result);
  EXPECT_EQ(Calls::state().aclAdds[0].count, 2u);
  EXPECT_EQ(Calls::state().aclAdds[0].rules,
            Calls::allocations("openflowallrules")[0].result);
  ASSERT_EQ(Calls::state().aclBuilds.size(), 1u);
  EXPECT_EQ(Calls::state().aclBuilds[0].ctx, create.result);
  EXPECT_EQ(Calls::state().aclBuilds[0].config,
            ipv6() ? &OpenFlowPeer::ipv6AclConfig(module())
                   : &OpenFlowPeer::aclConfig(module()));
  EXPECT_EQ(mine().data->ctx, create.result);
  EXPECT_EQ(mine().data->numUserdata, 2u);
}

TEST_P(Publication, NamesCountTheSlotsNonEmptyBuilds) {
  update(message().add(Flow(1, 1)));
  update(message());
  update(message().erase(1));
  EXPECT_EQ(mine().generation, 2u) << "an empty table builds nothing";
  update(message().add(Flow(1, 1)));
  std::vector<std::string> names;
  for (const Calls::AclCreate& create : Calls::state().aclCreates) {
    names.push_back(create.name);
  }
  EXPECT_THAT(names,
              ElementsAre(contextName(1), contextName(2), contextName(3)));
  EXPECT_EQ(mine().generation, 3u);
}

TEST_P(Publication, NamesGoOnFromWhereTheSlotIs) {
  mine().generation = 0xfffffffe;
  update(message().add(Flow(1, 1)));
  EXPECT_EQ(Calls::state().aclCreates.back().name, contextName(0xffffffff));
  update(message());
  EXPECT_EQ(Calls::state().aclCreates.back().name, contextName(0))
      << "it wraps";
}

TEST_P(Publication, PassesOverNamesThatAreTaken) {
  std::vector<rte_acl_ctx*> others;
  for (const uint32_t generation : {1, 2, 4}) {
    const std::string taken = contextName(generation);
    rte_acl_param param = {};
    param.name = taken.c_str();
    param.socket_id = SOCKET_ID_ANY;
    param.rule_size = 352;
    param.max_rule_num = 1;
    others.push_back(rte_acl_create(&param));
  }
  const TraceMark mark;
  update(message().add(Flow(1, 1)));
  EXPECT_EQ(Calls::state().aclCreates.back().name, contextName(3));
  EXPECT_EQ(mine().generation, 3u);
  EXPECT_TRUE(mark.contains("programAcl aclCtxName: " + contextName(3) +
                            ", numFlows: 1"));
  update(message());
  EXPECT_EQ(Calls::state().aclCreates.back().name, contextName(5));
  for (rte_acl_ctx* ctx : others) {
    rte_acl_free(ctx);
  }
}

TEST_P(Publication, ASecondModulesTableOfTheSameNumberGetsItsOwnClassifier) {
  update(message().add(Flow(1, 1)));
  OpenFlow other;
  other.Init({});
  quil::pb::OpenFlowAclArg binding;
  binding.set_tableid(3);
  binding.set_aclid(100);
  binding.set_ipv6aclid(101);
  other.setAclIds(binding);
  EXPECT_THAT(other.updateFlows(message().add(Flow(9, 90))), Succeeds());
  EXPECT_EQ(Calls::state().aclCreates.back().name, contextName(2));
  const QuilModules::AclCtx& theirs = slot(100 + GetParam());
  EXPECT_NE(theirs.data->ctx, mine().data->ctx);
  EXPECT_EQ(publishedActions(mine())[0]->priority, 1u);
  EXPECT_EQ(publishedActions(theirs)[0]->priority, 90u);
  other.DeInit();
}

TEST_P(Publication, RulesAreTheStoredOnesNumberedInWalkOrder) {
  update(message()
             .add(Flow(5, 50).counters(5, 0).l4SrcPort(5))
             .add(Flow(6, 60).counters(6, 0).l4SrcPort(6))
             .add(Flow(7, 70).counters(7, 0).l4SrcPort(7)));
  const auto check = [&](const auto& flows, auto ruleOfFirst) {
    using FLOW_TYPE = decltype(ruleOfFirst);
    cds_lfht_iter it;
    uint32_t i = 0;
    for (auto* node = flows.first(&it); node != nullptr;
         node = flows.next(&it)) {
      FLOW_TYPE expected = node->value->rule;
      EXPECT_EQ(expected.data.userdata, 0u);
      expected.data.userdata = i + 1;
      const FLOW_TYPE rule = builtRule<FLOW_TYPE>(i);
      EXPECT_EQ(memcmp(&rule, &expected, sizeof(rule)), 0);
      const QuilModules::KoAclUserdata& record = mine().data->userdata[i + 1];
      EXPECT_EQ(
          memcmp(record.action, &node->value->action, sizeof(OfFlowAction)), 0);
      EXPECT_NE(record.action, &node->value->action) << "a copy of its own";
      EXPECT_EQ(node->key,
                static_cast<OfFlowAction*>(record.action)->packetCounterId);
      i++;
    }
    EXPECT_EQ(i, 3u);
  };
  if (ipv6()) {
    check(*table(3).ipv6.flows, of_flow_acl_rule_ipv6{});
  } else {
    check(*table(3).ipv4.flows, of_flow_acl_rule{});
  }
  const QuilModules::KoAclUserdata& unused = mine().data->userdata[0];
  const QuilModules::KoAclUserdata zero{};
  EXPECT_EQ(memcmp(&unused, &zero, sizeof(zero)), 0);
}

TEST_P(Publication, OneFlowIsRecordOne) {
  update(message().add(Flow(1, 7)));
  EXPECT_EQ(builtHeader(GetParam(), 0).userdata, 1u);
  EXPECT_EQ(mine().data->numUserdata, 1u);
  EXPECT_EQ(mine().data->userdata[0].action, nullptr);
  EXPECT_NE(mine().data->userdata[1].action, nullptr);
}

TEST_P(Publication, TheClassifierFindsTheBestFlow) {
  update(message()
             .add(Flow(1, 10).ipProto(6))
             .add(Flow(2, 20).ipProto(6).l4DstPort(80))
             .add(Flow(3, 5)));
  struct Row {
    uint8_t ipProto;
    uint16_t l4DstPort;
    uint32_t priority;
  };
  for (const Row& row : {Row{6, 80, 20}, {6, 81, 10}, {17, 80, 5}}) {
    OfIpv4Key key4{};
    key4.l2.ipProto = row.ipProto;
    key4.l4.l4DstPort = __builtin_bswap16(row.l4DstPort);
    OfIpv6Key key6{};
    key6.l2 = key4.l2;
    key6.l4 = key4.l4;
    const OfFlowAction* action =
        ipv6() ? classify(mine(), &key6) : classify(mine(), &key4);
    ASSERT_NE(action, nullptr);
    EXPECT_EQ(action->priority, row.priority);
  }
}

// ---- Priorities that the library does not take.

struct PriorityCase {
  const char* name;
  std::vector<uint32_t> flows;
  std::vector<uint32_t> rules;  // as the library gets them, in that order
  bool fails;
};

const PriorityCase kPriorityCases[] = {
    {"InRange", {1, 2, 0x1fffffff}, {1, 2, 0x1fffffff}, false},
    {"OnlyZero", {0}, {1}, false},
    {"ZeroMovesAllUp", {0, 1, 2, 1000}, {1, 2, 3, 1001}, false},
    {"TheTopStays",
     {0, 0x1ffffffe, 0x1fffffff},
     {1, 0x1fffffff, 0x1fffffff},
     false},
    {"AboveTheTop", {1, 0x20000000}, {1, 0x20000000}, true},
    {"AboveTheTopWithZero", {0, 0x20000000}, {1, 0x20000001}, true},
    {"AllBitsSet", {0xffffffff}, {0xffffffff}, true},
};

TEST_P(Publication, PrioritiesFitTheLibrary) {
  for (const PriorityCase& row : kPriorityCases) {
    SCOPED_TRACE(row.name);
    Update adds = message();
    Update deletes = message();
    for (uint32_t i = 0; i < row.flows.size(); i++) {
      adds.add(Flow(i, row.flows[i]).counters(i, 0).l4SrcPort(i));
      deletes.erase(i);
    }
    const uint64_t failures = table(3).counters[2];
    const CommandResponse response = module().updateFlows(adds);
    EXPECT_EQ(response.error().code(), row.fails ? -1 : 0);
    EXPECT_EQ(table(3).counters[2], failures + (row.fails ? 1 : 0));

    std::vector<uint32_t> rules;
    for (uint32_t i = 0; i < row.flows.size(); i++) {
      rules.push_back(
          static_cast<uint32_t>(builtHeader(GetParam(), i).priority));
    }
    EXPECT_THAT(rules, testing::UnorderedElementsAreArray(row.rules));

    if (!row.fails) {
      for (const OfFlowAction* action : publishedActions(mine())) {
        EXPECT_EQ(action->priority, row.flows[action->packetCounterId])
            << "an action keeps its flow's";
      }
    } else {
      const auto kept = Calls::liveArrays(userdataSize(row.flows.size() + 1));
      ASSERT_EQ(kept.size(), 1u);
      freeKeptUserdata(kept[0], row.flows.size() + 1);
    }
    EXPECT_EQ(numFlows(), row.flows.size()) << "they count as flows";
    update(deletes);
    rcu_barrier();
  }
}

TEST_P(Publication, AStoredRuleKeepsPriorityZero) {
  update(message().add(Flow(1, 0)).add(Flow(2, 7)));
  const auto priority = [&](uint32_t id) {
    return ipv6() ? table(3).ipv6.flows->lookup(id)->value->rule.data.priority
                  : table(3).ipv4.flows->lookup(id)->value->rule.data.priority;
  };
  EXPECT_EQ(priority(1), 0);
  EXPECT_EQ(priority(2), 7);
  update(message().erase(1));
  EXPECT_EQ(builtHeader(GetParam(), 0).priority, 7);
}

// ---- A count that does not agree with the store.

TEST_P(Publication, TooFewNodesAreNotDetected) {
  update(message().add(Flow(1, 1)));
  numFlows() = 2;
  Calls::state().fill = 0xc3;
  const TraceMark mark;
  EXPECT_EQ(module().updateFlows(message()).error().code(), -1)
      << "the library does not like the second rule";
  EXPECT_EQ(Calls::state().aclAdds.back().count, 2u);
  EXPECT_EQ(Calls::state().aclCreates.back().maxRules, 2u);
  EXPECT_EQ(builtHeader(GetParam(), 0).userdata, 1u);
  EXPECT_EQ(builtHeader(GetParam(), 1).userdata, 0xc3c3c3c3);
  const auto kept = Calls::liveArrays(userdataSize(3));
  ASSERT_EQ(kept.size(), 1u);
  auto* userdata = static_cast<QuilModules::KoAclUserdata*>(kept[0]);
  EXPECT_NE(userdata[1].action, nullptr);
  EXPECT_EQ(userdata[2].action, nullptr);
  freeKeptUserdata(userdata, 3);
}

using PublicationDeathTest = Publication;
INSTANTIATE_FAMILIES(PublicationDeathTest);

TEST_P(PublicationDeathTest, TooManyNodesAreFatal) {
  update(message().add(Flow(1, 1)).add(Flow(2, 1)));
  numFlows() = 1;
  EXPECT_DEATH(module().updateFlows(message()),
               "Check failed: false && errMsg\\.c_str\\(\\) .*Incorrect flow "
               "count for tableId 3 flowType " +
                   std::to_string(GetParam()));
}

}  // namespace
}  // namespace openflow_test
