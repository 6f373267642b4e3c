"""Secured paths, with the real charon: ipsec_test.py BUILD_DIR SOURCE_DIR, as root.

Three sites and two providers in network namespaces (scripts/netlab.py); the paths over the internet
are secured. Every packet that comes to a provider is looked at: none of a tunnel may come to the
internet in clear text. Needs Debian's strongswan-charon, strongswan-swanctl and
libcharon-extra-plugins. NAV_RUNS: how often everything is started, changed and ended; NAV_KILLS: how
many random events there are each time; NAV_SEED: the seed of the first.
"""
import json
import os
import random
import re
import signal
import socket
import subprocess
import time

from products import LabCase, main  # which adds scripts/ to the path

from netlab import await_, host, outside, router, sites  # noqa: E402

web, guests = 443, 7000  # prefers the internet; may use nothing else
# Of swanctl: accepts every connection.
PEER = """
connections {
    any {
        version = 2
        proposals = aes256gcm16-prfsha384-ecp384
        unique = never
        local { auth = psk }
        remote { auth = psk }
        children {
            any {
                local_ts = dynamic[17]
                remote_ts = dynamic[17]
                esp_proposals = aes256gcm16-ecp384
            }
        }
    }
}
secrets { ike { secret = "The key of the laboratory" } }
"""



