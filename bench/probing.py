#!/usr/bin/env python3
"""What probing costs: probing.py BUILD_DIR [PATHS [INTERVAL-MS [SECONDS]]], as root.

A router with 4 uplinks in one network namespace, reflectors at all destinations in another. Prints the
processor time of the agent with and without probing, and that of a process which only makes the same
system calls for the same packets, with and without the other namespace's network stack, which a veth
pair runs in the sender's system calls.
"""
import ctypes
import itertools
import json
import os
import pathlib
import re
import selectors
import socket
import struct
import subprocess
import sys
import tempfile
import time

build, paths, interval, seconds, *_ = [*sys.argv[1:], *["128", "100", "20"][len(sys.argv) - 2:]]
paths, interval, seconds, uplinks = int(paths), int(interval), int(seconds), 4
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "tests"))
import stamp  # noqa: E402

name = f"navprobing{os.getpid()}"
libc = ctypes.CDLL(None, use_errno=True)
# As the agent's sockets: stamps of what is received, and of what is queued at the interface.
RECEIVED, QUEUED = 1 << 3 | 1 << 4, 1 << 7 | 1 << 8 | 1 << 11
SO_TIMESTAMPING, SO_BINDTODEVICE, MSG_ERRQUEUE, PMTUDISC_PROBE, IP_MTU_DISCOVER = 37, 25, 0x2000, 3, 10
burst = 64


