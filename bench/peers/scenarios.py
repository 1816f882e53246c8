# SPDX-License-Identifier: BSD-3-Clause
"""The scenarios: what flows a switch has, and what packets it gets.

Everything is drawn from one seed, so that every switch gets the same flow file and the same capture, today and
tomorrow. Packets enter at port 1; the others swallow what they are given.
"""
import dataclasses
import random
from collections.abc import Callable

import rules
import traffic

SEED = 20240607
REWRITES = ("mod_dl_src:02:00:00:00:00:11,mod_dl_dst:02:00:00:00:00:12,dec_ttl,"
            "mod_nw_dst:192.0.2.7,mod_tp_dst:4789,")


@dataclasses.dataclass
class Traffic:
    """Lines of a flow file, frames of a capture that match them, and the ports that packets leave by."""
    flows: list[str]
    frames: list[bytes]
    outputs: tuple[int, ...] = (2,)


@dataclasses.dataclass
class Scenario:
    name: str
    title: str
    make: Callable[[random.Random], Traffic]


def one_flow(actions, outputs):
    def make(_rng):
        frame = traffic.frame(0xC0000201, 0x0A000001, 7000, 1000)
        return Traffic([f"priority=100,actions={actions}"], [frame] * 256, outputs)
    return make


def flows_of(kind, count, microflows, actions=("output:2",), narrow_first=False):
    """Rules of a kind, the same ones in each of as many tables as there are actions: a packet finds one everywhere. They
    may overlap, so each has a priority of its own: the first drawn wins, or the narrower one, as filters are written.
    (Else a rule for everything would hide all those that are drawn after it.)"""
    def make(rng):
        drawn = rules.draw(rng, kind, count)
        if narrow_first:
            drawn.sort(key=rules.Rule.fixed_bits, reverse=True)
        flows = [rule.flow(table_actions, table, count - i)
                 for table, table_actions in enumerate(actions) for i, rule in enumerate(drawn)]
        return Traffic(flows, [rng.choice(drawn).frame(rng) for _ in range(microflows)])
    return make


SCENARIOS = [
    Scenario("S1", "1 flow, any to one port", one_flow("output:2", (2,))),
    Scenario("S2", "100 prefix/port flows, 10k microflows", flows_of(rules.prefix_or_port, 100, 10000)),
    Scenario("S3", "1,000 flows, 100k microflows", flows_of(rules.prefix_or_port, 1000, 100000)),
    Scenario("S4", "10,000 flows, 100k microflows", flows_of(rules.prefix_or_port, 10000, 100000)),
    Scenario("S5", "S3 with MAC, TTL, address and port rewrites",
             flows_of(rules.prefix_or_port, 1000, 100000, [REWRITES + "output:2"])),
    Scenario("S6", "three tables of 1,000 flows in a row",
             flows_of(rules.prefix_or_port, 1000, 100000, ["goto_table:1", "goto_table:2", "output:2"])),
    Scenario("S7", "flood to three ports", one_flow("flood", (2, 3, 4))),
    Scenario("R1", "S3 with rules to one service each", flows_of(rules.service, 1000, 100000)),
    Scenario("R2", "S3 with ACL-like rules", flows_of(rules.acl, 1000, 100000, narrow_first=True)),
    Scenario("R3", "S3 with firewall-like rules", flows_of(rules.firewall, 1000, 100000, narrow_first=True)),
    Scenario("R4", "S3 with IPC-like rules", flows_of(rules.ipc, 1000, 100000, narrow_first=True)),
    Scenario("R5", "S3 with rules by MAC, source and port", flows_of(rules.host, 1000, 100000, narrow_first=True)),
]


def make(scenario):
    return scenario.make(random.Random(f"{SEED} {scenario.name}"))
