# SPDX-License-Identifier: BSD-3-Clause
"""Open vSwitch with its DPDK data path, as Debian packages it, in a folder of its own: it neither needs nor touches
one that may run on the machine."""
import os
import re
import subprocess
import tempfile
import time

import switches

VSWITCHD = "/usr/lib/openvswitch-switch-dpdk/ovs-vswitchd-dpdk"
SCHEMA = "/usr/share/openvswitch/vswitch.ovsschema"
# It is measured once it has seen every microflow: when so few packets miss its caches in a second.
WARM_MISSES = 1e-4
WARM_UP_AT_MOST = 60


def setting_nothing(_vsctl, _appctl):
    pass


def setting_smc(vsctl, _appctl):
    vsctl("set", "Open_vSwitch", ".", "other_config:smc-enable=true")


def setting_smc_alone(vsctl, _appctl):
    vsctl("set", "Open_vSwitch", ".", "other_config:smc-enable=true", "other_config:emc-insert-inv-prob=0")


def setting_avx512(_vsctl, appctl):
    """Whatever of the AVX-512 data path this processor and this build have."""
    refused = []
    commands = [["dpif-netdev/dpif-impl-set", "dpif_avx512"],
                ["dpif-netdev/subtable-lookup-prio-set", "avx512_gather", "5"],
                ["dpif-netdev/miniflow-parser-set", "study"]]
    for command in commands:
        try:
            appctl(*command)
        except switches.Failure as failure:
            refused.append(str(failure))
    # The last one is understood everywhere, and finds nothing wide where there is nothing.
    if len(refused) >= len(commands) - 1:
        raise switches.NotHere("no AVX-512 data path here: " + " ".join("".join(refused).split()))


def setting_avx512_smc(vsctl, appctl):
    setting_smc(vsctl, appctl)
    setting_avx512(vsctl, appctl)


# By the name of the column.
SETTINGS = {
    "ovs": setting_nothing,
    "ovs smc": setting_smc,
    "ovs smc only": setting_smc_alone,
    "ovs avx512": setting_avx512,
    "ovs avx512 smc": setting_avx512_smc,
}


def settings_here():
    """Names of the settings that differ on this processor."""
    with open("/proc/cpuinfo") as info:
        wide = re.search(r"^flags.*\bavx512f\b", info.read(), re.MULTILINE)
    return [name for name in SETTINGS if wide or "avx512" not in name]