def far(uplink):
    return [f"198.51.{uplink}.{site + 10}" for site in range(paths // uplinks)]


def ip(netns, commands):
    subprocess.run(["ip", "-n", netns, "-batch", "-"], input=commands, text=True, check=True)


def enter(netns):
    with open(f"/run/netns/{netns}", encoding="utf-8") as there:
        libc.setns(there.fileno(), 0)


def reflect(addresses):
    """Answers at all addresses, in the namespace of this thread."""
    poll, counts = selectors.DefaultSelector(), {}
    for address in addresses:
        poll.register(stamp.open_socket(address, stamp.PORT), selectors.EVENT_READ)
    while True:
        for key, _ in poll.select():
            packet, peer = key.fileobj.recvfrom(2048)
            received = stamp.now()
            sequence, timestamp, estimate, session = stamp.SENDER[False].unpack(packet)
            own = counts[peer, key.fd] = counts.get((peer, key.fd), -1) + 1
            key.fileobj.sendto(stamp.REFLECTOR[False].pack(
                own, stamp.now(), 1, session, received, sequence, timestamp, estimate, 255), peer)


def used(pid):
    return int(pathlib.Path(f"/proc/{pid}/schedstat").read_text(encoding="utf-8").split()[0]) / 1e9


def share(pid):
    before, start = used(pid), time.monotonic()
    time.sleep(seconds)
    return (used(pid) - before) / (time.monotonic() - start)


class Messages:
    """Arguments of sendmmsg(2) and recvmmsg(2)."""
    parts = struct.Struct("@PI4xPNPNi4xI4x")  # struct mmsghdr

    def __init__(self, count, peers=()):
        self.count = count
        self.names = [ctypes.create_string_buffer(
            struct.pack("=H", socket.AF_INET) + struct.pack(">H", stamp.PORT) + socket.inet_aton(peer), 16)
            for peer in peers or ["0.0.0.0"] * count]
        self.data = [ctypes.create_string_buffer(44 if peers else 2048) for _ in range(count)]
        self.places = [ctypes.create_string_buffer(struct.pack("@PN", ctypes.addressof(each), len(each)))
                       for each in self.data]
        self.control = [ctypes.create_string_buffer(256) for _ in range(count)]
        self.fresh = b"".join(self.parts.pack(
            ctypes.addressof(name), 16, ctypes.addressof(place), 1,
            0 if peers else ctypes.addressof(control), 0 if peers else 256, 0, 0)
            for name, place, control in zip(self.names, self.places, self.control))
        self.headers = ctypes.create_string_buffer(self.fresh)

    def send(self, opened):
        libc.sendmmsg(opened.fileno(), self.headers, self.count, 0)

    def receive(self, opened, flags):
        ctypes.memmove(self.headers, self.fresh, len(self.fresh))
        libc.recvmmsg(opened.fileno(), self.headers, self.count, flags, None)


def bare():
    """Makes the system calls of the agent, in the namespace of this thread."""
    received, rounds = Messages(64), []
    for uplink in range(uplinks):
        opened = stamp.open_socket(f"198.51.{uplink}.1", 0)
        opened.setblocking(False)
        opened.setsockopt(socket.SOL_SOCKET, SO_BINDTODEVICE, f"up{uplink}".encode())
        opened.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPING, RECEIVED | QUEUED)
        opened.setsockopt(socket.IPPROTO_IP, IP_MTU_DISCOVER, PMTUDISC_PROBE)
        peers = far(uplink)
        rounds.append([(opened, Messages(len(some), some)) for some in
                       (peers[i:i + burst] for i in range(0, len(peers), burst))])
    rounds = list(zip(*rounds))
    start = time.monotonic()
    for number in itertools.count(1):
        time.sleep(max(0, start + number * interval / 1000 / len(rounds) - time.monotonic()))
        for opened, probes in rounds[number % len(rounds)]:
            received.receive(opened, MSG_ERRQUEUE)
            received.receive(opened, 0)
            probes.send(opened)


def run(netns, function, *arguments):
    process = os.fork()
    if process == 0:
        enter(netns)
        function(*arguments)
    return process


def agent_share(probed):
    groups = {f"g{uplink}": {"localIntf": [f"up{uplink}"], "remoteViaConfig": {
        f"10.255.1.{site}": {"remoteVia": [each]} for site, each in enumerate(far(uplink), 1)}}
        for uplink in range(uplinks)}
    with tempfile.TemporaryDirectory() as directory:
        for file, value in (("config", {"navConfigured": True, "pathGroupConfig": groups}),
                            ("forwarding", {"vrf": {"default": {"vni": 1, "address": "10.255.0.1/24"}},
                                            "probe": {"interval": interval if probed else 0}})):
            pathlib.Path(f"{directory}/{file}.json").write_text(json.dumps(value), encoding="utf-8")
        agent = subprocess.Popen(
            ["ip", "netns", "exec", f"{name}a", f"{build}/agent/host/nav-agent", "--platform", "linux",
             "--run-dir", directory, "--config", f"{directory}/config.json",
             "--forwarding", f"{directory}/forwarding.json"], stderr=subprocess.DEVNULL)
        time.sleep(5)  # until all paths are probed
        found = share(agent.pid)
        shown = subprocess.run([f"{build}/navctl/navctl", "--run-dir", directory, "--json", "show",
                                "quality"], capture_output=True, text=True, check=False).stdout
        agent.terminate()
        agent.wait()
        return found, len(re.findall(r'"alive": ?true', shown))


def bare_share():
    process = run(f"{name}a", bare)
    time.sleep(1)
    found = share(process)
    os.kill(process, 9)
    os.waitpid(process, 0)
    return found


def main():
    for side in "a", "b":
        subprocess.run(["ip", "netns", "add", f"{name}{side}"], check=True)
        ip(f"{name}{side}", "link set lo up")
    try:
        for uplink in range(uplinks):
            ip(f"{name}a", f"link add up{uplink} type veth peer name down{uplink} netns {name}b\n"
                           f"addr add 198.51.{uplink}.1/24 dev up{uplink}\nlink set up{uplink} up")
            ip(f"{name}b", "".join(f"addr add {each}/24 dev down{uplink}\n" for each in far(uplink)) +
               f"link set down{uplink} up")
        process = run(f"{name}b", reflect, [each for uplink in range(uplinks) for each in far(uplink)])
        probing, alive = agent_share(True)
        idle, _ = agent_share(False)
        whole = bare_share()
        subprocess.run(["ip", "netns", "exec", f"{name}b", "nft", "-f", "-"], text=True, check=True,
                       input="table netdev sink {\n" + "".join(
                           f"chain {each} {{ type filter hook ingress device {each} priority 0; "
                           "ip protocol udp drop; }\n"
                           for each in (f"down{uplink}" for uplink in range(uplinks))) + "}\n")
        print(f"{paths} paths, {interval} ms, {alive} alive, % of a core: agent {100 * probing:.2f}, "
              f"without probing {100 * idle:.2f}; the same system calls alone {100 * whole:.2f}, "
              f"without the other end's stack and its answers {100 * bare_share():.2f}; "
              f"load {os.getloadavg()[0]:.1f}")
        os.kill(process, 9)
    finally:
        for side in "a", "b":
            subprocess.run(["ip", "netns", "del", f"{name}{side}"], check=False)


if __name__ == "__main__":
    main()
