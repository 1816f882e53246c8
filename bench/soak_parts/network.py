# SPDX-License-Identifier: BSD-3-Clause
"""Two network namespaces, one for the switch and one for its hosts, and the cables between them.

Cable N joins swN, the device of port N, with hN. Nothing on them speaks by itself: there are no addresses and no
IPv6, so that every packet is one that somebody sent.
"""
import ctypes
import json
import os
import subprocess
import time

CLONE_NEWNET = 0x40000000
CABLES = (1, 2, 3)
FLAPPING = 3


def run(*words):
    """Runs a command; a failure says what the command said."""
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(words)}: {done.stderr.strip() or done.stdout.strip()}")
    return done.stdout


class Network:
    def __init__(self):
        self.switch = f"soak{os.getpid()}-switch"
        self.hosts = f"soak{os.getpid()}-hosts"
        self.made = []

    def build(self):
        for namespace in (self.switch, self.hosts):
            self.made.append(namespace)  # first, for a signal may come right behind
            run("ip", "netns", "add", namespace)
            run("ip", "-n", namespace, "link", "set", "lo", "up")
            run("ip", "netns", "exec", namespace, "sysctl", "-q", "-w", "net.ipv6.conf.all.disable_ipv6=1",
                "net.ipv6.conf.default.disable_ipv6=1")
        for cable in CABLES:
            run("ip", "link", "add", f"sw{cable}", "netns", self.switch, "type", "veth", "peer", "name",
                f"h{cable}", "netns", self.hosts)
            for namespace, device in ((self.switch, f"sw{cable}"), (self.hosts, f"h{cable}")):
                run("ip", "netns", "exec", namespace, "ethtool", "-K", device, "tx", "off", "rx", "off", "tso", "off",
                    "gso", "off", "gro", "off")
                run("ip", "-n", namespace, "link", "set", device, "up")

    def remove(self):
        for namespace in self.made:
            subprocess.run(["ip", "netns", "del", namespace], stderr=subprocess.DEVNULL, check=False)
        self.made = []

    def enter_switch(self):
        """This thread, and what it starts from now on, is where the switch is."""
        libc = ctypes.CDLL(None, use_errno=True)
        with open(f"/run/netns/{self.switch}", encoding="ascii") as namespace:
            if libc.setns(namespace.fileno(), CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns")

    def set_link(self, device, state):
        namespace = self.switch if device.startswith("sw") else self.hosts
        run("ip", "-n", namespace, "link", "set", device, state)

    def counters(self):
        """What the kernel has counted, by device."""
        devices = {}
        for namespace in (self.switch, self.hosts):
            for link in json.loads(run("ip", "-n", namespace, "-s", "-j", "link")):
                if link["ifname"] != "lo":
                    rx, tx = link["stats64"]["rx"], link["stats64"]["tx"]
                    devices[link["ifname"]] = {"rx": rx["packets"], "rx_lost": rx["dropped"] + rx["errors"],
                                               "tx": tx["packets"], "tx_lost": tx["dropped"] + tx["errors"]}
        return devices


class Flapper:
    """Takes the last cable down and up again, at one end or the other, until told to stop."""

    def __init__(self, network, rng, period):
        self.network = network
        self.rng = rng
        self.period = period
        self.flaps = 0

    def run(self, stop):
        while not stop.wait(self.rng.uniform(0.5, 1.5) * self.period):
            device = f"{self.rng.choice(('sw', 'h'))}{FLAPPING}"
            self.network.set_link(device, "down")
            # As short as a bounce that nobody notices, or long enough to be seen.
            time.sleep(self.rng.choice((0.001, 0.05, 0.5)))
            self.network.set_link(device, "up")
            self.flaps += 1
