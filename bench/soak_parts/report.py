# SPDX-License-Identifier: BSD-3-Clause
"""What a soak found: where the packets went, what memory did, and what of it should not be."""
from network import CABLES, FLAPPING
from streams import STREAMS

# One publication leaves the last flow's action where it is: one block of 192 bytes behind a header of 128, and with a
# rest behind it when that would be too small for a block of its own.
LEAK_BLOCKS = 1
LEAK_BYTES = (320, 512)

# What is expected of cables that fall and of a machine that has other things to do. Any other drop is a failure: the
# flows have an output for every packet at every moment.
EXPECTED_DROPS = {"rx_missed", "tx_port_down", "tx_queue_full"}

# Classifiers of the same flows differ a little, because flows come in the order of a hash table.
HEAP_TOLERANCE = 64 << 10

# gRPC starts some when many clients come at once.
THREADS_MORE = 16

# Connections whose client has just gone.
DESCRIPTORS_MORE = 4

# The C++ heap settles in the first third of the time, while its arenas fill up. From then on it may grow by so many
# bytes an hour, and with the time of a short run by so many at all.
ANONYMOUS_SLOPE = 1 << 20
ANONYMOUS_TOLERANCE = 2 << 20


def slope(points):
    """Least squares, in units an hour, of (seconds, value)."""
    if len(points) < 2:
        return 0.0
    mean_x = sum(x for x, _ in points) / len(points)
    mean_y = sum(y for _, y in points) / len(points)
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    return 3600 * sum((x - mean_x) * (y - mean_y) for x, y in points) / spread if spread else 0.0


def drops_of(port):
    return {drop["name"]: drop["packets"] for drop in port["drops"] if drop["packets"]}


def by_kernel(lost, counted):
    """How many of the lost packets the kernel accounts for. It counts attempts, at one end or both, and what a port
    sends on a link that is down stays in its ring for the next time, so that it counts more than are lost."""
    return {"kernel, link down": min(max(0, lost), counted)}


def wire_rows(ports, kernel, sent, received):
    """(place, packets in, packets out, {named loss: packets}) of every stretch from host to host."""
    rows = []
    for cable in CABLES:
        port, host, device = ports[cable], kernel[f"h{cable}"], kernel[f"sw{cable}"]
        at_port = {name: count for name, count in drops_of(port).items() if name.startswith("rx_")}
        at_host = {"host too slow": received["missed"][f"h{cable}"]}
        for place, entered, left, losses, counted in (
                (f"host {cable} to its device", sent["by_cable"][cable], host["tx"], {}, host["tx_lost"]),
                (f"cable {cable} inwards", host["tx"], device["rx"], {}, device["rx_lost"]),
                (f"device of port {cable} to the tables", device["rx"], port["rxPackets"], at_port, device["rx_lost"]),
                (f"port {cable} to its device", port["txPackets"], device["tx"], {}, device["tx_lost"]),
                (f"cable {cable} outwards", device["tx"], host["rx"], {}, host["rx_lost"]),
                (f"device of host {cable} to the host", host["rx"], received["by_cable"][cable], at_host,
                 host["rx_lost"])):
            rest = entered - left - sum(losses.values())
            rows.append((place, entered, left, {**losses, **by_kernel(rest, counted)}))
    return rows


def switch_row(stats, ports):
    """The tables and the ports' ends to the devices: copies are packets here, each flow has one output."""
    drops = {}
    for drop in stats["drops"]:
        if drop["packets"]:
            drops[drop["name"]] = drops.get(drop["name"], 0) + drop["packets"]
    received = sum(port["rxPackets"] for port in ports.values())
    out = sum(ports[cable]["txPackets"] for cable in CABLES)
    return ("tables and ports", received, out, {k: v for k, v in drops.items() if not k.startswith("rx_")})


def by_cable(counts, end):
    return {cable: sum(counts[stream.name] for stream in STREAMS if getattr(stream, end) == cable)
            for cable in CABLES}


def account(stats, ports, kernel, sender, receiver):
    """The stretches as dictionaries, with what is unexplained in each."""
    ports = {port["port"]: port for port in ports}
    sent = {"by_cable": by_cable(sender["sent"], "enters")}
    received = {"by_cable": by_cable(receiver["received"], "leaves"), "missed": receiver["missed"]}
    faulty = sum(receiver["faults"].values())
    rows = wire_rows(ports, kernel, sent, received) + [switch_row(stats, ports)]
    table = [{"where": where, "in": entered, "out": left, "losses": {k: v for k, v in losses.items() if v},
              "unexplained": entered - left - sum(losses.values())} for where, entered, left, losses in rows]
    if faulty:  # they arrived, but not as they should have
        table.append({"where": "hosts' checks", "in": faulty, "out": 0, "losses": {}, "unexplained": faulty})
    return table


