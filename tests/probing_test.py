"""Probes of paths: probing_test.py BUILD_DIR SOURCE_DIR, as root.

The sites and providers of scripts/netlab.py, with agents on some routers and the sender and reflector
of tests/stamp.py on others. NAV_DETECTIONS: how often a path falls silent;
NAV_SOAK: for how many seconds all processors are busy.
"""
import contextlib
import datetime
import json
import math
import os
import random
import re
import select
import socket
import statistics
import struct
import subprocess
import sys
import time

from products import LabCase, main, source  # which adds scripts/ to the path

from netlab import await_, call, outside, providers, sites  # noqa: E402
from traffic import open_socket  # noqa: E402

stamp = [sys.executable, f"{source}/tests/stamp.py"]

# Of linux/ptrace.h and linux/if_packet.h; the standard library has no names for them.
PTRACE_SEIZE, PTRACE_INTERRUPT, PTRACE_DETACH, WALL = 0x4206, 0x4207, 17, 0x40000000
ETH_P_ALL, PACKET_OUTGOING = 3, 4


@contextlib.contextmanager
def standing_still(thread):
    """One thread of a process, while its others run."""
    call("ptrace", PTRACE_SEIZE, thread, None, None)
    call("ptrace", PTRACE_INTERRUPT, thread, None, None)
    os.waitpid(thread, WALL)
    try:
        yield
    finally:
        call("ptrace", PTRACE_DETACH, thread, None, None)


class Attacker:
    """Somebody at a provider who sees the probes and answers to two sites: for every other one he sends
    that packet again, an earlier one, one of chance, or, if `damages`, a damaged one."""

    def __init__(self, lab, provider, links, chance, damages):
        self.chance, self.seen, self.damages = chance, [], damages
        with lab.within(provider):
            self.links = [socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
                          for _ in links]
        for opened, link in zip(self.links, links):
            opened.bind((link, 0))

    def attack(self):
        """Once one of his links is readable."""
        for link in select.select(self.links, [], [], 1)[0]:
            frame, (_, _, kind, *_) = link.recvfrom(2048)
            udp = 34  # behind Ethernet and IPv4
            if kind != PACKET_OUTGOING or frame[23] != socket.IPPROTO_UDP or \
                    862 not in struct.unpack_from(">HH", frame, udp):
                continue
            # No checksum: that of a packet that never left the machine may not be filled in.
            packet = bytearray(frame[:udp + 6] + b"\0\0" + frame[udp + 8:])
            self.seen.append((link, bytes(packet)))
            how = self.chance.randrange(8)
            if how == 0 and self.damages:
                packet[self.chance.randrange(udp + 8, len(packet))] ^= 1 << self.chance.randrange(8)
            elif how == 1:
                packet[udp + 8:] = self.chance.randbytes(len(packet) - udp - 8)
            elif how == 2:
                link, packet = self.chance.choice(self.seen)
            if how < 4:
                link.send(packet)


