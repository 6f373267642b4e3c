#!/usr/bin/env python3
"""Measures forwarding on this machine's kernel, side by side in one run, and writes the results.

forwarding.py BUILD_FOLDER [--rounds N] [--page FILE], as root; needs iproute2, nftables and iperf3

The network is that of scripts/netlab.py. To the router of site 1 it adds 31 sites that exist in its
configuration only: 128 paths to 33 sites, and 31 applications, so that it has 1,023 load-balance ids.
Every application prefers MPLS and falls back to the internet. Times are those at which a socket that
observes the kernel's events receives them. A round measures each row; the table has the medians, and
the least and the greatest in parentheses.
"""
import argparse
import contextlib
import fcntl
import json
import os
import signal
import socket
import statistics
import struct
import subprocess
import sys
import time

from report import machine, write_page

sys.path.insert(0, f"{os.path.dirname(os.path.abspath(__file__))}/../scripts")
from netlab import Lab, Unavailable, await_, host, outside, port, providers, router  # noqa: E402
from traffic import Traffic  # noqa: E402

ADDED_SITES, APPLICATIONS, IDS, PATHS = range(1, 32), range(1, 31), 1023, 128
FEW, MANY = 4, 31  # load-balance profiles
FAILURES = 3  # in each round
RATE = 5000  # packets a second
SECONDS = 4  # of each iperf3
SO_RCVBUFFORCE, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP = 33, 270, 1
RTNLGRP_LINK, RTNLGRP_NEXTHOP = 1, 32
RTM_NEWLINK, RTM_NEWNEXTHOP, NHA_ID, NHA_GROUP, NHA_ENCAP = 16, 104, 1, 2, 8
NLA_TYPE_MASK = 0x3FFF
STAMP = struct.Struct("=dI")  # when something was received, and its length


class Observer:
    """The events about links and next hops in a namespace: when the first about a link was received
    since forget(), and when each group had left all next hops that it had then, whether it was
    replaced or the encapsulation of its members.

    A process of its own receives them: a thread would wait for the interpreter while others are
    evaluated, and stamp what it receives after that."""

    def __init__(self, stack, lab, name):
        with lab.within(name):
            events = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0)
        events.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 1 << 26)
        events.bind((0, 0))
        for group in RTNLGRP_LINK, RTNLGRP_NEXTHOP:
            events.setsockopt(SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, group)
        self.pipe, writing = os.pipe()
        fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 1 << 20)
        os.set_blocking(self.pipe, False)
        process = os.fork()
        if process == 0:
            self._receive(events, writing)
        stack.callback(os.waitpid, process, 0)
        stack.callback(os.kill, process, signal.SIGKILL)
        for each in events, open(writing, "wb"):
            each.close()
        self.received = b""
        self.members, self.encapsulations = {}, {}  # by the number of the group, of the member
        self.link, self.before, self.moved = None, {}, {}

    @staticmethod
    def _receive(events, writing):
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))  # or a time may be later than its event
        while True:
            data = events.recv(1 << 16)
            os.write(writing, STAMP.pack(time.monotonic(), len(data)) + data)

    def _events(self):
        """The next events with their times."""
        with contextlib.suppress(BlockingIOError):
            while chunk := os.read(self.pipe, 1 << 20):
                self.received += chunk
        while len(self.received) >= STAMP.size:
            when, size = STAMP.unpack_from(self.received)
            end = STAMP.size + size
            if len(self.received) < end:
                break
            data, self.received = self.received[STAMP.size:end], self.received[end:]
            yield when, data

    def forget(self):
        self.take()
        self.link, self.moved = None, {}
        self.before = {group: self._used(group) for group in self.members}

    def take(self):
        """Takes in the events that have been received since the last call."""
        for when, data in self._events():
            while len(data) >= 16:
                length, kind = struct.unpack_from("=IH", data)
                if kind == RTM_NEWLINK:
                    self.link = self.link or when
                if kind == RTM_NEWNEXTHOP:
                    self._nexthop(when, data[16:length])
                data = data[(length + 3) & ~3:]

    def _nexthop(self, when, message):
        attributes, at = {}, 8
        while at + 4 <= len(message):
            length, attribute = struct.unpack_from("=HH", message, at)
            attributes[attribute & NLA_TYPE_MASK] = message[at + 4:at + length]
            at += (length + 3) & ~3
        number = struct.unpack("=I", attributes[NHA_ID])[0]
        if NHA_GROUP in attributes:
            self.members[number] = {each for each, _ in struct.iter_unpack("=II", attributes[NHA_GROUP])}
            changed = [number]
        else:
            self.encapsulations[number] = attributes.get(NHA_ENCAP)
            changed = [group for group, members in self.members.items() if number in members]
        for group in changed:
            if group not in self.moved and not self._used(group) & self.before.get(group, set()):
                self.moved[group] = when

    def _used(self, group):
        return {self.encapsulations.get(member) for member in self.members[group]}


