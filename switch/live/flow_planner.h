// SPDX-License-Identifier: BSD-3-Clause
//
// Works a change of the flow book out: which flows come, go and change, under
// which numbers, and what the module has to be told.
#pragma once

#include <string>
#include <unordered_set>
#include <vector>

#include "switch/live/flow_book.h"

namespace ofswitch {

class FlowBook::Planner {
 public:
  explicit Planner(FlowBook* book) : book_(*book) {}

  // Flows to have; false when any is refused. Of several with one key the last
  // counts. Flows that are in force exactly so are left alone; `restart` says
  // whether their duration begins anew.
  bool put(const std::vector<Flow>& flows, bool resetCounts, bool restart);

  void remove(const std::string& key, const Entry& entry);
  // Removes every flow of the operator that was not put.
  void removeOthers();

  // Gives table 0, and each table that a flow of the plan sends packets to, a
  // miss flow if it has none. It stays: it costs little, and a table without
  // any flow loses the packets that are on their way to it uncounted.
  void addMissFlows();

  // Makes the messages.
  Plan finish();

  Plan& plan() { return plan_; }

 private:
  struct Wanted {
    const Flow* flow;
    std::string key;
    PreparedFlow prepared;
  };

  bool prepareAll(const std::vector<Flow>& flows, std::vector<Wanted>* wanted);
  bool enoughCounters(const std::vector<Wanted>& wanted);
  void dropRepeated(std::vector<Wanted>* wanted);
  void noteUnconnected(const Flow& flow);
  void putOne(const Wanted& wanted, bool resetCounts, bool restart);
  bool sameRules(const InstalledFlow& before, const PreparedFlow& after) const;
  InstalledRule makeRule(const Match& match, uint32_t priority,
                         const InstalledRule* before);
  void emit(UpdateBatch* batch, const InstalledFlow* from,
            const InstalledFlow* to) const;
  static void order(std::vector<TableUpdate>* updates);

  FlowBook& book_;
  Plan plan_;
  std::unordered_set<std::string> put_;  // keys
};

}  // namespace ofswitch