class QualityTest(LabCase):
    def setUp(self):
        super().setUp()
        self.ends = {(provider, site): outside(provider, site, provider == "mpls")
                     for provider in providers for site in (1, 2, 3)}

    def start(self, *agents, **probe):
        for site in agents:
            self.lab.configure(site, forwarding=self.lab.forwarding(site) | {"probe": probe})
            self.lab.start_agent(site)
        for site in agents:
            await_(f"paths of site {site} are up", lambda s=site: self.lab.paths_up(s) == 4)

    def alive(self, site, provider, other):
        return self.lab.quality(site, provider, other).get("alive", "unknown")

    def await_alive(self, value, *path):
        await_(f"alive is {value} of {path}", lambda: self.alive(*path) is value)

    def deaths(self, site):
        """When paths of a site died, by destination, in seconds since the epoch."""
        return [(to, datetime.datetime.fromisoformat(when).timestamp()) for when, to in re.findall(
            r"^(\S+) linux:4 Path.* Dst: (\S+) .*is dead", self.lab.log(site), re.MULTILINE)]

    def counts(self, site, provider, other):
        """What became of the probes of a path, and of the probes of others."""
        probes = self.shown(site, "show", "forwarding")["probes"]
        end = self.ends[provider, other]
        return next(row for row in probes["paths"] if row["destination"] == end), probes["reflector"]

    def send(self, site, provider, to, count, key=""):
        """Probes of another sender."""
        return json.loads(self.lab.run(f"router{site}", *stamp, "send", self.ends[provider, site],
                                       self.ends[provider, to], str(count), "0.005", key))

    def test_other_senders_and_reflectors_are_understood(self):
        none = {"answered": 0, "faults": [], "consecutive": True}
        for key in "", "secret":
            for provider in providers:
                reflector = self.lab.start("router2", *stamp, "reflect", self.ends[provider, 2], key)
                self.start(1, key=key, window=2000)
                # Those that came before the reflector leave the window.
                await_("probes are answered", lambda p=provider: {
                    "alive": True, "samples": 20, "lossForward": 0, "lossBackward": 0}.items() <=
                    self.lab.quality(1, p, 2).items())
                self.assertLess(self.lab.quality(1, provider, 2)["rttMs"], 5)
                self.assertIsNone(self.alive(1, provider, 3))  # which nobody answers for
                # The kernel of the other end tells that nobody listens any more.
                reflector.kill()
                reflector.wait()
                self.await_alive(None, 1, provider, 2)
                self.assertEqual(self.lab.paths_up(1), 4)
                # The agent as reflector, for its own peers only.
                self.assertEqual(self.send(2, provider, 1, 50, key),
                                 {"answered": 50, "faults": [], "consecutive": True})
                if key:
                    self.assertEqual(self.send(2, provider, 1, 1, "another"), none)
                    self.assertEqual(self.send(2, provider, 1, 1), none)
                self.assertEqual(self.deaths(1), [])
                self.lab.end_agent(1)
        self.lab.ip("router3", "addr add 198.51.100.200/32 dev lo")
        self.lab.ip("internet", f"route add 198.51.100.200 via {self.ends['internet', 3]}")
        self.start(1)
        self.ends["internet", 3] = "198.51.100.200"
        self.assertEqual(self.send(3, "internet", 1, 1), none)
        self.lab.configure(1, forwarding=self.lab.forwarding(1) | {"probe": {"answerStrangers": True}})
        await_("strangers are answered", lambda: self.send(3, "internet", 1, 1)["answered"] == 1)

    def attack(self, key, refused):
        self.start(1, 2, key=key, interval=20, multiplier=50, window=4000)
        for site in 1, 2:
            self.await_alive(True, site, "internet", 3 - site)
        # Without a signature, whoever changes a packet that he sees is believed.
        attacker = Attacker(self.lab, "internet", ["site1", "site2"], random.Random(5), damages=key)
        for link in attacker.links:
            self.addCleanup(link.close)

        def noticed(site):
            path, reflector = self.counts(site, "internet", 3 - site)
            return all(each > 50 for each in (path["duplicate"], path[refused], reflector["replayed"]))

        def attacked():
            for _ in range(500):
                attacker.attack()
            return noticed(1) and noticed(2)
        await_("the attacks are counted", attacked)
        for site in 1, 2:
            row = self.lab.quality(site, "internet", 3 - site)
            self.assertEqual((row["alive"], row["lossForward"], row["lossBackward"]), (True, 0, 0), row)
            self.assertLess(row["rttMs"], 5)
            self.assertEqual(self.deaths(site), [])
        for site in 1, 2:
            self.lab.end_agent(site)

    def test_attackers_change_nothing_but_counters(self):
        self.attack("secret", "notAuthentic")
        self.attack("", "unexpected")

    def test_answers_do_not_wait_for_the_event_thread(self):
        self.start(1, 2)
        self.await_alive(True, 1, "internet", 2)
        with standing_still(self.lab.agents[2].pid):
            before = self.counts(1, "internet", 2)[0]["answered"]
            await_("probes of 2 s are answered", lambda: self.counts(1, "internet", 2)[0]["answered"] >
                   before + 20)
        self.await_alive(True, 2, "internet", 1)
        self.assertEqual(self.deaths(1) + self.deaths(2), [])

    def test_loss_is_told_apart_by_direction(self):
        for provider, to, port, direction in (("internet", "site2", "dport", "lossForward"),
                                              ("mpls", "site1", "sport", "lossBackward")):
            self.lab.nft(provider, f"add rule inet lab degrade oifname {to} udp {port} 862 "
                                   "numgen random mod 100 < 20 drop")
        self.start(1, 2, interval=10, multiplier=100, window=20000)
        for provider, lossy, other in (("internet", "lossForward", "lossBackward"),
                                       ("mpls", "lossBackward", "lossForward")):
            row = await_("the window is full", lambda p=provider: next(
                (row for row in [self.lab.quality(1, p, 2)] if row.get("samples") == 2000), None), 60)
            self.assertLess(abs(row[lossy] - 20), 4 * math.sqrt(20 * 80 / 2000), row)
            self.assertLess(row[other], 0.5, row)  # what a busy machine drops

    def test_silent_paths_are_noticed_in_time(self):
        interval, multiplier, trials = 97, 3, int(os.environ.get("NAV_DETECTIONS", "3"))
        self.start(1, 2, interval=interval, multiplier=multiplier, upDelay=0)
        late = []
        for _ in range(trials):
            self.await_alive(True, 1, "internet", 2)
            before = len(self.deaths(1))
            # The kernel drops from a full second on, which lies anywhere in the interval.
            silent = int(time.time() + 1.2)
            self.lab.nft("internet", f"add rule inet lab degrade oifname site2 meta time >= {silent} drop")
            found = await_("the path is dead", lambda b=before: [
                when for to, when in self.deaths(1)[b:] if to == self.ends["internet", 2]])
            late.append((found[0] - silent) * 1000 - interval * multiplier)
            await_("the path is down", lambda: self.lab.paths_up(1) == 3)
            self.lab.nft("internet", "flush chain inet lab degrade")
        print(f"{trials} silent paths were noticed {min(late):.1f} to {max(late):.1f} ms, half of them "
              f"{statistics.median(late):.1f} ms, after {multiplier} intervals", flush=True)
        self.assertLess(statistics.median(late), 20)
        self.assertLess(max(late), 20 if trials >= 100 else 200)  # others may use the machine

    def test_no_false_alarm_at_full_load_or_while_keys_change(self):
        self.start(1, 2)
        busy = [subprocess.Popen([sys.executable, "-c", "while True: pass"])
                for _ in range(2 * (os.cpu_count() or 1))]
        try:
            # A path that has answered dies if one side refuses the other's probes for 0.3 s.
            for key in "first", "second", "":
                for site in 1, 2:
                    self.lab.configure(site, forwarding=self.lab.forwarding(site) |
                                       {"probe": {"key": key}})
                    time.sleep(1)  # in which probes are exchanged
                for site in 1, 2:
                    self.await_alive(True, site, "mpls", 3 - site)
            time.sleep(float(os.environ.get("NAV_SOAK", "5")))
        finally:
            for process in busy:
                process.kill()
                process.wait()
        self.assertEqual(self.deaths(1) + self.deaths(2), [])

    def arrives(self, provider, site, other):
        """Whether a packet from a router's address at a provider arrives at another's."""
        with open_socket(self.lab, f"router{other}", socket.SOCK_DGRAM,
                         self.ends[provider, other]) as receiver, \
                open_socket(self.lab, f"router{site}", socket.SOCK_DGRAM,
                            self.ends[provider, site]) as sender, contextlib.suppress(OSError):
            receiver.settimeout(0.2)
            sender.sendto(b"arrives", receiver.getsockname()[:2])
            return receiver.recv(100) == b"arrives"
        return False

    def claims(self, site):
        """Whether the agent of a site holds its paths usable, of those that it checks."""
        ends = {path["destination"] for path in self.shown(site, "show", "paths").get("navPathSelPaths", [])
                if path["state"].endswith("Estab")}
        return {(provider, other): self.ends[provider, other] in ends
                for provider in providers for other in sites
                if other != site and self.alive(site, provider, other) is not None}

    def test_a_path_is_usable_exactly_if_packets_come_there_and_back(self):
        self.start(*sites, interval=20, upDelay=100)
        for site in sites:
            await_(f"all paths of site {site} are checked", lambda s=site: len(self.claims(s)) == 4)
        chance, checked = random.Random(7), 0
        for _ in range(6):
            down = {(provider, site) for provider in providers for site in sites
                    if chance.random() < 0.15}
            silent = [(provider, *chance.sample(sites, 2)) for provider in providers
                      for _ in range(chance.randrange(3))]
            for provider in providers:
                self.lab.nft(provider, "flush chain inet lab degrade\n" + "".join(
                    f"add rule inet lab degrade iifname site{here} oifname site{there} drop\n"
                    for at, here, there in silent if at == provider))
                for state in "down", "up":
                    self.lab.links(provider, state, [
                        site for site in sites if ((provider, site) in down) == (state == "down")])
            for site in sites:
                def agree(site=site):
                    claims = self.claims(site)
                    found = {(provider, other): self.arrives(provider, site, other) and
                             self.arrives(provider, other, site) for provider, other in claims}
                    return [len(claims)] if claims == found == self.claims(site) else None
                checked += await_(f"site {site} says what packets find, with {down}, {silent}",
                                  agree)[0]
        self.assertGreater(checked, 48)  # of 72


if __name__ == "__main__":
    main()
