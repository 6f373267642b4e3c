"""Secured paths with the kernel's own ESP: ipsec_vm_test.py BUILD_DIR SOURCE_DIR, in the virtual machine
of `scripts/vm --exact`. The internet is in a VRF of its own, the hosts in another one."""
import re
import signal
import tempfile

from products import LabCase, main  # which adds scripts/ to the path

from netlab import Lab, await_, host, outside, providers, router, sites  # noqa: E402

tempfile.tempdir = "/dev/shm"  # the root is an overlay, and charons have a /run of their own
web = 443  # prefers the internet

# Of swanctl: from the first address to the second, with a CHILD_SA of the third name.
ANOTHER = """
connections {
    another {
        version = 2
        proposals = aes256gcm16-prfsha384-ecp384
        mobike = no
        unique = never
        local_addrs = %s
        remote_addrs = %s
        local { auth = psk }
        remote { auth = psk }
        children {
            %s {
                mode = transport
                local_ts = dynamic[17]
                remote_ts = dynamic[17]
                esp_proposals = aes256gcm16-ecp384
            }
        }
    }
}
"""


class VrfLab(Lab):
    """Two sites, whose traffic of VRF "red" is carried over an internet in VRF "outside" and an MPLS
    network in none."""

    def _wire(self):
        super()._wire()
        for site in sites:
            name = f"router{site}"
            self.run(name, "sysctl", "-qw", "net.ipv4.udp_l3mdev_accept=1")
            route = self.json(name, "ip", "-j", "route", "show", "table", str(providers["internet"]))[0]
            self.ip(name, "link add red type vrf table 20\nlink set red up\nlink set lan master red\n"
                          "link add outside type vrf table 30\nlink set outside up\n"
                          "link set internet master outside\n"
                          f"route add default via {route['gateway']} vrf outside")

    def configuration(self, site):
        found = super().configuration(site)
        return found | {"vrfConfig": {"red": found["vrfConfig"]["default"]}}

    def forwarding(self, site):
        found = super().forwarding(site)
        for each in (found, *found["site"].values()):
            each["vrf"] = {"red": each["vrf"]["default"]}
        return found


class IpsecVmTest(LabCase):
    laboratory = VrfLab
    network = {"secured": ["internet"], "kernel_esp": True, "user": "daemon"}

    def xfrm(self, site, what, pattern):
        return sorted(re.findall(pattern, self.lab.run(f"router{site}", "ip", "xfrm", what)))

    def associations(self, site):
        return set(self.xfrm(site, "state", r"proto esp spi 0x(\w+) reqid [^0]"))

    def await_settled(self):
        """The kernel has what charon has, and nothing else; packets arrive."""
        for site in 1, 2:
            await_(f"site {site} has two associations", every=1, patience=120,
                   condition=lambda s=site: len(self.associations(s)) == 2 and
                   self.associations(s) == set(re.findall(
                       r"spi-(?:in|out)=(\w+)", self.lab.swanctl(s, "--list-sas", "--raw"))))
            self.assertEqual(len(self.xfrm(site, "policy", "reqid 18")), 2)
        goals = [(stream, len(stream.sent) + 10) for stream in self.traffic.streams]
        await_("packets arrive", lambda: all(each.latest > goal for each, goal in goals), every=0.1)

    def probes(self):
        """(answered, lost) of the secured paths."""
        return [(row["answered"], row["lost"]) for site in (1, 2)
                for row in self.shown(site, "show", "forwarding")["probes"]["paths"]
                if row["source"] == outside("internet", site)]

    def lose_a_delete(self):
        """The first site sets up another IKE_SA and deletes it, of which the second does not hear."""
        child = re.search(r"(nav-\w+): #", self.lab.swanctl(1, "--list-sas"))[1]
        with open(f"{self.lab.directory}/another", "w", encoding="utf-8") as file:
            file.write(ANOTHER % (outside("internet", 1), outside("internet", 2), child))
        self.lab.swanctl(1, "--load-conns", "--file", file.name)
        self.lab.swanctl(1, "--initiate", "--ike", "another", "--child", child, "--timeout", "5")
        self.assertEqual([len(self.associations(site)) for site in (1, 2)], [4, 4])
        self.lab.nft("internet", "add rule inet lab degrade udp dport 500 drop")
        self.lab.swanctl(1, "--terminate", "--ike", "another", "--force")
        await_("it is deleted", lambda: len(self.associations(1)) == 2, every=0.1)
        self.lab.degrade("internet", 0)
        self.assertEqual(len(self.associations(2)), 4)

    def test_rekeying_kills_a_bad_link_and_a_nat(self):
        for site in 1, 2:
            self.lab.start_charon(site)
            self.lab.start_agent(site)
        for sender, receiver in (1, 2), (2, 1):
            self.traffic.stream("web", (f"host{sender}", host(sender)),
                                (f"host{receiver}", host(receiver), web), 50)
        self.await_settled()
        await_("paths are probed", lambda: all(answered > 20 for answered, _ in self.probes()), every=1)
        first, old, probed = self.firsts(), self.associations(1), self.probes()
        for site in 1, 2:
            self.lab.swanctl(site, "--rekey", "--child-id", "1")
            self.lab.swanctl(site, "--rekey", "--ike", "Path1")
        await_("new keys are used", lambda: not old & self.associations(1), every=1)
        self.await_settled()
        await_("probes are answered", every=1, condition=lambda: all(
            now > before + 20 for (now, _), (before, _) in zip(self.probes(), probed)))
        self.assertEqual([lost for _, lost in self.probes()], [lost for _, lost in probed])
        self.kill(1)
        self.await_settled()
        self.assert_nothing_lost(self.traffic.streams, first)
        # Charon does not notice that the kernel has lost its policies; the agent's rules drop the packets.
        self.lab.ip("router1", "xfrm policy flush")
        await_("the path is dead", lambda: " is dead: " in self.lab.log(1), every=1)
        self.lab.swanctl(1, "--terminate", "--ike", "Path1", "--timeout", "5")
        self.await_settled()
        self.assertNotIn("cannot be sent", self.lab.log(1))
        self.lose_a_delete()
        self.await_settled()
        self.lab.run("internet", "tc", "qdisc", "add", "dev", "site2", "root", "netem", "delay", "20ms",
                     "loss", "5%")
        for killed in (1,), (1, 2):
            for site in killed:
                self.lab.end_charon(site, signal.SIGKILL)
                self.lab.end_agent(site, signal.SIGKILL)
                self.lab.start_charon(site)
                self.lab.start_agent(site)
            self.await_settled()
        # The first site is behind a NAT from now on.
        self.lab.translate("internet", 1, "203.0.113.9")
        configuration = self.lab.configuration(2)
        configuration["pathGroupConfig"]["internet"]["remoteViaConfig"][router(1)] = {
            "remoteVia": ["203.0.113.9"]}
        for site, paths in (1, self.lab.configuration(1)), (2, configuration):
            self.lab.configure(site, paths, ipsec=self.lab.ipsec(localId=f"router{site}", remoteId="%any"))
        await_("the path leads through the NAT", lambda: "remote-host=203.0.113.9" in self.lab.swanctl(
            2, "--list-sas", "--raw"), every=1)
        self.await_settled()
        self.assertEqual(self.lab.clear("internet"), {})
        for site in 1, 2:
            self.assertEqual(self.lab.end_agent(site), 0)
            await_("nothing is left", lambda s=site: not self.associations(s), every=1)


if __name__ == "__main__":
    main()
