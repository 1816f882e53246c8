# SPDX-License-Identifier: BSD-3-Clause
"""The switches: each is started on a capture and a flow file, forwards for a while on one core, and is stopped.

What is counted is the processor time of the thread that forwards, in cycles of the time stamp counter, so that other
programs on the machine disturb as little as they can.
"""
import glob
import os
import re
import subprocess
import time

START_TIMEOUT = 120


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

    def busiest_run_time(self):
        return max(run_times(self.process.pid).values())

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

    def measure(self, folder, capture, traffic, seconds):
        """Cycles used, packets received and packets sent in one run."""
        config = self.config(folder, capture, traffic)
        running = Process([f"{self.build}/switch/ofswitch", "run", "-c", config])
        running.wait_for(r"^running:")
        time.sleep(seconds)
        used = running.busiest_run_time()
        running.stop()
        found = running.wait_for(r"^stopped: (\d+) packets? received, (\d+) sent")
        running.process.wait()
        return used * 1e-9 * tsc_hz(), int(found[1]), int(found[2])


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
             "--", "--total-num-mbufs", str(buffers(traffic)), "--no-flush-rx", "--forward-mode=io",
             "--auto-start"])
        running.wait_for(r"[Pp]ress enter to exit")
        time.sleep(seconds)
        used = running.busiest_run_time()
        running.process.stdin.write("\n")
        running.process.stdin.close()
        found = running.wait_for(r"RX-packets:\s*(\d+)")
        running.process.stdout.read()
        running.process.wait()
        return used * 1e-9 * tsc_hz(), int(found[1]), None  # one port alone, whatever the scenario
