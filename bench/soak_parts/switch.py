# SPDX-License-Identifier: BSD-3-Clause
"""The switch under test: its process, its commands, and what it tells about itself and its memory."""
import json
import os
import re
import select
import signal
import socket
import subprocess
import time
import urllib.request

from network import CABLES

METRICS = "127.0.0.1:9469"
PATIENCE = 120
DPDK_ADDRESSES = range(1 << 32, 1 << 33)  # DPDK lays its memory from the first of them on


class Switch:
    def __init__(self, build, folder):
        self.program = os.path.join(build, "switch/ofswitch")
        self.module = os.path.join(build, "modules/openflow/libOpenFlowModule.so")
        self.folder = folder
        self.environment = {**os.environ, "OFSWITCH_SOCKET": self.path("control.sock")}
        self.process = None
        self.clients = []
        self.telemetry = None

    def path(self, name):
        return os.path.join(self.folder, name)

    def start(self, flows):
        with open(self.path("flows.txt"), "w", encoding="ascii") as out:
            out.write(flows)
        ports = [f'  - {{number: {cable}, device: "net_af_packet{cable},iface=sw{cable}"}}' for cable in CABLES]
        with open(self.path("switch.yaml"), "w", encoding="ascii") as out:
            out.write("\n".join(["ports:", *ports, "memory: {mb: 512}", "flows: flows.txt",
                                 f"control: {{socket: {self.path('control.sock')}}}", f"metrics: {METRICS}",
                                 f"module: {self.module}"]) + "\n")
        with open(self.path("log"), "w", encoding="utf-8") as log:
            self.process = subprocess.Popen([self.program, "run", "-c", self.path("switch.yaml")], stdout=log,
                                            stderr=subprocess.STDOUT, start_new_session=True)
        deadline = time.monotonic() + PATIENCE
        while "\nrunning:" not in self.log():
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError(f"the switch does not start:\n{self.log()}")
            time.sleep(0.05)
        self.open_telemetry()

    def log(self):
        with open(self.path("log"), encoding="utf-8") as log:
            return log.read()

    def open_telemetry(self):
        """DPDK's own socket, whose place the switch's user and environment decide."""
        runtime = os.environ.get("RUNTIME_DIRECTORY") or "/var/run"
        self.telemetry = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.telemetry.settimeout(PATIENCE)
        self.telemetry.connect(f"{runtime}/dpdk/ofswitch{self.process.pid}/dpdk_telemetry.v2")
        self.telemetry.recv(1024)

    def heap(self):
        """DPDK's heap: bytes and blocks in use."""
        self.telemetry.send(b"/eal/heap_info,0")
        info = json.loads(self.telemetry.recv(1 << 16))["/eal/heap_info"]
        return info["Alloc_size"], info["Alloc_count"]

    def alive(self):
        return self.process.poll() is None

    def command(self, *words, text=None):
        """Standard output of one command, which must succeed."""
        done = subprocess.run([self.program, *words], env=self.environment, input=text, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=PATIENCE, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"ofswitch {' '.join(words)}: status {done.returncode}: {done.stderr.strip()}")
        return done.stdout

    def ask(self, *words, text=None):
        return json.loads(self.command(*words, "--json", text=text))

    def follow(self):
        """Long-lived clients: one that reads the log, and one that never reads what it asked for."""
        self.clients.append(subprocess.Popen([self.program, "log", "--follow"], env=self.environment,
                                             stdout=subprocess.DEVNULL, start_new_session=True))
        self.clients.append(subprocess.Popen([self.program, "log", "--follow"], env=self.environment,
                                             stdout=subprocess.PIPE, start_new_session=True))

    def scrape(self):
        """Metrics as Prometheus reads them."""
        with urllib.request.urlopen(f"http://{METRICS}/metrics", timeout=PATIENCE) as answer:
            text = answer.read().decode()
        return {name: float(value) for name, value in re.findall(r"^(ofswitch_\w+) (\S+)$", text, re.MULTILINE)}

    def anonymous(self):
        """Bytes of memory that is of no file, but for DPDK's own, which may be of none either."""
        total, counted = 0, False
        with open(f"/proc/{self.process.pid}/smaps", encoding="utf-8", errors="replace") as smaps:
            for line in smaps:
                if mapping := re.match(r"([0-9a-f]+)-[0-9a-f]+ ", line):
                    counted = int(mapping[1], 16) not in DPDK_ADDRESSES
                elif counted and line.startswith("Anonymous:"):
                    total += int(line.split()[1]) * 1024
        return total

    def memory(self):
        """Bytes of the process by kind, and what else it holds."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            words = dict(re.findall(r"^(\w+):\s+(\d+)", status.read(), re.MULTILINE))
        used, blocks = self.heap()
        return {"rss": int(words["VmRSS"]) * 1024, "anonymous": self.anonymous(),
                "heap": used, "heap_blocks": blocks, "threads": int(words["Threads"]),
                "descriptors": len(os.listdir(f"/proc/{self.process.pid}/fd"))}

    def stop(self):
        """Ends the switch as an operator would; its exit status."""
        self.end_clients()
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(timeout=PATIENCE)

    def end_clients(self):
        for client in self.clients:
            client.kill()
            client.wait()
        self.clients = []

    def kill(self):
        self.end_clients()
        if self.process is not None and self.alive():
            self.process.kill()
            self.process.wait()


class Hosts:
    """One of the programs in hosts.py."""

    def __init__(self, namespace, *words):
        program = os.path.join(os.path.dirname(os.path.abspath(__file__)), "hosts.py")
        self.process = subprocess.Popen(["ip", "netns", "exec", namespace, "python3", program, *words],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        start_new_session=True)

    def alive(self):
        return self.process.poll() is None

    def end(self):
        """What it has counted."""
        self.process.stdin.close()
        if not select.select([self.process.stdout], [], [], PATIENCE)[0]:
            raise RuntimeError("the hosts do not end")
        counted = json.loads(self.process.stdout.read())
        self.process.wait()
        return counted

    def kill(self):
        if self.alive():
            self.process.kill()
            self.process.wait()
