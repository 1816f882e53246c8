# SPDX-License-Identifier: BSD-3-Clause
"""UDP and TCP frames of 64 bytes over IPv4, and captures of them."""
import struct

FRAME_SIZE = 64
MAC_DST = bytes.fromhex("020000000002")
MAC_SRC = bytes.fromhex("020000000001")


def checksum(data):
    """The Internet checksum of an even number of bytes."""
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    total = (total & 0xFFFF) + (total >> 16)
    total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def frame(src, dst, src_port, dst_port, protocol=17, dst_mac=MAC_DST):
    """Addresses and ports are integers, the protocol UDP (17) or TCP (6); all checksums are right."""
    length = FRAME_SIZE - 14
    addresses = struct.pack("!II", src, dst)
    start = struct.pack("!BBHHHBB", 0x45, 0, length, 0, 0, 64, protocol)
    ip = start + struct.pack("!H", checksum(start + b"\0\0" + addresses)) + addresses
    pseudo = addresses + struct.pack("!BBH", 0, protocol, length - 20)
    make = tcp if protocol == 6 else udp
    return dst_mac + MAC_SRC + b"\x08\x00" + ip + make(src_port, dst_port, length - 20, pseudo)


def udp(src_port, dst_port, length, pseudo):
    head = struct.pack("!HHH", src_port, dst_port, length)
    payload = bytes(length - 8)
    return head + struct.pack("!H", checksum(pseudo + head + b"\0\0" + payload) or 0xFFFF) + payload


def tcp(src_port, dst_port, length, pseudo):
    """A segment with ACK set and some bytes of data."""
    head = struct.pack("!HHIIBBH", src_port, dst_port, 1, 1, 0x50, 0x10, 8192)
    rest = bytes(2 + length - 20)  # the urgent pointer, the data
    return head + struct.pack("!H", checksum(pseudo + head + b"\0\0" + rest)) + rest


def write_capture(path, frames):
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for number, frame in enumerate(frames):
            out.write(struct.pack("<IIII", 0, number % 1000000, len(frame), len(frame)))
            out.write(frame)