class FullSize:
    """A laboratory with a full-size router at site 1."""

    def __init__(self, folder, stack, profiles):
        self.profiles = profiles
        self.lab = stack.enter_context(Lab(f"{folder}/agent/host/nav-agent", f"{folder}/navctl/navctl"))
        self.observer = Observer(stack, self.lab, "router1")
        self.lab.configure(1, self.configuration(), self.forwarding())

    def configuration(self, first="mpls"):
        changed = self.lab.configuration(1)
        for provider, group in changed["pathGroupConfig"].items():
            network = outside(provider, 1).rpartition(".")[0]
            for site in ADDED_SITES:
                group["remoteViaConfig"][router(100 + site)] = {
                    "remoteVia": [f"{network}.{128 + 2 * site}", f"{network}.{129 + 2 * site}"]}
        changed["loadBalanceProfile"] = {f"profile{number}": {"pathGroupPriority": {
            provider: 1 if provider == first else 2 for provider in providers}}
                                         for number in range(self.profiles)}
        changed["policyConfig"]["applications"] = {
            "defaultRuleCfgd": True, "defaultLbGrpName": "profile0", "appProfilePolicyRuleList": {
                str(number): {"appProfileId": number, "appProfileName": f"application{number}",
                              "lbGrpName": f"profile{number % self.profiles}"}
                for number in APPLICATIONS}}
        return changed

    def forwarding(self):
        changed = self.lab.forwarding(1)
        for site in ADDED_SITES:
            changed["site"][router(100 + site)] = {"vrf": {"default": {"prefix": [f"10.{100 + site}.0.0/16"]}}}
        changed["application"] = {f"application{number}": {"match": {"1": {
            "protocol": "udp", "destinationPort": [str(5000 + number)]}}} for number in APPLICATIONS}
        changed["probe"] = {"interval": 0}  # nobody answers at the added sites
        return changed

    def start(self):
        """Starts the agents, and returns the seconds until site 1 forwards to all sites."""
        for site in 2, 3:
            self.lab.start_agent(site)
            await_("paths are up", lambda s=site: self.lab.paths_up(s) >= 2)
        self.observer.forget()
        self.observer.before = {}  # the groups do not exist
        began = time.monotonic()
        self.lab.start_agent(1)
        await_("all paths are up", lambda: self.lab.paths_up(1) == PATHS)
        shown = json.loads(self.lab.navctl(1, "--json", "show", "forwarding").stdout)
        ids = [row for row in shown["sites"] if row["id"] is not None]
        assert len(ids) == IDS and not shown["refused"], shown["refused"]
        self.groups = {row["group"] for row in ids}
        return self.moved()[1] - began

    def moved(self):
        """When the first and the last application had been moved; nothing before."""
        self.observer.take()
        found = {group: when for group, when in self.observer.moved.items() if group in self.groups}
        return (min(found.values()), max(found.values())) if set(found) == self.groups else None

    def change(self, change):
        """Makes a change that moves all applications. Returns the seconds from its first event to
        the first and the last application."""
        await_("the change before is complete", lambda: self.lab.navctl(1, "validate").stdout == "PASS\n")
        self.observer.forget()
        change()
        await_("all applications move", self.moved)
        return [when - (self.observer.link or 0) for when in self.moved()]


def kernel_memory():
    """Bytes that the kernel does not give back by itself."""
    with open("/proc/meminfo", encoding="utf-8") as file:
        fields = dict(line.split(":") for line in file)
    return sum(int(fields[name].split()[0]) << 10 for name in ("SUnreclaim", "Percpu"))


