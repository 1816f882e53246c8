// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <string>

#include "tests/client/client_command.h"

namespace ofswitch {

inline constexpr uint64_t kSecond = 1'000'000'000;

class Reports : public ClientCommand {
 protected:
  static pb::DropCause drop(const std::string& name, uint64_t packets,
                            uint32_t table = 0, uint32_t port = 0) {
    pb::DropCause cause;
    cause.set_name(name);
    cause.set_sentence("About " + name + ".");
    cause.set_packets(packets);
    cause.set_table(table);
    cause.set_port(port);
    return cause;
  }

  static pb::StatsReply stats(uint64_t seconds, uint64_t packets) {
    pb::StatsReply reply;
    reply.set_time_ns(1'000 * kSecond + seconds * kSecond);
    reply.set_uptime_ns(seconds * kSecond);
    reply.set_flows(1);
    reply.set_flow_changes(2);
    reply.set_expired_idle(1);
    reply.set_expired_hard(7);
    reply.set_packets_received(packets);
    reply.set_bytes_received(100 * packets);
    reply.set_packets_forwarded(packets / 2);
    reply.set_copies_output(4 * packets);
    reply.set_packets_sent(3 * packets);
    reply.set_bytes_sent(300 * packets);
    *reply.add_drops() = drop("table_miss", packets / 2, 0);
    *reply.add_drops() = drop("no_such_port", 0);
    *reply.add_drops() = drop("rx_missed", 3, 0, 2);
    *reply.add_drops() = drop("rx_missed", 1'000'000 + packets / 10, 0, 3);
    reply.set_closes(true);
    reply.set_exact(true);
    pb::WorkerStats* worker = reply.add_workers();
    worker->set_core(-1);
    worker->set_running(true);
    worker->set_task_runs(17);
    worker->add_tasks("port1 queue 0");
    worker->add_tasks("port2 queue 0");
    reply.set_buffers_total(100);
    reply.set_buffers_free(90);
    return reply;
  }
};

}  // namespace ofswitch
