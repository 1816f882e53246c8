// SPDX-License-Identifier: BSD-3-Clause
//
// The series of a reading whose numbers all differ.
#include "switch/telemetry/metric_families.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

#include <sstream>
#include <string>
#include <vector>

namespace ofswitch {
namespace {

using testing::ElementsAre;

// The samples of the families whose names begin so, a line each.
std::vector<std::string> samples(const LiveSwitch::Reading& reading,
                                 const std::string& start) {
  std::ostringstream page;
  prometheus::TextSerializer().Serialize(page, metricFamilies(reading));
  std::istringstream lines(page.str());
  std::vector<std::string> all;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("ofswitch_" + start)) all.push_back(line.substr(9));
  }
  return all;
}

pb::DropCause drop(const std::string& name, uint64_t packets) {
  pb::DropCause cause;
  cause.set_name(name);
  cause.set_packets(packets);
  return cause;
}

void fill(uint64_t base, pb::Table::Classifier* one) {
  one->set_flows(base + 1);
  one->set_builds(base + 2);
  one->set_failed_builds(base + 3);
  one->set_last_build_ns((base + 4) * 1'000'000'000);
  one->set_longest_build_ns((base + 5) * 1'000'000'000);
  one->set_total_build_ns((base + 6) * 1'000'000'000);
}

TEST(MetricFamilies, OfTheSwitch) {
  LiveSwitch::Reading reading;
  pb::StatsReply& stats = reading.stats;
  stats.set_uptime_ns(1'500'000'000);
  stats.set_buffers_total(2);
  stats.set_buffers_free(3);
  stats.set_flows(4);
  stats.set_flow_changes(5);
  stats.set_packets_received(6);
  stats.set_bytes_received(7);
  stats.set_packets_forwarded(8);
  stats.set_copies_output(9);
  stats.set_packets_sent(10);
  stats.set_bytes_sent(11);
  stats.set_packets_in_flight(12);
  stats.add_discrepancies("one");
  stats.add_discrepancies("two");
  stats.set_expired_idle(13);
  stats.set_expired_hard(14);
  *stats.add_drops() = drop("table_miss", 15);
  *stats.add_drops() = drop("no_such_port", 16);
  pb::WorkerStats* worker = stats.add_workers();
  worker->set_worker(1);
  worker->set_core(0);
  worker->set_task_runs(17);
  worker = stats.add_workers();
  worker->set_worker(2);
  worker->set_core(-1);
  worker->set_running(true);
  worker->set_task_runs(18);

  EXPECT_THAT(
      samples(reading, "build_info"),
      ElementsAre(testing::MatchesRegex("build_info.version=\"[0-9][^\"]*\","
                                        "dpdk=\"[0-9][^\"]*\". 1")));
  EXPECT_THAT(samples(reading, "uptime"), ElementsAre("uptime_seconds 1.5"));
  EXPECT_THAT(samples(reading, "packet_buffers"),
              ElementsAre("packet_buffers 2", "packet_buffers_free 3"));
  EXPECT_THAT(
      samples(reading, "flow"),
      ElementsAre("flows 4", "flow_changes_total 5", "flows_without_series 4"));
  EXPECT_THAT(
      samples(reading, "received"),
      ElementsAre("received_packets_total 6", "received_bytes_total 7"));
  EXPECT_THAT(samples(reading, "forwarded"),
              ElementsAre("forwarded_packets_total 8"));
  EXPECT_THAT(samples(reading, "output"),
              ElementsAre("output_copies_total 9",
                          "output_drops_total{cause=\"no_such_port\"} 16",
                          "output_drops_total{cause=\"no_buffer_for_output\"} "
                          "0"));
  EXPECT_THAT(samples(reading, "sent"),
              ElementsAre("sent_packets_total 10", "sent_bytes_total 11"));
  EXPECT_THAT(samples(reading, "in_flight"),
              ElementsAre("in_flight_packets 12"));
  EXPECT_THAT(samples(reading, "account"),
              ElementsAre("account_discrepancies 2"));
  EXPECT_THAT(samples(reading, "expired"),
              ElementsAre("expired_flows_total{timeout=\"idle\"} 13",
                          "expired_flows_total{timeout=\"hard\"} 14"));
  EXPECT_THAT(
      samples(reading, "worker"),
      ElementsAre("workers 2", "worker_running{worker=\"1\",core=\"0\"} 0",
                  "worker_running{worker=\"2\",core=\"any\"} 1",
                  "worker_task_runs_total{worker=\"1\",core=\"0\"} 17",
                  "worker_task_runs_total{worker=\"2\",core=\"any\"} 18"));
}

TEST(MetricFamilies, OfPorts) {
  LiveSwitch::Reading reading;
  pb::Port* port = reading.ports.add_ports();
  port->set_port(3);
  port->set_name("n");
  port->set_device("dev");
  port->set_driver("drv");
  port->set_mac("m");
  port->set_link_up(true);
  port->set_speed_mbps(8);
  port->set_mtu(1);
  port->set_rx_queues(2);
  port->set_tx_queues(4);
  port->set_rx_packets(5);
  port->set_rx_bytes(6);
  port->set_tx_packets(7);
  port->set_tx_bytes(9);
  *port->add_drops() = drop("rx_missed", 10);
  *port->add_drops() = drop("tx_error", 11);
  const std::string of = "{port=\"3\",name=\"n\"} ";
  const std::string with = "{port=\"3\",name=\"n\",";
  EXPECT_THAT(
      samples(reading, "port"),
      ElementsAre(
          "port_info" + with + "device=\"dev\",driver=\"drv\",mac=\"m\"} 1",
          "port_up" + of + "1", "port_speed_bytes" + of + "1000000",
          "port_mtu_bytes" + of + "1", "port_receive_queues" + of + "2",
          "port_transmit_queues" + of + "4",
          "port_receive_packets_total" + of + "5",
          "port_receive_bytes_total" + of + "6",
          "port_transmit_packets_total" + of + "7",
          "port_transmit_bytes_total" + of + "9",
          "port_dropped_packets_total" + with + "cause=\"rx_missed\"} 10",
          "port_dropped_packets_total" + with + "cause=\"tx_error\"} 11"));
}

TEST(MetricFamilies, OfAPortThatIsDown) {
  LiveSwitch::Reading reading;
  reading.ports.add_ports()->set_port(7);
  EXPECT_THAT(samples(reading, "port_up"),
              ElementsAre("port_up{port=\"7\",name=\"\"} 0"));
}

TEST(MetricFamilies, OfTablesThatHaveBeenOfUse) {
  LiveSwitch::Reading reading;
  for (uint32_t i = 0; i < 8; i++) reading.tables.add_tables()->set_table(i);
  const auto table = [&](int i) { return reading.tables.mutable_tables(i); };
  table(1)->set_flows(1);
  table(2)->set_entered(1);
  table(3)->mutable_ipv4()->set_builds(1);
  table(4)->mutable_ipv6()->set_failed_builds(1);
  table(5)->add_counters()->set_value(1);
  table(6)->add_counters()->set_value(0);
  table(6)->set_matched(1);  // never without having been entered
  EXPECT_THAT(
      samples(reading, "table_flows"),
      ElementsAre("table_flows{table=\"1\"} 1", "table_flows{table=\"2\"} 0",
                  "table_flows{table=\"3\"} 0", "table_flows{table=\"4\"} 0",
                  "table_flows{table=\"5\"} 0"));
}

TEST(MetricFamilies, OfATable) {
  LiveSwitch::Reading reading;
  pb::Table* table = reading.tables.add_tables();
  table->set_table(9);
  table->set_flows(1);
  table->set_entered(2);
  table->set_matched(3);
  *table->add_drops() = drop("table_miss", 4);
  pb::Table::Counter* counter = table->add_counters();
  counter->set_name("dropActions");
  counter->set_value(5);
  fill(10, table->mutable_ipv4());
  fill(20, table->mutable_ipv6());
  const std::string of = "{table=\"9\"} ";
  const std::string with = "{table=\"9\",";
  EXPECT_THAT(
      samples(reading, "table"),
      ElementsAre(
          "table_flows" + of + "1", "table_entered_packets_total" + of + "2",
          "table_matched_packets_total" + of + "3",
          "table_dropped_packets_total" + with + "cause=\"table_miss\"} 4",
          "table_module_events_total" + with + "counter=\"dropActions\"} 5"));
  const std::string v4 = with + "family=\"ipv4\"} ";
  const std::string v6 = with + "family=\"ipv6\"} ";
  EXPECT_THAT(samples(reading, "classifier"),
              ElementsAre("classifier_rules" + v4 + "11",
                          "classifier_rules" + v6 + "21",
                          "classifier_builds_total" + v4 + "12",
                          "classifier_builds_total" + v6 + "22",
                          "classifier_failed_builds_total" + v4 + "13",
                          "classifier_failed_builds_total" + v6 + "23",
                          "classifier_last_build_seconds" + v4 + "14",
                          "classifier_last_build_seconds" + v6 + "24",
                          "classifier_longest_build_seconds" + v4 + "15",
                          "classifier_longest_build_seconds" + v6 + "25",
                          "classifier_build_seconds_total" + v4 + "16",
                          "classifier_build_seconds_total" + v6 + "26"));
}

TEST(MetricFamilies, OfFlows) {
  LiveSwitch::Reading reading;
  reading.stats.set_flows(7);
  auto installed = std::make_shared<InstalledFlow>();
  installed->flow.table = 2;
  installed->flow.priority = 3;
  installed->flow.cookie = 0x2a;
  reading.flows.push_back({installed, 5, 500});
  EXPECT_THAT(
      samples(reading, "flow"),
      ElementsAre("flows 7", "flow_changes_total 0",
                  "flow_packets_total{table=\"2\",priority=\"3\",cookie="
                  "\"0x2a\",match=\"\"} 5",
                  "flow_bytes_total{table=\"2\",priority=\"3\",cookie=\"0x2a\","
                  "match=\"\"} 500",
                  "flows_without_series 6"));
}

}  // namespace
}  // namespace ofswitch
