"""What happens to packets: forwarding_test.py BUILD_DIR SOURCE_DIR, as root.

Three sites and two providers in network namespaces (scripts/netlab.py), with an agent on each
router and traffic between the hosts; IPv6 inside beside IPv4, and outside at the provider "mpls".
Needs iproute2 and nftables. NAV_KILLS: how often agents are killed; NAV_SEEDS: seeds of the random
walk, separated by commas.
"""
import contextlib
import json
import os
import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time
import unittest

from products import LabCase, document, main, programs, read  # which adds scripts/ to the path

from netlab import (await_, gateway, host, outside, port, providers,  # noqa: E402
                    router, sites, tunnel)
from traffic import Bulk, open_socket  # noqa: E402

voice, web, guests, rest = 5060, 443, 7000, 9000  # ports of the applications
failover = 0.5  # seconds; a failure costs milliseconds, on a busy machine more


def own(line):
    return line.get("protocol") == "110" or str(line.get("dev", "")).startswith("nav.")


def objects(lab, site):
    """What the kernel of a router holds, as two sets of lines: the agent's, and that of others.
    Without what the kernel changes by itself: counters, indices, times."""
    name = f"router{site}"
    passing = {"ifindex", "link_index", "handle", "expires", "packets", "bytes", "elem", "flags",
               "operstate", "address"}

    def lasting(value):
        if isinstance(value, dict):
            return {key: lasting(each) for key, each in value.items() if key not in passing}
        return [lasting(each) for each in value] if isinstance(value, list) else value

    found = set(), set()

    def add(kind, line, mine):
        if kind == "nexthop":
            line["group"] = sorted(line.get("group", []), key=str)
        found[0 if mine else 1].add(f"{kind} {json.dumps(lasting(line), sort_keys=True)}")

    for link in lab.json(name, "ip", "-j", "-d", "link"):
        link["up"] = "UP" in link["flags"]
        add("link", link, link["ifname"].startswith("nav."))
    for link in lab.json(name, "ip", "-j", "addr"):
        for address in link["addr_info"]:
            if address["scope"] != "link":
                add(f"address {link['ifname']}", address, link["ifname"].startswith("nav."))
    for vni in lab.json(name, "bridge", "-j", "vni"):
        add("vni", vni, True)
    for nexthop in lab.json(name, "ip", "-j", "-d", "nexthop"):
        add("nexthop", nexthop, own(nexthop))
    for family in ("-4", "-6"):
        for route in lab.json(name, "ip", "-j", "-d", family, "route", "show", "table", "all"):
            if route.get("protocol") == "110" or not own(route):
                add(f"route {family}", route, own(route))
        for rule in lab.json(name, "ip", "-j", "-d", family, "rule"):
            add(f"rule {family}", rule, own(rule))
    for each in lab.json(name, "nft", "-j", "list", "ruleset")["nftables"]:
        kind, line = next(iter(each.items()))
        add(f"nft {kind}", line, "nav" in (line.get("table"), line.get("name")))
    return found


