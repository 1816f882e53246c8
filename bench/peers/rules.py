# SPDX-License-Identifier: BSD-3-Clause
"""Rules of several kinds: as lines of a flow file, and as frames that match them.

A kind is a function that draws one rule. What is drawn depends on the random numbers alone.
"""
import dataclasses

import traffic

TCP, UDP = 6, 17
SERVICES = (22, 25, 53, 80, 110, 123, 143, 443, 3306, 5060, 8080, 8443)
MAC_VENDOR = bytes.fromhex("025056")


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
        return self.address | rng.getrandbits(32 - self.length) if self.length < 32 else self.address


ANY = Prefix(0, 0)


def under(rng, network, length):
    """A prefix of so many bits in an /8; the /8's own if it is shorter."""
    address = network << 24 | rng.getrandbits(24)
    return Prefix(address >> (32 - length) << (32 - length), length) if length else ANY


@dataclasses.dataclass(frozen=True)
class Rule:
    """None is any, ports are of the protocol."""
    src: Prefix = ANY
    dst: Prefix = ANY
    protocol: int | None = UDP
    src_port: int | None = None
    dst_port: int | None = None
    dst_mac: bytes | None = None

    def fixed_bits(self):
        """How narrow it is: a rule that holds another one has fewer."""
        ports = [port for port in (self.src_port, self.dst_port) if port is not None]
        return (self.src.length + self.dst.length + 16 * len(ports) + 8 * (self.protocol is not None) +
                48 * (self.dst_mac is not None))

    def match(self):
        fields = [{TCP: "tcp", UDP: "udp", None: "ip"}[self.protocol]]
        if self.dst_mac is not None:
            fields.append("dl_dst=" + self.dst_mac.hex(":"))
        if self.src.length:
            fields.append(f"nw_src={self.src}")
        if self.dst.length:
            fields.append(f"nw_dst={self.dst}")
        if self.src_port is not None:
            fields.append(f"tp_src={self.src_port}")
        if self.dst_port is not None:
            fields.append(f"tp_dst={self.dst_port}")
        return ",".join(fields)

    def flow(self, actions, table=0, priority=100):
        return f"table={table},priority={priority},{self.match()},actions={actions}"

    def frame(self, rng):
        """Whatever the rule leaves open is drawn."""
        return traffic.frame(
            self.src.draw(rng), self.dst.draw(rng),
            rng.randint(1024, 65535) if self.src_port is None else self.src_port,
            rng.randint(1024, 65535) if self.dst_port is None else self.dst_port,
            protocol=self.protocol or rng.choice((TCP, UDP)),
            dst_mac=self.dst_mac or traffic.MAC_DST)


def pick(rng, shares):
    """One of the keys, as often as its share says."""
    return rng.choices(list(shares), list(shares.values()))[0]


def service(rng):
    """From a network to a network, to one service."""
    src = under(rng, 192, rng.randint(12, 24))
    dst = under(rng, 10, rng.randint(20, 28))
    return Rule(src, dst, UDP, None, 1000 + rng.randrange(50))


def prefix_or_port(rng):
    """Networks of whole bytes, any source half of the time, one port half of the time."""
    src = under(rng, rng.randrange(256), rng.choice((0, 16)))
    dst = under(rng, rng.randrange(256), rng.choice((16, 24)))
    return Rule(src, dst, UDP, None, rng.choice((None, rng.randint(1024, 65535))))


def protocol_of(rng, ports, often):
    """A rule with ports has a protocol; another one has it so often."""
    if any(port is not None for port in ports) or rng.random() < often:
        return rng.choice((TCP, TCP, UDP))
    return None


def acl(rng):
    """As routers filter: long prefixes on both sides, and mostly a destination port."""
    src = under(rng, rng.choice((10, 172, 192)), pick(rng, {0: 5, 16: 10, 21: 10, 24: 25, 27: 10, 28: 10, 32: 30}))
    dst = under(rng, rng.choice((20, 80)), pick(rng, {16: 5, 22: 10, 24: 20, 26: 10, 30: 10, 32: 45}))
    port = pick(rng, {rng.choice(SERVICES): 40, rng.randint(1, 65535): 35, None: 25})
    return Rule(src, dst, protocol_of(rng, [port], 0.5), None, port)


def firewall(rng):
    """Mostly from anywhere, to hosts and services."""
    src = under(rng, rng.randrange(256), pick(rng, {0: 60, 8: 5, 24: 10, 32: 25}))
    dst = under(rng, rng.randrange(256), pick(rng, {0: 35, 16: 5, 24: 10, 32: 50}))
    src_port = pick(rng, {rng.choice(SERVICES): 20, None: 80})
    dst_port = pick(rng, {rng.choice(SERVICES): 30, rng.randint(1, 65535): 40, None: 30})
    return Rule(src, dst, protocol_of(rng, [src_port, dst_port], 0.5), src_port, dst_port)


def ipc(rng):
    """As hosts filter: a mixture of both, and services on either side."""
    lengths = {0: 15, 16: 10, 24: 20, 28: 15, 32: 40}
    src = under(rng, rng.choice((10, 172, 192)), pick(rng, lengths))
    dst = under(rng, rng.choice((20, 80)), pick(rng, lengths))
    src_port = pick(rng, {rng.choice(SERVICES): 25, None: 75})
    dst_port = pick(rng, {rng.choice(SERVICES): 50, None: 50})
    return Rule(src, dst, protocol_of(rng, [src_port, dst_port], 0.7), src_port, dst_port)


def host(rng):
    """As a controller steers: a machine by its MAC, its services one by one or together."""
    mac = MAC_VENDOR + rng.randrange(500).to_bytes(3, "big")
    src = under(rng, rng.choice((10, 172, 192)), pick(rng, {0: 60, 16: 20, 24: 20}))
    port = pick(rng, {rng.choice(SERVICES): 60, None: 40})
    return Rule(src, ANY, protocol_of(rng, [port], 0.3), None, port, mac)


def draw(rng, kind, count):
    """So many different rules of a kind, in the order in which they were drawn."""
    rules = {}
    while len(rules) < count:
        rules[kind(rng)] = None
    return list(rules)
