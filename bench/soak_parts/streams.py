# SPDX-License-Identifier: BSD-3-Clause
"""The packets of a soak: what the hosts send, and what they check about what comes.

A stream is told by its UDP destination port. Each packet has its number in its payload, and beside it the number's
complement, so that all packets of a stream have the same checksum. The switch's flows write the number of the version
of the flow set into three places: a packet in which they differ has met a mixture.
"""
import dataclasses
import struct

VERSION_PORT = 9000  # the version is added to it and written as the UDP source port
MAC = bytes.fromhex("0200000000")


@dataclasses.dataclass(frozen=True)
class Stream:
    name: str
    port: int  # UDP destination port
    enters: int
    leaves: int
    ipv6: bool = False


STREAMS = (
    Stream("steady", 7000, 1, 2),
    Stream("steady6", 7001, 1, 2, ipv6=True),
    Stream("to-flapping", 7002, 1, 3),
    Stream("from-flapping", 7003, 3, 2),
)

PORTS = {stream.port for stream in STREAMS}


def ones_sum(data):
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    total = (total & 0xFFFF) + (total >> 16)
    return (total & 0xFFFF) + (total >> 16)


def template(stream):
    """A frame of the stream up to its payload of a number and the number's complement."""
    udp = struct.pack("!HHHH", 5000, stream.port, 24, 0)
    numbers = b"\0" * 8 + b"\xff" * 8
    if stream.ipv6:
        addresses = bytes.fromhex("20010db8" + "00" * 11 + "01" + "20010db8" + "00" * 11 + "02")
        head = struct.pack("!IHBB", 6 << 28, 24, 17, 64) + addresses
        ether_type = b"\x86\xdd"
    else:
        addresses = bytes((10, 0, 0, 1, 10, 0, 0, 2))
        head = struct.pack("!BBHHHBBH", 0x45, 0, 44, 0, 0, 64, 17, 0) + addresses
        head = head[:10] + struct.pack("!H", 0xFFFF - ones_sum(head)) + head[12:]
        ether_type = b"\x08\x00"
    check = 0xFFFF - ones_sum(addresses + struct.pack("!HH", 17, 24) + udp + numbers)
    udp = udp[:6] + struct.pack("!H", check or 0xFFFF)
    return MAC + b"\xfe" + MAC + b"\xff" + ether_type + head + udp


def frame(start, number):
    return start + struct.pack("!QQ", number, number ^ 0xFFFFFFFFFFFFFFFF)


def fault(data):
    """(stream's port, number) of a frame as it should arrive, or what is wrong with it."""
    ipv4 = data[12:14] == b"\x08\x00"
    end = 34 if ipv4 else 54
    if len(data) != end + 24:
        return f"it has {len(data)} bytes"
    if ipv4 and ones_sum(data[14:34]) != 0xFFFF:
        return "its IPv4 checksum is wrong"
    addresses, ttl = (data[26:34], data[22]) if ipv4 else (data[22:54], data[21])
    if ones_sum(addresses + b"\0\x11\0\x18" + data[end:]) != 0xFFFF:
        return "its UDP checksum is wrong"
    source, port, _, _, number, complement = struct.unpack("!HHHHQQ", data[end:])
    if port not in PORTS:
        return f"it is of no stream: {port}"
    if number ^ complement != 0xFFFFFFFFFFFFFFFF:
        return "its payload was changed"
    if ttl != 63:
        return f"its TTL is {ttl}"
    if not data[5] == data[11] == source - VERSION_PORT:
        return f"it met a mixture of flow sets: {data[5]}, {data[11]}, {source - VERSION_PORT}"
    return port, number