class ForwardingTest(LabCase):
    def setUp(self):
        super().setUp()
        self.lab.start_agents()

    def stream(self, sender, receiver, target, rate=100, v6=False, guest=False):
        stream = self.traffic.stream(
            f"{sender} to {receiver} port {target}{' IPv6' if v6 else ''}",
            (f"host{sender}", host(sender, guest, v6)),
            (f"host{receiver}", host(receiver, v6=v6), target), rate)
        stream.pair = sender, receiver
        return stream

    def streams(self, *ports, pairs=((1, 2), (2, 1), (1, 3), (3, 2)), rate=100):
        return [self.stream(*pair, target, rate, v6, target == guests)
                for pair in pairs for target in ports for v6 in (False, True)]

    def await_packets(self, streams, count):
        goals = {stream: len(stream.sent) + count for stream in streams}
        await_("packets are sent", lambda: all(len(s.sent) >= goal for s, goal in goals.items()))

    def providers_of(self, streams):
        """Which providers carry the streams now, by stream."""
        before = self.lab.carried()
        self.await_packets(streams, 10)
        found = {stream: set() for stream in streams}
        by_ports = {stream.ports: stream for stream in streams}
        for (provider, site, *ports), packets in self.lab.carried().items():
            stream = by_ports.get(tuple(ports))
            if stream and packets > before.get((provider, site, *ports), 0):
                found[stream].add(provider)
        return found

    def await_over(self, streams, provider):
        await_(f"all is carried by {provider}", lambda: all(
            by == {provider} for by in self.providers_of(streams).values()))

    def report(self, what, streams, firsts):
        """Prints what a failure cost."""
        outages = [each for stream in streams for each in stream.outages(firsts[stream])]
        lost, longest = sum(each[0] for each in outages), max([each[1] for each in outages] or [0])
        print(f"{what}: {len(outages)} of {len(streams)} streams interrupted, {lost} packets lost, "
              f"at most {longest * 1000:.1f} ms", flush=True)
        self.assertLess(longest, failover)

    def test_applications_take_their_paths_and_move_with_the_links(self):
        by = {target: self.streams(target) for target in (voice, web, guests, rest)}
        for target in voice, web:
            by[target] += [self.stream(1, 2, target, 1000), self.stream(1, 3, target, 1000, v6=True)]
        everything = self.traffic.streams
        self.await_over(by[voice], "mpls")
        self.await_over(by[web] + by[guests], "internet")
        self.assertEqual(set.union(*self.providers_of(by[rest]).values()), set(providers))
        await_("it is counted", lambda: any(row["path"] != "all" and row["bytes"] > 50 * row["packets"] > 0
                                            for row in self.shown(1, "show", "counters")))
        for provider, moving, without in (("mpls", voice, []), ("internet", web, by[guests])):
            other = next(each for each in providers if each != provider)
            carrying, firsts = self.providers_of(everything), self.firsts()
            self.assertEqual(set(map(len, carrying.values())), {1}, "a flow has one path")
            # One link first: site 1 knows at once, the others cannot know without the second.
            self.lab.links(provider, "down", [1])
            moved = [each for each in everything if carrying[each] == {provider} and
                     each.pair[0] == 1 and each not in without]
            undisturbed = [each for each in everything if carrying[each] == {other} or
                           1 not in each.pair]
            self.await_over(moved, other)
            self.assert_nothing_lost(undisturbed, firsts)
            self.report(f"{provider} fails", moved, firsts)
            firsts = self.firsts()
            self.lab.links(provider, "down", [2, 3])
            self.await_over([each for each in everything if each not in without], other)
            self.assert_nothing_lost([each for each in everything if carrying[each] == {other} or
                                      each in moved], firsts)
            self.assertFalse(any(self.providers_of(without).values()))
            firsts = self.firsts()
            self.lab.links(provider, "up")
            self.await_over(by[moving] + without, provider)
            self.assert_nothing_lost([each for each in everything if each not in without], firsts)

    def test_voice_leaves_a_path_that_loses_packets(self):
        for site in (1, 3):  # of which the first has a constraint
            paths, forwarding = self.lab.configuration(site), self.lab.forwarding(site)
            if site == 1:
                paths["loadBalanceProfile"]["voice"]["lossRate"] = 3
            forwarding["probe"] = {"interval": 20, "window": 2000, "upDelay": 500, "multiplier": 20}
            self.lab.configure(site, paths, forwarding)

        def measured():
            rows = self.shown(1, "show", "quality")
            return all(row["alive"] and row["samples"] == 100 and row["lossForward"] == 0
                       for row in rows)
        await_("the paths are measured", measured)
        constrained, free = calls = [self.stream(site, 2, voice, 50) for site in (1, 3)]
        self.await_over(calls, "mpls")
        firsts = self.firsts()
        self.lab.degrade("mpls", 10)
        self.await_over([constrained], "internet")
        left = len(constrained.sent)
        self.await_packets(calls, 500)
        self.assertEqual(self.providers_of(calls), {constrained: {"internet"}, free: {"mpls"}})
        lasts = self.firsts()
        self.lab.degrade("mpls", 0)
        self.await_over([constrained], "mpls")
        self.traffic.settle()
        lost, sent = ([each(call) for call in calls] for each in (
            lambda call: call.lost(firsts[call]), lambda call: lasts[call] - firsts[call]))
        print(f"voice at 50 packets/s, 10 % loss: {lost[0]} of {sent[0]} packets lost with a "
              f"constraint of 3 %, {lost[1]} of {sent[1]} without", flush=True)
        self.assertEqual(constrained.lost(left), 0, "a move loses nothing")
        self.assertGreater(lost[1], 20)
        self.assertLess(lost[0], lost[1] / 1.5)
        for line in ("leaves Path.*: loss .* % > 3 %", "returns to Path.*: loss .* % <= 3 %"):
            self.assertRegex(self.lab.log(1), f"voice to 10.255.0.2 {line}")

    def test_tcp_fits_the_tunnel_and_survives_its_path(self):
        for v6 in (False, True):
            server = ("host2", host(2, v6=v6), web)
            bulk = Bulk(self.lab, ("host1", host(1, v6=v6)), server)
            self.addCleanup(bulk.stop)
            self.assertLessEqual(bulk.segment, 1500 - 40 - 16 - (40 if v6 else 20) - 20)
            for provider, state in (("internet", "up"), ("mpls", "down"), ("internet", "up")):
                self.lab.links("internet", state)
                def moves():
                    seen, before = bulk.received, self.lab.carried()
                    await_("some data", lambda: bulk.received > seen + 1_000_000)
                    now = {key[:2] for key, packets in self.lab.carried().items()
                           if bulk.ports in (key[2:], key[:1:-1]) and packets > before.get(key, 0) + 10}
                    return now == {(provider, 1), (provider, 2)}  # the answers, too
                await_(f"data and its acknowledgements are carried by {provider}", moves)

    def test_nothing_is_lost_when_agents_are_killed(self):
        seed = int(os.environ.get("NAV_SEED", "7"))
        chance, kills = random.Random(seed), int(os.environ.get("NAV_KILLS", "10"))
        streams = self.streams(voice, web, guests, rest, pairs=((1, 2), (2, 1)))
        self.await_over(self.streams(voice, pairs=((1, 3),)), "mpls")
        before, firsts = {site: objects(self.lab, site) for site in (1, 2)}, self.firsts()
        for kill in range(kills):
            self.kill(1 + kill % 2)
            self.await_packets(streams[:1], chance.randrange(200))  # at 100 a second
        for site in (1, 2):
            self.await_objects(site, before[site], f"seed {seed}")
        self.assert_nothing_lost(streams, firsts)
        print(f"{kills} kills, {sum(len(each.sent) for each in streams)} packets, none lost; seed {seed}")

    def await_objects(self, site, expected, what):
        try:
            await_("the kernel is as expected", lambda: objects(self.lab, site) == expected, 15)
        except AssertionError:
            self.assertTrue(self.lab.runs(site), f"the agent of site {site} has ended")
            for there, wanted in zip(objects(self.lab, site), expected):
                print(*(f"site {site}: missing  {line}\n" for line in sorted(wanted - there)),
                      *(f"site {site}: too much {line}\n" for line in sorted(there - wanted)))
            self.fail(what)

    def settled(self, site):
        """What the kernel holds once it has not changed for a second."""
        seen = [(None, 0.0)]

        def unchanged():
            now = objects(self.lab, site)
            if now != seen[0][0]:
                seen[0] = now, time.monotonic()
            return time.monotonic() - seen[0][1] > 1 and now
        return await_("the kernel settles", unchanged)


    # What an operator has in the kernel beside the agent, and what a walk does to it.

    def others(self, site):
        """Makes what others have on a router, whatever of it is left."""
        name = f"router{site}"
        self.lab.nft(name, "add table inet operator\ndelete table inet operator\ntable inet operator {\n"
                           "chain forward { type filter hook forward priority 5\ncounter accept\n}\n}")
        self.lab.ip(name, f"nexthop replace id 7 via 10.{site}.0.2 dev lan\n"
                          "nexthop replace id 8 group 7\nroute replace 192.168.7.0/24 nhid 8")
        if "fwmark 0x5" not in self.lab.run(name, "ip", "rule"):
            self.lab.ip(name, "rule add fwmark 5 priority 500 lookup 77")

    def become(self, site, state):
        """Brings the surroundings of a router's agent to a state."""
        lab, name = self.lab, f"router{site}"
        self.others(site)
        lab.configure(site, self.configuration(site, state["variant"]),
                      self.forwarding(site, state["variant"]))
        if not lab.runs(site):
            lab.start_agent(site)
        for provider in providers:
            lab.links(provider, "down" if provider in state["down"] else "up", [site])
        lab.run(name, "ip", "route", "flush", "proto", "static")
        self.forget(site)
        if state["elsewhere"]:
            lab.ip(name, f"route add 10.3.7.0/24 via 10.{site}.0.2 dev lan proto static")
        if state["learned"]:
            await_("the tunnel takes the route", lambda: self.learn(site, state["learned"]))

    def learn(self, site, other, prefix="172.16.9.0/24"):
        """A routing daemon's route over the tunnel, on site 1 by a next-hop object. False if the device is
        not ready."""
        via = f"via {router(other)} dev {tunnel} onlink"
        with contextlib.suppress(RuntimeError):
            self.lab.ip(f"router{site}", f"route replace {prefix} {via} proto bgp" if site != 1 else
                        f"nexthop replace id 9 {via} proto bgp\nroute replace {prefix} nhid 9 proto bgp")
            return True
        return False

    def forget(self, site):
        """Removes a routing daemon's routes; that of an object goes with it, without an event."""
        for what in "nexthop", "route":
            self.lab.run(f"router{site}", "ip", what, "flush", "proto", "186")  # bgp

    def configuration(self, site, variant):
        changed = self.lab.configuration(site)
        policy = changed["policyConfig"]["applications"]
        if variant == 1:
            changed["loadBalanceProfile"]["voice"]["pathGroupPriority"] = {"mpls": 2, "internet": 1}
            del changed["pathGroupConfig"]["mpls"]["remoteViaConfig"][router(3)]
        elif variant == 2:
            changed["udpPortConfig"] = port + 1
            del policy["appProfilePolicyRuleList"]["20"]
        elif variant == 3:
            policy["defaultRuleCfgd"] = False
        return changed

    def forwarding(self, site, variant):
        changed = self.lab.forwarding(site)
        # What is dead depends on what answered before, so it is not the same after a fresh start.
        changed["probe"] = {"interval": 0}
        if variant == 2:
            changed["vrf"]["default"].update(vni=200, address=f"10.255.1.{site}/24", mtu=1400)
        elif variant == 3:
            prefixes = changed["site"][router(3)]["vrf"]["default"]["prefix"]
            prefixes.append(changed["site"][router(3 - site)]["vrf"]["default"]["prefix"].pop(0))
            del changed["application"]["voice"]
        return changed

    damages = {
        "next hops flushed": ["ip nexthop flush proto 110"],
        "rules flushed": ["ip rule flush protocol 110", "ip -6 rule flush protocol 110"],
        "routes deleted": [f"ip {family} route del {prefix} metric {0xff00006e}"
                           for family, prefix in (("-4", "10.3.0.0/16"), ("-6", "fd00:3::/32"))],
        "tunnel deleted": [f"ip link del {tunnel}"], "tunnel down": [f"ip link set {tunnel} down"],
        "tunnel without address": [f"ip addr flush dev {tunnel}"],
        "tunnel without VNI": [f"bridge vni delete dev {tunnel} vni 100"],
        "rules of nftables flushed": ["nft flush ruleset"],
        "table of nftables deleted": ["nft delete table inet nav"],
        "rules of the table flushed": ["nft flush table inet nav"]}

    def damage(self, site, what):
        for command in self.damages[what]:
            self.lab.run(f"router{site}", *command.split())
        self.others(site)

    def test_explain_says_what_the_kernel_shows(self):
        def reason():
            rows = self.shown(1, "explain", "path", outside("internet", 2))["paths"]
            return rows[0]["reason"] or ""

        self.lab.run("router1", "sysctl", "-qw", *(
            f"net.ipv4.neigh.internet.{each}" for each in (
                "base_reachable_time_ms=1000", "retrans_time_ms=100", "delay_first_probe_time=1")))
        there = gateway("internet", 1)
        for expected, cause, cure in (
                ("interface internet is down", "link set site1 down", "link set site1 up"),
                (f"next hop {there} does not answer", f"addr del {there}/28 dev site1",
                 f"addr add {there}/28 dev site1")):
            self.lab.ip("internet", cause)
            await_(expected, lambda: reason() == expected)
            self.lab.ip("internet", cure)
            await_("the path is up again", lambda: self.lab.paths_up(1) == 4)

        [mpls] = [row for row in self.shown(1, "show", "interfaces") if row["interface"] == "mpls"]
        self.assertEqual((mpls["address"], mpls["address6"]), (None, f"{outside('mpls', 1, True)}/64"))
        events = self.shown(1, "show", "events")
        self.assertIn(f"next hop {there} does not answer", [event["cause"] for event in events])
        self.assertEqual(self.lab.navctl(1, "validate").stdout, "PASS\n")
        shown = self.shown(1, "show", "forwarding")["paths"]
        taken = [number for path in shown if path["destination"] == outside("internet", 2)
                 for number in path["nexthops"]]
        self.lab.end_agent(1)
        self.lab.ip("router1", f"nexthop add id {taken[0]} blackhole proto static")
        self.lab.start_agent(1)
        await_("the agent answers", lambda: self.lab.navctl(1, "ping").returncode == 0)
        await_("the refusal is explained", lambda: reason().startswith("the kernel refused nexthop"))
        validated = self.lab.navctl(1, "validate")
        self.assertEqual(validated.returncode, 1)
        self.assertIn("refused: File exists: nexthop", validated.stdout)
        application = self.shown(1, "explain", "application", "web")["applications"]
        self.assertEqual([better["reason"] for row in application if row["site"] == router(2)
                          for better in row["better"]], [reason()])

    def test_what_somebody_removes_is_put_back(self):
        for site in (1, 2):
            self.others(site)
        before = {site: self.settled(site) for site in (1, 2)}
        for what in self.damages:
            for site in before:
                self.damage(site, what)
            for site, expected in before.items():
                self.await_objects(site, expected, what)
                self.assertIn("put", self.lab.log(site))

    def step(self, chance, site, state):
        """Does one thing to a router or its surroundings; returns what."""
        what = chance.choice(["kill", "surroundings", "surroundings", "surroundings", "rewired", *self.damages])
        if what == "kill":
            self.kill(site)
        elif what == "rewired":
            self.lab.rewire(chance.choice([*providers]), site)
        elif what == "surroundings":
            self.become(site, self.random_state(chance, site))
        else:
            with contextlib.suppress(RuntimeError):  # nothing of it is there
                self.damage(site, what)
            self.others(site)
        return f"{site}: {what}"

    def random_state(self, chance, site):
        return {"variant": chance.randrange(4), "elsewhere": chance.randrange(2),
                "down": chance.choice([(), (), ("mpls",), ("internet",), tuple(providers)]),
                "learned": chance.choice([0, 3, 3 - site])}

    def test_the_kernel_ends_as_after_a_fresh_start(self):
        for seed in map(int, os.environ.get("NAV_SEEDS", "1,5").split(",")):
            chance, steps, fresh = random.Random(seed), [], {}
            goals = {site: self.random_state(chance, site) for site in (1, 2)}
            for site, goal in goals.items():
                if self.lab.runs(site):
                    self.assertEqual(self.lab.end_agent(site), 0)
                    self.assertEqual(objects(self.lab, site)[0], set(), "an orderly stop")
                self.become(site, goal)
            for site in goals:
                fresh[site] = self.settled(site)
            for _ in range(20):
                site = chance.choice([1, 2])
                steps.append(self.step(chance, site, goals[site]))
            for site, goal in goals.items():
                self.become(site, goal)
            for site in goals:
                self.await_objects(site, fresh[site], f"seed {seed}, {goals}: {steps}")
                self.assertEqual(self.lab.navctl(site, "validate").stdout, "PASS\n", f"seed {seed}")
            print(f"seed {seed}: {', '.join(steps)}", flush=True)


    def to_anywhere(self, sender, address, places):
        """A stream to an address that the hosts of several sites have."""
        for site in places:
            self.lab.ip(f"host{site}", f"addr add {address}/32 dev lo")
            self.lab.ip(f"router{site}", f"route add {address}/32 via {host(site)}")
            self.traffic.listen(f"host{site}", address, voice)
        return self.traffic.stream(address, (f"host{sender}", host(sender)),
                                   (f"host{places[0]}", address, voice), 200)

    def await_receiver(self, stream, expected):
        def arrives():
            first = len(stream.sent)
            self.await_packets([stream], 20)
            self.traffic.settle()
            return (stream.receiver if stream.latest >= first else None) == expected
        await_(f"packets to {stream.name} arrive at {expected}", arrives)

    def test_routes_over_the_tunnel_are_followed(self):
        new, within = self.to_anywhere(1, "172.16.9.5", (2, 3)), self.to_anywhere(2, "10.1.99.5", (1, 3))
        # The second lies in the prefix that the configuration puts behind site 1.
        for by, new_at, within_at in ((0, None, "host1"), (2, "host2", "host1"), (3, "host3", "host3"),
                                      (2, "host2", "host3"), (0, None, "host1")):
            for site, prefix in ((1, "172.16.9.0/24"), (2, "10.1.99.0/24"))[:1 if by == 2 else 2]:
                if by:
                    self.assertTrue(self.learn(site, by, prefix))
                else:
                    self.forget(site)
            self.await_receiver(new, new_at)
            self.await_receiver(within, within_at)
            self.assertEqual(self.lab.navctl(1, "validate").stdout, "PASS\n")
        # A prefix of the configuration is no daemon's; of several routes for a prefix, the best counts.
        by1, by3 = (f"via {router(site)} dev {tunnel} onlink proto bgp metric" for site in (1, 3))
        for routes, place in (
                (f"route add 10.1.0.0/16 {by3} 20\nroute add 10.1.99.0/24 {by3} 20\n", "host3"),
                ("route del 10.1.99.0/24\n", "host1"), (f"route add 10.1.99.0/24 {by3} 20\n", "host3"),
                (f"route add 10.1.99.0/24 {by1} 10\n", "host1")):
            self.lab.ip("router2", routes)
            self.await_receiver(within, place)
        self.forget(2)
        self.assertNotIn("refuses", self.lab.log(1) + self.lab.log(2))

    def refused(self, site):
        """What the kernel refuses the agent: reasons by objects."""
        shown = self.lab.navctl(site, "--json", "show", "forwarding").stdout
        return {row["object"]: row["reason"] for row in document(shown, "show", "forwarding")["refused"]
                } if shown else {}

    def test_trouble_is_named_and_nobody_elses_is_touched(self):
        lab, before = self.lab, objects(self.lab, 3)
        with tempfile.TemporaryDirectory() as place, \
                self.assertRaisesRegex(RuntimeError, "forwarding requires CAP_NET_ADMIN"):
            lab.run("router3", "setpriv", "--bounding-set", "-net_admin", programs["nav-agent"],
                    "--platform", "linux", "--run-dir", place, "--forwarding",
                    f"{lab.run_dir(3)}/forwarding.json")
        self.assertEqual(objects(lab, 3), before)
        configuration = lab.configuration(1)
        configuration["udpPortConfig"] = port + 5
        before = objects(lab, 1)
        with open_socket(lab, "router1", socket.SOCK_DGRAM, outside("internet", 1), port + 5):
            lab.configure(1, configuration)
            await_("the port is named", lambda: f"UDP port {port + 5} is in use" in str(self.refused(1)))
            self.assertEqual(objects(lab, 1), before)
        await_("the port is taken", lambda: not self.refused(1) and lab.paths_up(1) == 4)
        taken = self.shown(1, "show", "forwarding")["applications"][0]["table"]
        somebodys = f"10.2.0.0/16 dev lan metric 110 proto static table {taken}"
        self.assertEqual(lab.end_agent(1), 0)
        lab.ip("router1", f"link add {tunnel} type veth peer name nobodys\nlink set {tunnel} up\nlink set nobodys up")
        lab.start_agent(1)
        await_("the device is named", lambda: self.refused(1).get(f"link {tunnel}") == "File exists")
        await_("the paths are known", lambda: len(self.shown(1, "show", "paths")["navPathSelPaths"]) == 4)
        self.assertEqual(lab.run("router1", "ip", "nexthop", "show", "dev", tunnel), "")
        self.assertEqual(lab.end_agent(1), 0)
        lab.ip("router1", f"link del {tunnel}")  # fails unless it is there
        lab.ip("router1", f"route add {somebodys}")
        lab.start_agent(1)
        await_("the agent has a table of its own", lambda: lab.paths_up(1) == 4)
        self.assertNotIn(f"'table': {taken}", str(self.shown(1, "show", "forwarding")))
        self.assertIn(f"Table {taken} has routes of others", lab.log(1))
        lab.ip("router1", f"route del {somebodys}")  # fails unless it is as it was

    def test_documented_commands_show_what_is_installed(self):
        shown = self.shown(1, "show", "forwarding")
        site, application = shown["sites"][0], shown["applications"][0]
        words = {"ID": site["group"], "TABLE": application["table"], "MARK": application["mark"],
                 "TO": host(2), "HOST": host(1), "LAN": "lan"}
        commands = re.findall(r"(?:^    |`)((?:ip|bridge|nft) [^`\n]+)", read("docs/forwarding.md"), re.M)
        self.assertGreater(len(commands), 10)
        for command in commands:
            if "flush" not in command:  # its consequences are another test's
                output = self.lab.run("router1", *(str(words.get(word, word)) for word in command.split()))
                self.assertTrue(output or "route add" in command, command)

    def start_bgp(self, site, prefix):
        """FRR's daemons on a router, announcing a prefix to the other routers."""
        place = self.lab.stack.enter_context(tempfile.TemporaryDirectory(prefix="nav-bgp-"))
        shutil.chown(place, "frr", "frr")
        with open(f"{place}/bgpd.conf", "w", encoding="utf-8") as file:
            print(f"router bgp {65000 + site}", f"bgp router-id {router(site)}",
                  "no bgp ebgp-requires-policy", "timers bgp 1 3",
                  *(f"neighbor {each} remote-as external\nneighbor {each} ebgp-multihop 2\n"
                    f"neighbor {each} timers connect 1" for each in map(router, sites) if each != router(site)),
                  "address-family ipv4 unicast", f"network {prefix}", sep="\n", file=file)
        for daemon, file in ("zebra", "/dev/null"), ("bgpd", f"{place}/bgpd.conf"):
            options = ["-z", f"{place}/zserv.api", "-i", f"{place}/{daemon}.pid", "--vty_socket", place,
                       "-f", file, "--log", "file:log"]
            # A process that changes its user forgets whose death it is to follow. A shell does not,
            # and takes with it what is in its namespace of processes.
            self.lab.start(f"router{site}", "unshare", "--pid", "--fork", "--kill-child",
                           "sh", "-c", '"$0" "$@"; exit $?', f"/usr/lib/frr/{daemon}", *options, cwd=place, stderr=subprocess.DEVNULL)
            await_(f"{daemon} is there", lambda name=f"{place}/{daemon}.pid": os.path.exists(name))

    @unittest.skipUnless(os.path.exists("/usr/lib/frr/bgpd"), "bgpd not found (package frr)")
    def test_routes_of_bgp_are_followed(self):
        streams = {}
        for site, other in ((1, 2), (2, 3), (3, 1)):
            streams[other] = self.to_anywhere(site, f"172.16.{other}.5", (other,))
            self.lab.ip(f"router{other}", f"route add 172.16.{other}.0/24 via {host(other)}")
        for site in sites:
            self.start_bgp(site, f"172.16.{site}.0/24")
        for other, stream in streams.items():
            self.await_receiver(stream, f"host{other}")
        self.lab.ip("router2", "route del 172.16.2.0/24")
        self.await_receiver(streams[2], None)
        self.lab.ip("router2", f"route add 172.16.2.0/24 via {host(2)}")
        self.await_receiver(streams[2], "host2")


    def forge(self, provider, source, site, text, at=None):
        """Sends a tunnel packet with a text for a site's host to the site's router, from a
        provider's namespace."""
        v6 = ":" in source
        target = at or outside(provider, site, v6)
        packet = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 28 + len(text), 0, 0, 64, socket.IPPROTO_UDP, 0,
                             socket.inet_aton(host(3 - site)), socket.inet_aton(host(site)))
        total = sum(struct.unpack("!10H", packet))
        packet = packet[:10] + struct.pack("!H", ~((total & 0xffff) + (total >> 16)) & 0xffff) + packet[12:]
        packet += struct.pack("!HHHH", 4000, voice, 8 + len(text), 0) + text
        with self.lab.within(provider):
            sender = socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM)
        with sender:  # IP_TRANSPARENT and IPV6_TRANSPARENT: with the address of another
            sender.setsockopt(*((socket.IPPROTO_IPV6, 75) if v6 else (socket.IPPROTO_IP, 19)), 1)
            sender.bind((source, 0))
            sender.sendto(struct.pack("!BBBBI", 0x0c, 0, 0, 1, 100 << 8) + packet, (target, port))

    def dropped(self, site, chain="tunnels_in"):
        """How many packets a router has refused."""
        rules = self.lab.json(f"router{site}", "nft", "-j", "list", "chain", "inet", "nav", chain)
        return sum(part["counter"]["packets"] for each in rules["nftables"] if "rule" in each
                   for part in each["rule"]["expr"] if "counter" in part)

    def test_only_configured_senders_get_through(self):
        for site in (1, 2):
            if site == 2:
                secured = self.lab.configuration(2)
                secured["pathGroupConfig"]["internet"]["ipsecProfile"] = "profile"
                self.lab.configure(2, secured)
                await_("its rules are there", lambda: "missing" in self.lab.run(
                    "router2", "nft", "list", "table", "inet", "nav"))
            receiver = open_socket(self.lab, f"host{site}", socket.SOCK_DGRAM, host(site), voice)
            self.addCleanup(receiver.close)
            receiver.settimeout(10)
            before, clear = self.dropped(site), site == 2 and self.dropped(2, "protected")
            for provider in providers:
                self.forge(provider, gateway(provider, site, provider == "mpls"), site, b"nobody's")
            # A known sender, by the link of another path; a known one of a path that is secured.
            mac = self.lab.json(f"router{site}", "ip", "-j", "link", "show", "mpls")[0]["address"]
            self.lab.ip("mpls", f"route replace {outside('internet', site)}/32 dev site{site}\n"
                                f"neigh replace {outside('internet', site)} lladdr {mac} dev site{site}")
            self.forge("mpls", outside("internet", 3), site, b"astray", outside("internet", site))
            if site == 2:
                self.forge("internet", outside("internet", 3), site, b"in clear text")
                await_("both are refused", lambda c=clear: self.dropped(2, "protected") >= c + 2, 10)
            await_("they are refused", lambda: self.dropped(site) - before == 4 - site, 10)
            good = [("mpls", outside("mpls", 3, True))] + [("internet", outside("internet", 3))][:2 - site]
            for provider, source in good:
                self.forge(provider, source, site, provider.encode())
                self.assertEqual(receiver.recv(100), provider.encode())
            self.assertEqual(self.dropped(site) - before, 4 - site)
        # Nor does the second site send in clear text what prefers the secured path.
        stream = self.stream(2, 1, web)
        self.await_over([stream], "mpls")
        self.assertNotIn("internet", {key[0] for key in self.lab.carried() if key[2:] == stream.ports})

    def test_an_agent_that_stops_keeps_the_forwarding_if_it_is_told_to(self):
        for site in (1, 2):
            self.lab.end_agent(site)
            self.assertEqual(objects(self.lab, site)[0], set())
            self.lab.start_agent(site, *(["--keep-forwarding"] if site == 1 else []))
        before = {site: self.settled(site) for site in (1, 2)}
        streams = self.streams(voice, web, rest, pairs=((1, 2), (2, 1)))
        self.await_over(streams[:2], "mpls")
        firsts = self.firsts()
        # The second is told by the signal with which the service manager restarts it.
        for site, by in ((1, signal.SIGTERM), (2, signal.SIGUSR1)):
            self.assertEqual(self.lab.end_agent(site, by), 0)
            self.assertEqual(objects(self.lab, site), before[site])
        self.await_packets(streams, 50)
        # An agent that cannot start leaves the forwarding to the next one.
        self.lab.configure(2, configuration={"navConfigured": 7})
        self.lab.start_agent(2)
        self.assertEqual(self.lab.agents[2].wait(30), 1)
        self.assertEqual(objects(self.lab, 2), before[2])
        self.lab.configure(2)
        for site in (1, 2):
            self.lab.start_agent(site)
            await_("it has taken over", lambda s=site: self.lab.paths_up(s) == 4)
            self.await_objects(site, before[site], "taken over")
        self.assert_nothing_lost(streams, firsts)
        self.lab.end_agent(1, signal.SIGKILL)
        self.lab.run("router1", self.lab.programs["agent"], "--remove-forwarding", "--run-dir",
                     self.lab.run_dir(1))
        self.assertEqual(objects(self.lab, 1)[0], set())


if __name__ == "__main__":
    main()