def run(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode != 0:
        raise switches.Failure(f"{' '.join(command)}: {done.stdout}")
    return done.stdout


class Instance:
    """A database server and a switch daemon; stopped at the end of a "with"."""

    def __init__(self, folder, core, memory_mb, hugepages):
        self.folder = tempfile.mkdtemp(prefix="ovs", dir=folder)
        self.core = core
        self.memory_mb = memory_mb
        self.hugepages = hugepages
        self.pids = []

    def path(self, name):
        return os.path.join(self.folder, name)

    def vsctl(self, *arguments):
        return run("ovs-vsctl", f"--db=unix:{self.path('db.sock')}", "--timeout=60", *arguments)

    def appctl(self, *arguments):
        return run("ovs-appctl", "-t", self.path("vswitchd.ctl"), *arguments)

    def ofctl(self, *arguments):
        return run("ovs-ofctl", "-O", "OpenFlow13", *arguments)

    def daemon(self, program, name, *arguments):
        run(program, *arguments, f"--pidfile={self.path(name + '.pid')}", f"--unixctl={self.path(name + '.ctl')}",
            f"--log-file={self.path(name + '.log')}", "-vconsole:off", "--detach", "--no-chdir")
        with open(self.path(name + ".pid")) as pid:
            self.pids.append(int(pid.read()))

    def __enter__(self):
        os.environ["OVS_RUNDIR"] = self.folder
        try:
            self.start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def start(self):
        run("ovsdb-tool", "create", self.path("conf.db"), SCHEMA)
        self.daemon("ovsdb-server", "ovsdb", self.path("conf.db"), f"--remote=punix:{self.path('db.sock')}")
        others = sorted(os.sched_getaffinity(0) - {self.core})
        memory = ["--in-memory", "--socket-mem"] if self.hugepages else ["--no-huge", "--legacy-mem", "--no-shconf", "-m"]
        self.vsctl("--no-wait", "init")
        self.vsctl("--no-wait", "set", "Open_vSwitch", ".", "other_config:dpdk-init=true",
                   f"other_config:dpdk-lcore-mask={1 << others[0]:#x}", f"other_config:pmd-cpu-mask={1 << self.core:#x}",
                   f"other_config:dpdk-extra=--no-pci --no-telemetry {' '.join(memory)} {self.memory_mb}",
                   "other_config:stats-update-interval=1000")
        self.daemon(VSWITCHD, "vswitchd", f"unix:{self.path('db.sock')}")

    def __exit__(self, *_):
        for pid in reversed(self.pids):
            try:
                os.kill(pid, 15)
                for _ in range(100):
                    os.kill(pid, 0)
                    time.sleep(0.1)
            except ProcessLookupError:
                pass


class OpenVSwitch:
    """One column: the switch with one of the SETTINGS."""
    is_peer = True

    def __init__(self, name, core, memory_mb, hugepages):
        self.name = name
        self.core = core
        self.memory_mb = memory_mb
        self.hugepages = hugepages

    def measure(self, folder, capture, traffic, seconds):
        with Instance(folder, self.core, self.memory_mb, self.hugepages) as ovs:
            ovs.vsctl("add-br", "br0", "--", "set", "bridge", "br0", "datapath_type=netdev", "fail-mode=secure")
            SETTINGS[self.name](ovs.vsctl, ovs.appctl)
            ovs.ofctl("add-flows", "br0", os.path.join(folder, "flows.txt"))
            devices = {port: f"net_null{port},no-rx=1" for port in traffic.outputs}
            devices[1] = f"net_pcap0,rx_pcap={capture},infinite_rx=1"
            for port, device in sorted(devices.items(), reverse=True):
                ovs.vsctl("add-port", "br0", f"p{port}", "--", "set", "Interface", f"p{port}", "type=dpdk",
                          f"options:dpdk-devargs=\"{device}\"", f"ofport_request={port}")
                error = ovs.vsctl("get", "Interface", f"p{port}", "error").strip()
                if error != "[]":
                    raise switches.Failure(f"port {port}: {error}")
            self.warm_up(ovs)
            return self.forward(ovs, seconds)

    @staticmethod
    def warm_up(ovs):
        for _ in range(WARM_UP_AT_MOST):
            ovs.appctl("dpif-netdev/pmd-stats-clear")
            time.sleep(1)
            text = ovs.appctl("dpif-netdev/pmd-stats-show")
            misses = sum(int(count) for count in re.findall(r"miss with \w+ upcall: (\d+)", text))
            received = int(re.search(r"packets received: (\d+)", text)[1])
            if 0 < received and misses < WARM_MISSES * received:
                return
        print(f"  still {misses} of {received} packets a second miss its caches", flush=True)

    @staticmethod
    def forward(ovs, seconds):
        def received():
            text = ovs.appctl("dpif-netdev/pmd-stats-show")
            return int(re.search(r"packets received: (\d+)", text)[1])

        cycles = switches.forward(ovs.pids[-1], received, seconds)
        # Its ports count sent packets for a null device only when they fail, so that what was sent is known by the
        # flows alone: with a miss in them the batches to ports would be none.
        text = ovs.appctl("dpif-netdev/pmd-stats-show")
        batches = re.search(r"avg\. packets per output batch: ([\d.]+)", text)
        if batches is None or float(batches[1]) == 0:
            raise switches.Failure(f"nothing was sent:\n{text}\n{ovs.ofctl('dump-flows', 'br0')}")
        return cycles, None
