#!/usr/bin/env python3
"""What probing costs: probing.py BUILD_DIR [PATHS [INTERVAL-MS [SECONDS]]], as root.

A router with 4 uplinks in one network namespace, reflectors at all destinations in another; prints the
processor time of the agent, that of the other namespace's network stack included, since a veth pair
runs it in the sender's system calls.
"""
import ctypes
import json
import os
import pathlib
import re
import selectors
import socket
import subprocess
import sys
import tempfile
import time

build, paths, interval, seconds, *_ = [*sys.argv[1:], *["128", "100", "20"][len(sys.argv) - 2:]]
paths, interval, seconds, uplinks = int(paths), int(interval), int(seconds), 4
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "tests"))
import stamp  # noqa: E402

name = f"navprobing{os.getpid()}"


def ip(netns, commands):
    subprocess.run(["ip", "-n", netns, "-batch", "-"], input=commands, text=True, check=True)


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
    return int(pathlib.Path(f"/proc/{pid}/schedstat").read_text().split()[0]) / 1e9


def main():
    groups = {}
    for side in "a", "b":
        subprocess.run(["ip", "netns", "add", f"{name}{side}"], check=True)
        ip(f"{name}{side}", "link set lo up")
    try:
        addresses = []
        for link in range(uplinks):
            far = [f"198.51.{link}.{site + 10}" for site in range(paths // uplinks)]
            addresses += far
            ip(f"{name}a", f"link add up{link} type veth peer name down{link} netns {name}b\n"
                           f"addr add 198.51.{link}.1/24 dev up{link}\nlink set up{link} up")
            ip(f"{name}b", "".join(f"addr add {each}/24 dev down{link}\n" for each in far) +
               f"link set down{link} up")
            groups[f"g{link}"] = {"localIntf": [f"up{link}"], "remoteViaConfig": {
                f"10.255.1.{site}": {"remoteVia": [each]} for site, each in enumerate(far, 1)}}
        process = os.fork()
        if process == 0:
            with open(f"/run/netns/{name}b", encoding="utf-8") as there:
                ctypes.CDLL(None).setns(there.fileno(), 0)
            reflect(addresses)
        with tempfile.TemporaryDirectory() as directory:
            for file, value in (("config", {"navConfigured": True, "pathGroupConfig": groups}),
                                ("forwarding", {"vrf": {"default": {"vni": 1, "address": "10.255.0.1/24"}},
                                                "probe": {"interval": interval}})):
                pathlib.Path(f"{directory}/{file}.json").write_text(json.dumps(value), encoding="utf-8")
            agent = subprocess.Popen(
                ["ip", "netns", "exec", f"{name}a", f"{build}/agent/host/nav-agent", "--platform", "linux",
                 "--run-dir", directory, "--config", f"{directory}/config.json",
                 "--forwarding", f"{directory}/forwarding.json"], stderr=subprocess.DEVNULL)
            time.sleep(5)  # until all paths are probed
            before, start = used(agent.pid), time.monotonic()
            time.sleep(seconds)
            share = (used(agent.pid) - before) / (time.monotonic() - start)
            shown = subprocess.run([f"{build}/navctl/navctl", "--run-dir", directory, "--json", "show",
                                    "quality"], capture_output=True, text=True, check=False).stdout
            alive = len(re.findall(r'"alive": ?true', shown))
            print(f"{paths} paths, {interval} ms: {100 * share:.2f} % of a core, {alive} alive")
            agent.terminate()
            agent.wait()
        os.kill(process, 9)
    finally:
        for side in "a", "b":
            subprocess.run(["ip", "netns", "del", f"{name}{side}"], check=False)


if __name__ == "__main__":
    main()
