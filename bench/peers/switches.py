# SPDX-License-Identifier: BSD-3-Clause
"""The switches: each is started on a capture and a flow file, forwards for a while on one core, and is stopped.

What is counted is the processor time of the thread that forwards, in cycles of the time stamp counter, so that other
programs on the machine disturb as little as they can. Time and packets are those of one window in the middle, for every
switch in the same way: what starting and stopping take is in neither.
"""
import glob
import json
import os
import re
import subprocess
import time

START_TIMEOUT = 120
WARM_UP = 0.3  # seconds


def buffers(traffic):
    """How many packets to have room for: the capture's stay in memory."""
    return max(1 << 14, 1 << (len(traffic.frames) + 4096).bit_length()) - 1


class Failure(Exception):
    pass


def tsc_hz():
    with open("/proc/cpuinfo") as info:
        return float(re.search(r"cpu MHz\s*:\s*([\d.]+)", info.read())[1]) * 1e6


def run_times(pid):
    """Nanoseconds on a processor, by thread."""
    times = {}
    for path in glob.glob(f"/proc/{pid}/task/*/schedstat"):
        with open(path) as stat:
            times[path.split("/")[4]] = int(stat.read().split()[0])
    return times


class Reading:
    """How far a switch is: the run time of its threads when `read_packets` told how many packets it has received.

    Asking takes a moment in which the switch goes on, so that the run times are those in the middle of the question.
    """

    def __init__(self, pid, read_packets):
        before = run_times(pid)
        self.packets = read_packets()
        after = run_times(pid)
        self.run_times = {thread: (before.get(thread, time) + time) / 2 for thread, time in after.items()}


def forward(pid, read_packets, seconds):
    """Cycles that the forwarding thread, which is the busiest, takes in a while, and packets received meanwhile."""
    first = Reading(pid, read_packets)
    time.sleep(seconds)
    last = Reading(pid, read_packets)
    used = max(last.run_times[thread] - first.run_times.get(thread, 0) for thread in last.run_times)
    return used * 1e-9 * tsc_hz(), last.packets - first.packets


class Process:
    """A program whose output is read line by line."""

    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True)
        self.lines = []

    def wait_for(self, pattern):
        deadline = time.monotonic() + START_TIMEOUT
        while time.monotonic() < deadline:
            line = self.process.stdout.readline()
            if not line:
                break
            self.lines.append(line)
            found = re.search(pattern, line)
            if found:
                return found
        self.process.kill()
        raise Failure(f"{' '.join(self.process.args)}: no '{pattern}' in\n" + "".join(self.lines))

    def write(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def stop(self):
        self.process.terminate()


class Ofswitch:
    name = "ofswitch"
    is_peer = False

    def __init__(self, build, core, memory_mb, hugepages):
        self.build = build
        self.core = core
        self.memory_mb = memory_mb
        self.hugepages = hugepages

    def config(self, folder, capture, traffic):
        ports = [f'  - {{number: 1, device: "net_pcap0,rx_pcap={capture},infinite_rx=1"}}']
        ports += [f'  - {{number: {port}, device: "net_null{port},no-rx=1"}}' for port in traffic.outputs]
        text = ["ports:"] + ports + [
            f"workers: [{self.core}]",
            "memory:",
            f"  mb: {self.memory_mb}",
            f"  hugepages: {str(self.hugepages).lower()}",
            f"  buffers: {buffers(traffic)}",
            "flows: [flows.txt]",
            f"control: {{socket: {folder}/control.sock}}",
            "metrics: false",
            f"module: {self.build}/modules/openflow/libOpenFlowModule.so",
        ]
        path = os.path.join(folder, "switch.yaml")
        with open(path, "w") as out:
            out.write("\n".join(text) + "\n")
        return path

    def received(self, folder):
        ports = subprocess.run([f"{self.build}/switch/ofswitch", "ports", "--json", "--socket", f"{folder}/control.sock"],
                               stdout=subprocess.PIPE, text=True, check=True)
        return sum(port["rxPackets"] for port in json.loads(ports.stdout))

    def measure(self, folder, capture, traffic, seconds):
        """Cycles used and packets received in a while, and packets sent for each one received in the whole run."""
        config = self.config(folder, capture, traffic)
        running = Process([f"{self.build}/switch/ofswitch", "run", "-c", config])
        running.wait_for(r"^running:")
        time.sleep(WARM_UP)
        cycles, packets = forward(running.process.pid, lambda: self.received(folder), seconds)
        running.stop()
        found = running.wait_for(r"^stopped: (\d+) packets? received, (\d+) sent")
        running.process.wait()
        return cycles, packets, int(found[2]) / int(found[1])


class Testpmd:
    """Bare forwarding by DPDK's test program: what the harness itself takes."""
    name = "testpmd"
    is_peer = False

    def __init__(self, core, memory_mb, hugepages):
        self.core = core
        self.memory_mb = memory_mb
        self.hugepages = hugepages

    def measure(self, _folder, capture, traffic, seconds):
        memory = ["--in-memory"] if self.hugepages else ["--no-huge", "--no-shconf"]
        other = next(cpu for cpu in sorted(os.sched_getaffinity(0)) if cpu != self.core)
        running = Process(
            ["stdbuf", "-oL", "dpdk-testpmd", "-l", f"{other},{self.core}", "--no-pci", "--no-telemetry",
             "-m", str(self.memory_mb), *memory,
             "--vdev", f"net_pcap0,rx_pcap={capture},infinite_rx=1", "--vdev", "net_null0,no-rx=1",
             "--", "--total-num-mbufs", str(buffers(traffic)), "--no-flush-rx", "--forward-mode=io", "--interactive"])

        def received():
            running.write("show port stats 0")
            return int(running.wait_for(r"RX-packets:\s*(\d+)")[1])

        running.write("start")
        running.wait_for(r"io packet forwarding")
        time.sleep(WARM_UP)
        cycles, packets = forward(running.process.pid, received, seconds)
        running.write("quit")
        running.process.stdout.read()
        running.process.wait()
        return cycles, packets, None  # one port alone, whatever the scenario