def processor_time(process):
    """Seconds that a process has used."""
    with open(f"/proc/{process.pid}/stat", encoding="utf-8") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def packets_lost(full):
    """Of 5,000 packets a second: by a configuration that prefers the other provider and one that
    takes it back, by a link that fails, and how many of these were sent before the link's event."""
    lab = full.lab
    with Traffic(lab) as traffic:
        streams = [traffic.stream("loss", ("host1", host(1)), ("host2", host(2), 5001), RATE // 5)
                   for _ in range(5)]

        def lost(change):
            def sent():
                goals = {stream: len(stream.sent) + RATE // 10 for stream in streams}
                await_("packets are sent", lambda: all(len(s.sent) >= goal for s, goal in goals.items()))
            sent()
            first = {stream: len(stream.sent) for stream in streams}
            full.change(change)
            sent()
            traffic.settle()
            return [when for stream in streams for number, when in enumerate(stream.sent)
                    if first[stream] <= number < stream.settled and not stream.arrived[number]]

        prefer = [lost(lambda p=provider: lab.configure(1, full.configuration(p), full.forwarding()))
                  for provider in ("internet", "mpls")]
        failure = lost(lambda: lab.links("mpls", "down", [1]))
        unannounced = [when for when in failure if when < full.observer.link]
        full.change(lambda: lab.links("mpls", "up", [1]))
        return sum(map(len, prefer)), len(failure), len(unannounced)


def counting(full):
    """The share of a processor that the agent needs while every id has traffic to be counted."""
    with full.lab.within("host1"):
        sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with contextlib.closing(sender):
        for site in (2, 3, *(100 + each for each in ADDED_SITES)):
            for target in (9000, *(5000 + each for each in APPLICATIONS)):
                sender.sendto(b"counted", (f"10.{site}.0.9", target))
    agent, seconds = full.lab.agents[1], 10
    before = processor_time(agent)
    time.sleep(seconds)
    shown = full.lab.run("router1", "nft", "-j", "list", "set", "inet", "nav", "packets4")
    assert shown.count('"counter"') >= IDS
    return (processor_time(agent) - before) / seconds


def bits_per_second(lab):
    """What one TCP connection from host 1 to host 2 carries."""
    server = lab.start("host2", "iperf3", "--server", stdout=subprocess.DEVNULL)

    def answer():
        with contextlib.suppress(RuntimeError, subprocess.TimeoutExpired):  # not listening yet, or lost
            result = json.loads(lab.run("host1", "iperf3", "--client", host(2), "--json", "--omit", "1",
                                        "--time", str(SECONDS), timeout=4 * SECONDS))
            return result["end"].get("sum_received")
        return None
    received = await_("iperf3 answers", answer)
    server.kill()
    server.wait()
    return received["bits_per_second"]


def tunnel_by_hand(lab):
    """The same encapsulation by one route in the main table."""
    for here, there in (1, 2), (2, 1):
        lab.ip(f"router{here}",
               f"link add bare mtu 1464 type vxlan dstport {port} external gpe\nlink set bare up\n"
               f"route add 10.{there}.0.0/16 encap ip id 100 src {outside('mpls', here)} "
               f"dst {outside('mpls', there)} dev bare")


def marks_by_hand(lab):
    """Marks and rules over that tunnel, as scripts for several providers make them: a mark for each
    application, kept for the connection, which selects a table."""
    for here, there in (1, 2), (2, 1):
        marks = "".join(f"udp dport {5000 + number} meta mark set {number}\n" for number in APPLICATIONS)
        lab.nft(f"router{here}", f"""table ip byhand {{
            chain marks {{
                type filter hook prerouting priority mangle;
                meta mark set ct mark
                meta mark 0 jump applications
                ct mark set meta mark
            }}
            chain applications {{
                {marks} meta mark 0 meta mark set 31
            }}
        }}""")
        lab.ip(f"router{here}", "".join(
            f"rule add fwmark {number} priority {1000 + number} lookup {1000 + number}\n"
            f"route add 10.{there}.0.0/16 encap ip id 100 src {outside('mpls', here)} "
            f"dst {outside('mpls', there)} dev bare table {1000 + number}\n"
            for number in (*APPLICATIONS, 31)))


def undo_by_hand(lab):
    """Removes what the two functions above have made; routes go with their device."""
    for site in 1, 2:
        lab.nft(f"router{site}", "delete table ip byhand")
        lab.ip(f"router{site}", "link del bare\n" + "".join(
            f"rule del priority {1000 + number}\n" for number in (*APPLICATIONS, 31)))


def throughputs(full, by_hand_first):
    """What the agent's tables, a bare tunnel, and marks and rules carry. Rounds alternate the order, so
    that a machine that slows down favours no side."""
    lab = full.lab

    def end_agents():
        for site in 1, 2, 3:
            lab.end_agent(site, signal.SIGTERM)

    def by_hand():
        tunnel_by_hand(lab)
        bare = bits_per_second(lab)
        marks_by_hand(lab)
        return bare, bits_per_second(lab)
    if not by_hand_first:
        ours = bits_per_second(lab)
        end_agents()
        return (ours, *by_hand())
    end_agents()
    results = by_hand()
    undo_by_hand(lab)
    full.start()
    return (bits_per_second(lab), *results)


def measure(folder, figures, number):
    """One round."""
    def add(row, *values):
        figures.setdefault(row, []).extend(values)

    for profiles in FEW, MANY:
        with contextlib.ExitStack() as stack:
            full = FullSize(folder, stack, profiles)
            memory = kernel_memory()
            add(f"start {profiles}", full.start())
            add(f"memory {profiles}", kernel_memory() - memory)
            add(f"groups {profiles}", len(full.groups))
            for _ in range(FAILURES):
                first, last = full.change(lambda: full.lab.links("mpls", "down", [1]))
                add(f"first {profiles}", first)
                add(f"last {profiles}", last)
                full.change(lambda: full.lab.links("mpls", "up", [1]))
            if profiles != FEW:
                continue
            administrative, failure, unannounced = packets_lost(full)
            add("lost administratively", administrative)
            add("lost by failure", failure)
            add("lost before the event", unannounced)
            add("counting", counting(full))
            ours, bare, by_hand = throughputs(full, number % 2 == 1)
            add("throughput", ours)
            add("bare", bare)
            add("marks", by_hand)
            add("to bare", ours / bare)
            add("to marks", ours / by_hand)


class Figures:
    """The text of measured values, and whether their median meets an aim."""

    def __init__(self, figures):
        self.figures = figures

    def median(self, row):
        return statistics.median(self.figures[row])

    def text(self, row, unit, scale=1.0):
        low, high = min(self.figures[row]), max(self.figures[row])
        return f"{self.median(row) * scale:.3g} {unit} ({low * scale:.3g}–{high * scale:.3g})"

    def line(self, title, measured, aim="", passes=None):
        verdict = "" if passes is None else "passes" if passes else "**misses**"
        return f"| {title} | {measured} | {aim} | {verdict} |"

    def lines(self):
        median, text, line = self.median, self.text, self.line
        few, many = (f"{median(f'groups {each}'):.0f} groups" for each in (FEW, MANY))
        yield "| row | measured | aim | |"
        yield "| --- | --- | --- | --- |"
        for profiles in FEW, MANY:
            yield line(f"start to the last of 1,023 ids, {profiles} profiles",
                       text(f"start {profiles}", "ms", 1e3), "1 s", median(f"start {profiles}") <= 1)
            yield line(f"kernel memory, {profiles} profiles", text(f"memory {profiles}", "MB", 1e-6))
        for profiles, groups in (FEW, few), (MANY, many):
            yield line(f"link event to the first application moved, {profiles} profiles",
                       text(f"first {profiles}", "ms", 1e3), "2 ms", median(f"first {profiles}") <= 2e-3)
            yield line(f"link event to the last of 1,023 ids moved, {groups}",
                       text(f"last {profiles}", "ms", 1e3), "10 ms", median(f"last {profiles}") <= 10e-3)
        yield line("packets lost of 5,000 a second, a link fails", text("lost by failure", "packets"),
                   "below 50", median("lost by failure") < 50)
        yield line("of these, sent before the kernel announced that the link has failed",
                   text("lost before the event", "packets"))
        yield line("packets lost of 5,000 a second, the configuration prefers the other provider, and back",
                   text("lost administratively", "packets"), "0", max(self.figures["lost administratively"]) == 0)
        yield line("one TCP connection through the agent's tables", text("throughput", "Gbit/s", 1e-9))
        yield line("the same by a bare VXLAN route", text("bare", "Gbit/s", 1e-9))
        yield line("the same by a script's marks and rules", text("marks", "Gbit/s", 1e-9))
        yield line("ours to the bare route", text("to bare", "%", 100), "95 %", median("to bare") >= 0.95)
        yield line("ours to marks and rules", text("to marks", "%", 100))
        yield line("the agent's processor time while 1,023 ids are counted", text("counting", "% of a core", 100))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--page")
    arguments = parser.parse_args()
    sys.setswitchinterval(0.0005)  # so that events and packets are seen in time
    for ending in signal.SIGTERM, signal.SIGHUP:
        signal.signal(ending, lambda number, _: sys.exit(128 + number))
    about, figures = machine(), {}
    for number in range(arguments.rounds):
        print(f"round {number + 1} of {arguments.rounds}", file=sys.stderr, flush=True)
        try:
            measure(arguments.folder, figures, number)
        except Unavailable as reason:
            sys.exit(f"forwarding.py: {reason}")
    lines = [f"{about['cores']} cores of {about['cpu']}; {about['system']}; Linux {about['kernel']}; "
             f"{arguments.rounds} rounds; load before the run {about['load_before']:.1f}.", "",
             *Figures(figures).lines()]
    print("\n".join(lines))
    if arguments.page:
        write_page(arguments.page, "forwarding", lines)


main()
