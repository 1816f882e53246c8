# SPDX-License-Identifier: BSD-3-Clause
"""What is done to the flows while packets pass, and which flows there should be.

Each stream's packets match one flow of table 0 and one of table 1, at every moment: a change replaces them by flows of
another version. Around them, a crowd of flows that no packet matches comes and goes in four tables, both families.
"""
import time

from streams import STREAMS, VERSION_PORT

TABLES = 4
CROWD = 200
VERSIONS = 200
TIMED_COOKIE = 0xFFFF


def stream_flows(version, priority=100, extra=""):
    lines = []
    for number, stream in enumerate(STREAMS):
        match = f"in_port={stream.enters},{'udp6' if stream.ipv6 else 'udp'},tp_dst={stream.port}"
        if not extra:
            lines.append(f"cookie={number + 1:#x},table=0,priority={priority},{match},actions=goto_table:1")
        mac = f"02:00:00:00:00:{version:02x}"
        cookie = "" if extra else f"cookie={number + 0x11:#x},"
        lines.append(f"{cookie}{extra}table=1,priority={priority},{match},actions=mod_dl_dst:{mac},mod_dl_src:{mac},"
                     f"mod_tp_src:{VERSION_PORT + version},dec_ttl,output:{stream.leaves}")
    return lines


def standing_flows():
    """So that no table of either family is ever without flows."""
    return [f"cookie={0x21 + 2 * table + six:#x},table={table},priority=1,{match},actions=drop"
            for table in range(TABLES) for six, match in enumerate(("ip,nw_dst=192.0.2.1", "ipv6,ipv6_dst=2001:db8::f"))]


def first_flows():
    return stream_flows(1) + standing_flows()


FIRST_COOKIES = {n + 1 for n in range(len(STREAMS))} | {n + 0x11 for n in range(len(STREAMS))} | \
    {0x21 + n for n in range(2 * TABLES)}


class Changes:
    def __init__(self, switch, rng, rate):
        self.switch = switch
        self.rng = rng
        self.pause = 1 / rate
        self.crowd = {}  # line by cookie
        self.made = 0
        self.commands = 0
        self.counts = {"added": 0, "changed": 0, "removed": 0}
        self.version = 1
        self.listings = 0

    def run(self, stop):
        while not stop.wait(self.pause):
            self.rng.choice((self.add, self.add, self.delete, self.delete, self.change_version, self.change_version,
                             self.replace, self.add_timed))()
            self.commands += 1
            if self.commands % 20 == 0:
                self.check_listing()

    def change(self, operation, lines):
        reply = self.switch.ask("flows", operation, "-", text="\n".join(lines) + "\n")
        if not reply["applied"]:
            raise RuntimeError(f"flows {operation} was not applied: {reply}")
        for count in self.counts:
            self.counts[count] += reply[count]
        return reply

    def crowd_flow(self):
        self.made += 1
        number = self.made % 0x10000
        cookie = 0x10000 + self.made
        match = self.rng.choice((
            f"tcp,nw_dst=172.{number >> 8}.{number & 255}.0/24,tp_dst={self.rng.randrange(1, 1000)}",
            f"in_port=2,ip,nw_src=10.{number >> 8}.{number & 255}.7",
            f"ipv6,ipv6_dst=2001:db8:{number:x}::/48"))
        action = self.rng.choice(("drop", "output:2", "dec_ttl,output:3", "mod_dl_dst:02:00:00:00:00:07,output:1"))
        return cookie, (f"cookie={cookie:#x},table={self.rng.randrange(TABLES)},priority={self.rng.randrange(2, 90)},"
                        f"{match},actions={action}")

    def add(self):
        new = dict(self.crowd_flow() for _ in range(self.rng.randint(1, 20)))
        if len(self.crowd) + len(new) > CROWD:
            self.delete()
        self.change("add", new.values())
        self.crowd.update(new)

    def delete(self):
        gone = self.rng.sample(sorted(self.crowd), min(len(self.crowd), self.rng.randint(1, 30)))
        if gone:
            self.change("del", [f"cookie={cookie:#x}/-1" for cookie in gone])
        for cookie in gone:
            del self.crowd[cookie]

    def change_version(self):
        self.version = self.version % VERSIONS + 1
        self.change("add", stream_flows(self.version))

    def add_timed(self):
        """For a second, or until the next replacement, these are matched instead."""
        version = self.rng.randint(1, VERSIONS)
        self.change("add", stream_flows(version, 150, f"cookie={TIMED_COOKIE:#x},hard_timeout=1,"))

    def replace(self):
        kept = dict(self.rng.sample(sorted(self.crowd.items()), len(self.crowd) // 2))
        self.version = self.version % VERSIONS + 1
        self.change("replace", stream_flows(self.version) + standing_flows() + list(kept.values()))
        self.crowd = kept

    def back_to_first(self):
        """To compare memory with what it was at first."""
        self.change("replace", first_flows())
        self.crowd = {}
        time.sleep(2)  # for what is released after a grace period

    def check_listing(self):
        listed = {flow["cookie"] for flow in self.switch.ask("flows", "dump", "--no-stats")} - {TIMED_COOKIE}
        wanted = FIRST_COOKIES | self.crowd.keys()
        if listed != wanted:
            raise RuntimeError(f"flows that should not be there: {sorted(listed - wanted)}, that are missing: "
                               f"{sorted(wanted - listed)}")
        self.listings += 1
