# SPDX-License-Identifier: BSD-3-Clause
"""UDP frames of 64 bytes over IPv4, and captures of them."""
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


def udp_frame(src, dst, src_port, dst_port):
    """Addresses and ports are integers; both checksums are right."""
    length = FRAME_SIZE - 14
    addresses = struct.pack("!II", src, dst)
    start = struct.pack("!BBHHHBB", 0x45, 0, length, 0, 0, 64, 17)
    ip = start + struct.pack("!H", checksum(start + b"\0\0" + addresses)) + addresses
    udp_length = length - 20
    payload = bytes(udp_length - 8)
    udp = struct.pack("!HHHH", src_port, dst_port, udp_length, 0)
    pseudo = addresses + struct.pack("!BBH", 0, 17, udp_length)
    udp = udp[:6] + struct.pack("!H", checksum(pseudo + udp + payload) or 0xFFFF)
    return MAC_DST + MAC_SRC + b"\x08\x00" + ip + udp + payload


def write_capture(path, frames):
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for number, frame in enumerate(frames):
            out.write(struct.pack("<IIII", 0, number % 1000000, len(frame), len(frame)))
            out.write(frame)