class IpsecTest(LabCase):
    network = {"secured": ["internet"], "user": "daemon"}

    def setUp(self):
        super().setUp()
        self.addCleanup(self.assert_nothing_clear)

    def assert_nothing_clear(self):
        self.assertEqual(self.lab.clear("internet"), {})

    def start(self):
        self.profile = self.lab.ipsec()
        self.lab.start_agents()
        streams = [self.traffic.stream(f"{sender} to {receiver} port {port}",
                                       (f"host{sender}", host(sender, port == guests)),
                                       (f"host{receiver}", host(receiver), port), 100)
                   for sender, receiver in ((1, 2), (2, 1), (2, 3), (3, 1)) for port in (web, guests)]
        self.await_all_arrive(streams)
        return streams

    def await_probed(self):
        """Probes that are sent from now on are answered, on every secured path."""
        def answered():
            return [row["answered"] for site in sites
                    for row in self.shown(site, "show", "forwarding")["probes"]["paths"]
                    if row["source"] == outside("internet", site)]
        goals = [each + 5 for each in await_("secured paths are probed", lambda: [
            rows for rows in [answered()] if len(rows) == 6 and all(rows)][:1])[0]]
        await_("probes are answered", lambda: all(map(int.__ge__, answered(), goals)))

    def await_all_arrive(self, streams):
        """Packets of each stream that are sent from now on arrive."""
        goals = {stream: len(stream.sent) + 5 for stream in streams}
        await_("packets of every stream arrive",
               lambda: all(stream.latest >= goal for stream, goal in goals.items()), 60)

    def connections(self, site):
        """By destination."""
        return {row["destination"]: row for row in self.shown(site, "show", "ipsec")}

    def state(self, site, other):
        row = self.connections(site)[outside("internet", other)]
        return row["state"], row["lastError"]

    def await_failure(self, site, other, reason):
        await_(f"IPsec from {site} to {other} fails: {reason}", lambda: self.state(site, other)[1] and
               reason in self.state(site, other)[1] and self.state(site, other)[0] != "established")

    def associations(self, site):
        """(peer, state, state of the only CHILD_SA) of each IKE_SA of a charon."""
        return sorted((peer, state, tuple(re.findall(r" state=(\w+) ", children)))
                      for state, peer, children in re.findall(
                          r"list-sa event \{\S+ \{.*? state=(\w+) .*?remote-host=(\S+) .*?"
                          r"child-sas \{(.*?)\}\}\}", self.lab.swanctl(site, "--list-sas", "--raw")))

    def await_settled(self, streams):
        """Every path is up, with one IKE_SA and one CHILD_SA; nothing else is there."""
        for site in sites:
            expected = sorted((outside("internet", other), "ESTABLISHED", ("INSTALLED",))
                              for other in sites if other != site)
            await_(f"all paths of site {site} are up", lambda s=site: self.lab.paths_up(s) == 4, 90)
            await_(f"site {site} has one association a path",
                   lambda s=site, e=expected: self.associations(s) == e, 60)
        self.await_all_arrive(streams)

    def kill_charon(self, site):
        self.lab.end_charon(site, signal.SIGKILL)
        self.lab.start_charon(site)

    def kill(self, site):
        super().kill(site)
        # Before that, it may not take SIGHUP yet.
        await_("the agent answers", lambda: self.lab.paths_up(site) >= 0)

    def delete(self, site):
        """By the other ends: associations of the first, or only what carries packets."""
        self.lab.swanctl(site, "--terminate", "--ike", "Path1", "--timeout", "1")
        self.lab.swanctl(site, "--terminate", "--child-id", "2", "--timeout", "1")

    def rekey(self, site):
        for path in "12":
            self.lab.swanctl(site, "--rekey", "--child-id", path)
            self.lab.swanctl(site, "--rekey", "--ike", f"Path{path}")

    def change_profile(self, **changes):
        self.profile = self.lab.ipsec(**changes)
        for site in sites:
            self.lab.configure(site, ipsec=self.profile)

    def flap(self, site):
        self.lab.links("internet", "down", [site])
        self.lab.links("internet", "up", [site])

    def change_path(self, site):
        """A path of one side goes and comes."""
        changed = self.lab.configuration(site)
        other = next(each for each in sites if each != site)
        del changed["pathGroupConfig"]["internet"]["remoteViaConfig"][router(other)]
        self.lab.configure(site, changed, ipsec=self.profile)
        await_("the path has gone", lambda: len(self.connections(site)) == 1)
        self.lab.configure(site, ipsec=self.profile)

    def test_packets_are_encrypted_through_rekeying_and_the_end_of_agents(self):
        streams = self.start()
        with open(f"/proc/{self.lab.agents[1].pid}/status", encoding="utf-8") as file:
            status = dict(line.split(":\t") for line in file.read().splitlines() if ":\t" in line)
        self.assertEqual((status["Name"], int(status["CapEff"], 16) == 1 << 12), 
                         ("nav-agent", self.lab.user is not None))
        self.await_probed()
        firsts = self.firsts()
        before = {site: self.connections(site) for site in sites}
        for site in 1, 2:
            self.rekey(site)
        self.await_all_arrive(streams)
        self.await_probed()
        for site in sites:
            self.assertNotIn("is dead", self.lab.log(site))
            self.kill(site)
        self.await_settled(streams)
        self.assert_nothing_lost(streams, firsts)
        for site in sites:
            for destination, row in self.connections(site).items():
                self.assertEqual(row["encapId"], before[site][destination]["encapId"])
                self.assertEqual(row["peer"], destination)
                await_("bytes are counted", lambda s=site, d=destination:
                       any(self.connections(s)[d][each] for each in ("bytesIn", "bytesOut")))
        self.assertIn("internet", {each[0] for each in self.lab.carried()})

    def test_nothing_leaves_in_clear_text_whatever_happens(self):
        streams, first = self.start(), int(os.environ.get("NAV_SEED", "3"))
        for seed in range(first, first + int(os.environ.get("NAV_RUNS", "1"))):
            if seed != first:
                self.lab.start_agents()
            self.run_events(streams, seed)

    def run_events(self, streams, seed):
        chance = random.Random(seed)
        events = [self.kill_charon, self.kill, self.delete, self.rekey, self.flap, self.change_path,
                  lambda site: self.lab.swanctl(site, "--load-all", "--file", "/dev/null"),  # unloads
                  lambda _: self.change_profile(espProposals=chance.choice(
                      ["aes256gcm16", "aes128gcm16-ecp256"])),
                  lambda _: self.change_profile(presharedKey=f"another key {chance.random()}")]
        chance.shuffle(events)
        for number in range(int(os.environ.get("NAV_KILLS", "8"))):
            site = chance.choice(sites)
            events[number % len(events)](site)
            if chance.random() < 0.5:
                self.await_settled(streams)
            self.assertEqual((number, seed, self.lab.clear("internet")), (number, seed, {}))
        self.await_settled(streams)
        for site in sites:
            self.assertEqual(self.lab.end_agent(site), 0)
            await_("nothing is left", lambda s=site: not any(
                "event {" in self.lab.swanctl(s, what, "--raw") for what in ("--list-sas", "--list-conns")))
            self.assertNotIn("key of the laboratory", self.lab.log(site))
            self.lab.end_charon(site)
        print(f"seed {seed}: nothing in clear text", flush=True)

    def test_failures_have_their_reasons(self):
        streams = self.start()
        # A silent peer beside one that refuses.
        self.lab.charons[2].send_signal(signal.SIGSTOP)
        self.lab.configure(3, ipsec=self.lab.ipsec(presharedKey="a wrong key"))
        self.await_failure(1, 2, "no longer answers")
        self.await_failure(1, 2, "does not answer")
        self.await_failure(1, 3, "authentication failed")
        self.lab.charons[2].send_signal(signal.SIGCONT)
        self.lab.configure(3, ipsec=self.lab.ipsec(proposals="aes128gcm16-prfsha256-ecp256"))
        self.await_failure(1, 3, "no proposal chosen")
        self.lab.configure(3, ipsec={"profile": {}})
        await_("the profile is missed", lambda: "not configured" in (self.state(3, 1)[1] or ""))
        self.lab.configure(3)
        self.lab.end_charon(1, signal.SIGKILL)
        self.await_failure(1, 2, "charon is not available")
        self.lab.start_charon(1)
        self.await_settled(streams)
        # The address of a router changes, and the others learn of it later.
        self.lab.renumber("internet", 1, "198.51.100.20")
        self.await_failure(2, 1, "the peer no longer answers")
        for site in 2, 3:
            changed = self.lab.configuration(site)
            changed["pathGroupConfig"]["internet"]["remoteViaConfig"][router(1)] = {
                "remoteVia": ["198.51.100.20"]}
            self.lab.configure(site, changed)
        for site in sites:
            await_(f"all paths of site {site} are up", lambda s=site: self.lab.paths_up(s) == 4)
        self.await_all_arrive(streams)

    def test_a_nat_is_named(self):
        """Which packets that charon encrypts itself cannot pass."""
        address = "203.0.113.9"
        self.lab.translate("internet", 1, address)
        configuration = self.lab.configuration(2)
        configuration["pathGroupConfig"]["internet"]["remoteViaConfig"][router(1)] = {"remoteVia": [address]}
        for site, path in (1, self.lab.configuration(1)), (2, configuration):
            self.lab.configure(site, path, ipsec=self.lab.ipsec(localId=f"router{site}", remoteId="%any"))
            self.lab.start_charon(site)
            self.lab.start_agent(site)
            await_("the agent answers", lambda s=site: self.lab.paths_up(s) >= 0)
        self.await_failure(1, 2, "refuses the traffic selectors; this side is behind a NAT")
        await_("the other end knows it", lambda: "the peer is behind a NAT" in (
            self.connections(2)[address]["lastError"] or ""))

    def busy(self, seconds):
        """How often the event thread of site 1 has been busy for longer."""
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(f"{self.lab.run_dir(1)}/metrics.sock")
            client.sendall(b"GET /metrics HTTP/1.0\r\n\r\n")
            with client.makefile() as file:
                rounds = dict(re.findall(r'loop_busy_seconds_bucket\{le="(.*)"\} (\d+)', file.read()))
        return int(rounds["+Inf"]) - int(rounds[seconds])

    def test_many_paths_at_once(self):
        """128, of one agent to a charon that accepts all of them."""
        addresses = [f"203.0.113.{number}" for number in range(1, 129)]
        self.lab.ip("router2", "".join(f"addr add {each}/32 dev lo\n" for each in addresses))
        self.lab.ip("internet", f"route add 203.0.113.0/24 via {outside('internet', 2)}")
        for site in 1, 2:
            self.lab.start_charon(site)
        with open(f"{self.lab.directory}/peer", "w", encoding="utf-8") as file:
            file.write(PEER)
        await_("the peer accepts connections",
               lambda: "loaded" in self.lab.swanctl(2, "--load-all", "--file", file.name))
        configuration = self.lab.configuration(1)
        configuration["pathGroupConfig"] = {"internet": {
            "localIntf": ["internet"], "ipsecProfile": "branch", "remoteViaConfig": {}}}
        self.lab.configure(1, configuration)
        self.lab.start_agent(1)
        await_("charon is available", lambda: "Charon is available" in self.lab.log(1))
        configuration["pathGroupConfig"]["internet"]["remoteViaConfig"] = {
            router(2): {"remoteVia": addresses}}
        before, load = self.busy("0.005"), os.getloadavg()[0]
        start = time.monotonic()
        self.lab.configure(1, configuration)
        await_("all paths are up", lambda: self.lab.log(1).count(" is up by ") == len(addresses))
        print(f"{len(addresses)} paths are up after {time.monotonic() - start:.2f} s; the event thread was "
              f"busy for longer than 5 ms {self.busy('0.005') - before} times; load {load:.1f}", flush=True)
        self.assertEqual(len(self.associations(2)), len(addresses))


