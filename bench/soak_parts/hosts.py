#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""The hosts of a soak, inside their namespace: "hosts.py send RATE" or "hosts.py receive".

Ends when standard input does, and prints what was counted as one line of JSON.
"""
import json
import select
import socket
import struct
import sys
import time

from network import CABLES
from streams import STREAMS, fault, frame, template

ETH_P_ALL = 3
SOL_PACKET = 263
PACKET_STATISTICS = 6
PACKET_IGNORE_OUTGOING = 23
BURST = 8  # of each stream


def packet_socket(device, protocol):
    made = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    made.setsockopt(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1)
    made.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE
    made.bind((device, protocol))
    return made


def told_to_end():
    return bool(select.select([sys.stdin], [], [], 0)[0])


def send(rate):
    """Sends bursts of every stream, so many packets a second in all. Time that was lost is not caught up."""
    sockets = {cable: packet_socket(f"h{cable}", 0) for cable in CABLES}
    starts = {stream: template(stream) for stream in STREAMS}
    sent = {stream.name: 0 for stream in STREAMS}
    refused = {stream.name: 0 for stream in STREAMS}
    number = 0
    pause = BURST * len(STREAMS) / rate
    due = time.monotonic()
    while not told_to_end():
        for stream in STREAMS:
            out = sockets[stream.enters]
            for offset in range(BURST):
                try:
                    out.send(frame(starts[stream], number + offset))
                    sent[stream.name] += 1
                except OSError:  # the interface is down
                    refused[stream.name] += 1
        number += BURST
        due = max(due + pause, time.monotonic() - pause)
        time.sleep(max(0, due - time.monotonic()))
    print(json.dumps({"sent": sent, "refused": refused}))


def receive():
    sockets = {packet_socket(f"h{cable}", ETH_P_ALL): cable for cable in CABLES}
    poll = select.poll()
    for one in sockets:
        one.setblocking(False)
        poll.register(one, select.POLLIN)
    by_fd = {one.fileno(): one for one in sockets}
    by_port = {stream.port: stream for stream in STREAMS}
    received = {stream.name: 0 for stream in STREAMS}
    last = {stream.name: -1 for stream in STREAMS}
    late = {stream.name: 0 for stream in STREAMS}
    faults = {}
    while not told_to_end():
        for fd, _ in poll.poll(100):
            for _ in range(256):
                try:
                    data = by_fd[fd].recv(2048)
                except BlockingIOError:
                    break
                except OSError:  # the interface went down
                    continue
                found = fault(data)
                if isinstance(found, str):
                    faults[found] = faults.get(found, 0) + 1
                    continue
                port, number = found
                stream = by_port[port]
                if stream.leaves != sockets[by_fd[fd]]:
                    faults["it left by a wrong port"] = faults.get("it left by a wrong port", 0) + 1
                    continue
                received[stream.name] += 1
                if number <= last[stream.name]:
                    late[stream.name] += 1
                last[stream.name] = max(number, last[stream.name])
    missed = {f"h{cable}": struct.unpack("II", one.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8))[1]
              for one, cable in sockets.items()}
    print(json.dumps({"received": received, "late": late, "faults": faults, "missed": missed}))


if __name__ == "__main__":
    if sys.argv[1] == "send":
        send(float(sys.argv[2]))
    else:
        receive()
