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


class NotHere(Failure):
    """A switch that this machine cannot run as asked."""


def tsc_hz():
    with open("/proc/cpuinfo") as info:
        return float(re.search(r"cpu MHz\s*:\s*([\d.]+)", info.read())[1]) * 1e6


def run_times(pid):
    """Nanoseconds on a processor, by thread."""
    times = {}
    for path in glob.glob(f"/proc/{pid}/task/*/schedstat"):
        try:
            with open(path) as stat:
                times[path.split("/")[4]] = int(stat.read().split()[0])
        except (FileNotFoundError, ProcessLookupError):
            pass  # the thread has ended since
    return times


class Reading:
    """How far a switch is: the run time of its threads when `read_packets` told how many packets it has received.

    Asking takes a moment in which the switch goes on, so that the run times are those in the middle of the question.
    """

    def __init__(self, pid, read_packets):
        before = run_times(pid)
        self.packets = read_packets()
        after = run_times(pid)
        self.run_times = {thread: (before.get(thread, used) + used) / 2 for thread, used in after.items()}


def forward(pid, read_packets, seconds):
    """Cycles that the forwarding thread, which is the busiest, takes for each packet received in a while."""
    first = Reading(pid, read_packets)
    time.sleep(seconds)
    last = Reading(pid, read_packets)
    packets = last.packets - first.packets
    if packets <= 0 or not last.run_times:
        raise Failure(f"process {pid} has received no packets in {seconds} s")
    used = max(last.run_times[thread] - first.run_times.get(thread, 0) for thread in last.run_times)
    return used * 1e-9 * tsc_hz() / packets


class Process:
    """A program whose output is read line by line; ended, if it still runs, at the end of a "with"."""

    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True)
        self.lines = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def failure(self, what):
        return Failure(f"{' '.join(self.process.args)}: {what}\n" + "".join(self.lines))

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
        raise self.failure(f"no '{pattern}' in")

    def write(self, line):
        try:
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            raise self.failure(f"ended before '{line}'") from None

    def terminate(self):
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

    def received(self, running, folder):
        ports = subprocess.run([f"{self.build}/switch/ofswitch", "ports", "--json", "--socket", f"{folder}/control.sock"],
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if ports.returncode != 0:
            raise running.failure(ports.stdout)
        return sum(port["rxPackets"] for port in json.loads(ports.stdout))

    def measure(self, folder, capture, traffic, seconds):
        """Cycles for each packet received in a while, and packets sent for each one received in the whole run."""
        config = self.config(folder, capture, traffic)
        with Process([f"{self.build}/switch/ofswitch", "run", "-c", config]) as running:
            running.wait_for(r"^running:")
            time.sleep(WARM_UP)
            cycles = forward(running.process.pid, lambda: self.received(running, folder), seconds)
            running.terminate()
            found = running.wait_for(r"^stopped: (\d+) packets? received, (\d+) sent")
            running.process.wait()
        return cycles, int(found[2]) / int(found[1])


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
        command = [
            "stdbuf", "-oL", "dpdk-testpmd", "-l", f"{other},{self.core}", "--no-pci", "--no-telemetry",
            "-m", str(self.memory_mb), *memory,
            "--vdev", f"net_pcap0,rx_pcap={capture},infinite_rx=1", "--vdev", "net_null0,no-rx=1",
            "--", "--total-num-mbufs", str(buffers(traffic)), "--no-flush-rx", "--forward-mode=io", "--interactive"]
        with Process(command) as running:
            def received():
                running.write("show port stats 0")
                return int(running.wait_for(r"RX-packets:\s*(\d+)")[1])

            running.write("start")
            running.wait_for(r"io packet forwarding")
            time.sleep(WARM_UP)
            cycles = forward(running.process.pid, received, seconds)
            running.write("quit")
            running.process.communicate()
        return cycles, None  # one port alone, whatever the scenario