class CertificateTest(LabCase):
    network = {"secured": ["internet"], "v6_outside": ["internet"]}

    def openssl(self, *arguments):
        subprocess.run(["openssl", *arguments], cwd=self.lab.directory, check=True, capture_output=True)

    def certify(self, site, *validity):
        """Gives a router a certificate of the laboratory's authority; returns its profile."""
        name = f"router{site}"
        self.openssl("req", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{name}.key", "-out",
                     f"{name}.csr", "-subj", f"/CN={name}", "-addext", f"subjectAltName=DNS:{name}")
        self.openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                     "-CAcreateserial", "-copy_extensions", "copy", "-out", f"{name}.pem", *validity)
        place = self.lab.directory
        os.chmod(f"{place}/{name}.key", 0o600)
        return {"profile": {"branch": {
            "certificate": f"{place}/{name}.pem", "privateKey": f"{place}/{name}.key",
            "authority": [f"{place}/ca.pem"], "localId": name, "remoteId": "%any", "dpdDelay": 1,
            "dpdTimeout": 2}}}

    def test_certificates_over_ipv6_until_one_expires(self):
        self.openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key", "-out", "ca.pem",
                     "-subj", "/CN=authority", "-days", "2")
        for site in sites:
            self.lab.configure(site, ipsec=self.certify(site, "-days", "1"))
        self.lab.start_agents()
        self.lab.configure(3, ipsec=self.certify(3, "-days", "-1"))
        for site in 1, 2:
            await_("the certificate is refused", lambda s=site: any(
                row["state"] != "established" and "a certificate is not valid now" in (row["lastError"] or "")
                for row in self.shown(s, "show", "ipsec")))
            self.assertEqual(self.lab.paths_up(site), 3)
        self.lab.configure(3, ipsec=self.certify(3, "-days", "1"))
        for site in sites:
            await_(f"all paths of site {site} are up", lambda s=site: self.lab.paths_up(s) == 4)
        self.assertEqual(self.lab.clear("internet"), {})


if __name__ == "__main__":
    main()