def judge(result):
    """Sentences about what should not be; none if all is well."""
    faults = list(result["problems"])
    for row in result["account"]:
        if row["unexplained"]:
            faults.append(f"{row['where']}: {row['unexplained']} packets are unaccounted for")
        for name, packets in row["losses"].items():
            if not name.startswith(("kernel", "host")) and name not in EXPECTED_DROPS:
                faults.append(f"{row['where']}: {packets} packets dropped as {name}")
            if name.startswith("kernel") and f"{FLAPPING}" not in row["where"]:
                faults.append(f"{row['where']}: {packets} packets lost on a cable that did not fall")
    for name, count in result["hosts"]["faults"].items():
        faults.append(f"{count} packets that arrived were wrong: {name}")
    for name, count in result["hosts"]["late"].items():
        if count:
            faults.append(f"stream {name}: {count} packets overtook others")
    if not result["stats"]["closes"]:
        faults.append(f"the switch's account does not close: {result['stats']['discrepancies']}")
    memory = result["memory"]
    blocks = result["builds"] * LEAK_BLOCKS
    least, most = (result["builds"] * count for count in LEAK_BYTES)
    if memory["heap_blocks_growth"] != blocks:
        faults.append(f"DPDK's heap has {memory['heap_blocks_growth']} blocks more, {blocks} are the known leak")
    if not least - HEAP_TOLERANCE <= memory["heap_growth"] <= most + HEAP_TOLERANCE:
        faults.append(f"DPDK's heap grew by {memory['heap_growth']} bytes, the known leak is {least} to {most}")
    settled = memory["slopes"]["anonymous"]
    if memory["anonymous_growth"] > ANONYMOUS_TOLERANCE and settled > ANONYMOUS_SLOPE:
        faults.append(f"the C++ heap grew by {memory['anonymous_growth']} bytes, at last by {settled:.0f} an hour")
    if memory["buffers_in_use"] != memory["buffers_in_use_at_first"]:
        faults.append(f"{memory['buffers_in_use']} packet buffers are in use, {memory['buffers_in_use_at_first']} were")
    for name, more in (("threads", THREADS_MORE), ("descriptors", DESCRIPTORS_MORE)):
        if memory[name] > memory[f"{name}_at_first"] + more:
            faults.append(f"{memory[name]} {name}, {memory[f'{name}_at_first']} at first")
    if result["exit_status"] != 0:
        faults.append(f"the switch ended with status {result['exit_status']}")
    return faults


def megabytes(count):
    return f"{count / 1e6:.2f} MB"


def text(result):
    memory = result["memory"]
    lines = [
        f"{result['seconds'] / 60:.1f} minutes: {result['changes']['commands']} changes of flows "
        f"({', '.join(f'{count} {name}' for name, count in result['changes']['counts'].items())}), "
        f"{result['builds']} classifiers built, {result['flaps']} link flaps",
        "",
        f"{'packets':<34}{'in':>12}{'out':>12}{'unexplained':>13}  lost, by name",
    ]
    for row in result["account"]:
        losses = ", ".join(f"{name} {count}" for name, count in row["losses"].items())
        lines.append(f"{row['where']:<34}{row['in']:>12}{row['out']:>12}{row['unexplained']:>13}  {losses}".rstrip())
    lines += ["", f"{'minutes':>8}{'resident':>12}{'C++ heap':>12}{'DPDK heap':>12}{'buffers':>9}{'flows':>7}"]
    samples = result["samples"]
    for sample in samples[::max(1, len(samples) // 12)]:
        lines.append(f"{sample['seconds'] / 60:8.1f}{megabytes(sample['rss']):>12}{megabytes(sample['anonymous']):>12}"
                     f"{megabytes(sample['heap']):>12}{sample['buffers']:9}{sample['flows']:7}")
    lines += [
        "",
        "after warm-up, an hour: " + ", ".join(f"{name} {megabytes(value)}" for name, value in
                                               memory["slopes"].items()),
        f"the same flows before and after: DPDK heap {memory['heap_growth']:+} bytes in "
        f"{memory['heap_blocks_growth']:+} blocks, the known leak of {result['builds']} builds; "
        f"C++ heap {memory['anonymous_growth']:+}; buffers in use {memory['buffers_in_use_at_first']} and "
        f"{memory['buffers_in_use']}",
        "",
    ]
    lines += [f"FAILED: {fault}" for fault in result["faults"]] or \
        ["PASSED: memory is flat but for the known leak, and every packet is accounted for"]
    return "\n".join(lines)
