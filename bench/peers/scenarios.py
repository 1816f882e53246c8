# SPDX-License-Identifier: BSD-3-Clause
"""The scenarios: what flows a switch has, and what packets it gets.

Everything is drawn from one seed, so that every switch gets the same flow file and the same capture, today and
tomorrow. Packets enter at port 1; the others swallow what they are given.
"""
import dataclasses
import random
from collections.abc import Callable

from traffic import udp_frame

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


def dotted(address):
    return ".".join(str(address >> shift & 0xFF) for shift in (24, 16, 8, 0))


@dataclasses.dataclass(frozen=True)
class Prefix:
    address: int
    length: int

    def __str__(self):
        return f"{dotted(self.address)}/{self.length}"

    def draw(self, rng):
        """An address under the prefix."""
        return self.address | rng.getrandbits(32 - self.length)


@dataclasses.dataclass(frozen=True)
class Rule:
    """As in access lists: from a network to a network, to one service."""
    src: Prefix
    dst: Prefix
    port: int

    def flow(self, actions, table=0):
        return f"table={table},priority=100,udp,nw_src={self.src},nw_dst={self.dst},tp_dst={self.port},actions={actions}"

    def frame(self, rng):
        return udp_frame(self.src.draw(rng), self.dst.draw(rng), rng.randint(1024, 65535), self.port)


def draw_prefix(rng, network, shortest, longest):
    """A prefix of so many bits under an /8."""
    length = rng.randint(shortest, longest)
    return Prefix(network << 24 | rng.getrandbits(24) >> (32 - length) << (32 - length), length)


def draw_rules(rng, count):
    rules = {}
    while len(rules) < count:
        rule = Rule(draw_prefix(rng, 192, 12, 24), draw_prefix(rng, 10, 20, 28), 1000 + rng.randrange(50))
        rules[rule] = None
    return list(rules)


def one_flow(actions, outputs):
    def make(_rng):
        frame = udp_frame(0xC0000201, 0x0A000001, 7000, 1000)
        return Traffic([f"priority=100,actions={actions}"], [frame] * 256, outputs)
    return make


def prefix_port_flows(count, microflows, actions):
    def make(rng):
        rules = draw_rules(rng, count)
        frames = [rng.choice(rules).frame(rng) for _ in range(microflows)]
        return Traffic([rule.flow(actions) for rule in rules], frames)
    return make


def three_tables(count, microflows):
    """The same rules in each table: a packet finds one everywhere."""
    def make(rng):
        rules = draw_rules(rng, count)
        flows = [rule.flow(actions, table) for table, actions in enumerate(("goto_table:1", "goto_table:2", "output:2"))
                 for rule in rules]
        return Traffic(flows, [rng.choice(rules).frame(rng) for _ in range(microflows)])
    return make


SCENARIOS = [
    Scenario("S1", "1 flow, any to one port", one_flow("output:2", (2,))),
    Scenario("S2", "100 prefix/port flows, 10k microflows", prefix_port_flows(100, 10000, "output:2")),
    Scenario("S3", "1,000 flows, 100k microflows", prefix_port_flows(1000, 100000, "output:2")),
    Scenario("S4", "10,000 flows, 100k microflows", prefix_port_flows(10000, 100000, "output:2")),
    Scenario("S5", "S3 with MAC, TTL, address and port rewrites",
             prefix_port_flows(1000, 100000, REWRITES + "output:2")),
    Scenario("S6", "three tables of 1,000 flows in a row", three_tables(1000, 100000)),
    Scenario("S7", "flood to three ports", one_flow("flood", (2, 3, 4))),
]


def make(scenario):
    return scenario.make(random.Random(f"{SEED} {scenario.name}"))
