"""The agent on Debian's own kernel: vm_test.py BUILD_DIR SOURCE_DIR, in the virtual machine of
scripts/vm.

What needs devices that not every kernel has: VRFs. Each case has a router with WAN ports,
each wired to a provider of its own, whose gateway is 203.0.113.254.
"""
import subprocess
import tempfile

from products import Products, await_, main, programs, read, write

tempfile.tempdir = "/run"  # the root is an overlay, in which no file can be without a name
remote = "198.51.100.2"
site = "10.255.0.2"


def ip(commands, netns="router"):
    """Runs a batch, one command a line."""
    subprocess.run(["ip", "-n", netns, "-batch", "-"], input=commands, text=True, check=True)


def unload(module):
    """Removes a kernel module and what uses it. False while something of it exists."""
    users = {line.split()[0]: line.split()[3] for line in read("/proc/modules").splitlines()}
    for user in users.get(module, "-").strip(",-").split(","):
        if user:
            unload(user)
    return module not in users or subprocess.run(["rmmod", module], stderr=subprocess.DEVNULL).returncode == 0


loader = "/proc/sys/kernel/modprobe"  # what the kernel runs to load a module


class VmTest(Products):
    def setUp(self):
        super().setUp()
        self.make_netns("router")
        ip("link set lo up")
        self.directory = self.run_dir()

    def make_netns(self, name):
        subprocess.run(["ip", "netns", "add", name], check=True)
        self.processes.callback(subprocess.run, ["ip", "netns", "del", name], check=True)

    def port(self, name):
        """A WAN port with the address 203.0.113.1/24, which its link to the provider `name` has."""
        self.make_netns(name)
        ip(f"link add {name} type veth peer name gateway netns {name}\n"
           f"link set {name} up\naddr add 203.0.113.1/24 dev {name}")
        ip("addr add 203.0.113.254/24 dev gateway\nlink set gateway up", name)

    def start_agent(self, *ports):
        """One with a path group of each port, of the same name, to the same remote address."""
        groups = {port: {"localIntf": [port], "remoteViaConfig": {site: {"remoteVia": [remote]}}}
                  for port in ports}
        config = write(f"{self.directory}/config.json",
                            {"navConfigured": True, "pathGroupConfig": groups})
        return self.agent(self.directory, "--platform", "linux", "--config", config,
                          under=["ip", "netns", "exec", "router"])

    def show(self, *what):
        return self.shown(self.directory, *what)

    def states(self):
        """The state of each group's path."""
        return {path["pathGroup"]: path["state"]
                for path in self.show("show", "paths")["navPathSelPaths"]}

    def vias(self):
        return {hop["vrf"]: hop["vias"] for hop in self.show("show", "nexthops")}

    def vrf_ids(self):
        vrfs = self.show("get", "/routingHwRouteStatus/vrfStatus")
        return {name: vrf["vrfId"] for name, vrf in vrfs.items()}

    def await_states(self, **states):
        await_(f"the paths are {states}", lambda: self.states() == states)

    def test_vrfs_with_the_same_addresses(self):
        ip("link add red type vrf table 10\nlink add blue type vrf table 20\n"
           "link set red up\nlink set blue up")
        for port, vrf in (("wan1", "red"), ("wan2", "blue")):
            self.port(port)
            ip(f"link set {port} master {vrf}\n"
               f"route add 198.51.100.0/24 via 203.0.113.254 vrf {vrf}")
        self.start_agent("wan1", "wan2")
        self.await_states(wan1="Estab", wan2="Estab")
        self.assertEqual(self.vrf_ids(), {"default": 0, "red": 10, "blue": 20})
        self.assertEqual(self.vias(), {"red": ["203.0.113.254 wan1"], "blue": ["203.0.113.254 wan2"]})
        # What happens to one leaves the other alone.
        ip("route del 198.51.100.0/24 vrf red")
        self.await_states(wan1="Route Pending", wan2="Estab")
        ip("link set wan2 down\nroute add 198.51.100.0/24 via 203.0.113.254 vrf red")
        await_("the path of the link that is down has gone", lambda: "wan2" not in self.states())
        self.await_states(wan1="Estab")

    def make_site(self, number):
        """Router rN at its provider's port, in two VRFs with a host each. Hosts have the same address
        in both."""
        router, other = f"r{number}", 3 - number
        self.make_netns(router)
        for vrf, table in (("red", 10), ("blue", 20)):
            host = f"{vrf}{number}"
            self.make_netns(host)
            ip(f"link add {vrf} type vrf table {table}\nlink set {vrf} up\n"
               f"link add lan-{vrf} type veth peer name eth0 netns {host}\n"
               f"link set lan-{vrf} master {vrf} up\naddr add 10.{number}.0.1/24 dev lan-{vrf}", router)
            ip(f"link set lo up\nlink set eth0 up\naddr add 10.{number}.0.2/24 dev eth0\n"
               f"route add default via 10.{number}.0.1", host)
            server = ("import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); "
                      "s.bind(('', 7))\nwhile True: s.sendto(b'%s', s.recvfrom(99)[1])" % host)
            process = subprocess.Popen(["ip", "netns", "exec", host, "python3", "-c", server])
            self.processes.callback(process.wait)
            self.processes.callback(process.kill)
        ip(f"link add wan type veth peer name to{number} netns router\nlink set lo up\n"
           f"link set wan up\naddr add 203.0.113.{number}/24 dev wan", router)
        ip(f"link set to{number} master provider up")
        subprocess.run(["ip", "netns", "exec", router, "sysctl", "-q", "net.ipv4.ip_forward=1"],
                       check=True)
        address = f"10.255.0.{other}"
        group = {"localIntf": ["wan"],
                 "remoteViaConfig": {address: {"remoteVia": [f"203.0.113.{other}"]}}}
        config = {"navConfigured": True, "pathGroupConfig": {"internet": group},
                  "loadBalanceProfile": {"any": {"pathGroupPriority": {"internet": 1}}},
                  "policyConfig": {"all": {"defaultRuleCfgd": True, "defaultLbGrpName": "any"}},
                  "vrfConfig": {vrf: {"policyName": "all"} for vrf in ("red", "blue")}}
        forwarding = {"vrf": {vrf: {"vni": vni, "address": f"10.255.{vni}.{number}/24"}
                              for vrf, vni in (("red", 1), ("blue", 2))},
                      "site": {address: {"vrf": {vrf: {"prefix": [f"10.{other}.0.0/24"],
                                                       "address": f"10.255.{vni}.{other}"}
                                                 for vrf, vni in (("red", 1), ("blue", 2))}}}}
        directory = self.run_dir()
        self.agent(directory, "--platform", "linux",
                   "--config", write(f"{directory}/config.json", config),
                   "--forwarding", write(f"{directory}/forwarding.json", forwarding),
                   under=["ip", "netns", "exec", router])
        return directory

    def test_segments_keep_vrfs_with_the_same_addresses_apart(self):
        ip("link add provider type bridge\nlink set provider up")
        directories = [self.make_site(1), self.make_site(2)]

        def answer(host, address):
            client = ("import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); "
                      "s.settimeout(1); s.sendto(b'?', ('%s', 7)); print(s.recv(99).decode())")
            return subprocess.run(["ip", "netns", "exec", host, "python3", "-c", client % address],
                                  text=True, capture_output=True).stdout.strip()

        for host, to, far in (("red1", 2, "red2"), ("blue1", 2, "blue2"), ("red2", 1, "red1"),
                              ("blue2", 1, "blue1")):
            await_(f"{far} answers {host}", lambda: answer(host, f"10.{to}.0.2") == far)
        self.assertEqual(self.navctl(directories[0], "validate").stdout, "PASS\n")
        # A segment that goes takes its VRF's traffic with it, and no other's.
        self.navctl(directories[0], "del", "/forwardingConfig/site[10.255.0.2]/vrf[red]")
        await_("red is cut", lambda: answer("red1", "10.2.0.2") == "")
        self.assertEqual(answer("blue1", "10.2.0.2"), "blue2")

    def test_a_kernel_without_vxlan_or_nftables_is_named(self):
        forwarding = write(f"{self.directory}/forwarding.json",
                                {"vrf": {"default": {"vni": 1, "address": "10.255.0.1/24"}}})
        self.processes.callback(write, loader, read(loader))
        for module, reason in (("vxlan", r"VXLAN devices \(kernel module vxlan\)"), ("nf_tables", "nftables: .+")):
            write(loader, "/bin/false")
            await_(f"{module} is not loaded", lambda m=module: unload(m))
            links = subprocess.check_output(["ip", "-n", "router", "link"])
            refused = subprocess.run(
                ["ip", "netns", "exec", "router", programs["nav-agent"], "--platform", "linux",
                 "--run-dir", self.directory, "--forwarding", forwarding],
                text=True, capture_output=True, timeout=60)
            self.assertEqual(refused.returncode, 1)
            self.assertRegex(refused.stderr, f"forwarding requires {reason}")
            self.assertEqual(subprocess.check_output(["ip", "-n", "router", "link"]), links)
            subprocess.run(["modprobe", module], check=True)

    def test_a_port_enslaved_and_released(self):
        ip("link add red type vrf table 10\nlink set red up")
        self.port("wan1")
        ip("route add 198.51.100.0/24 via 203.0.113.254")
        self.start_agent("wan1")
        self.await_states(wan1="Estab")
        for command, vrf, table in (("master red", "red", "vrf red"), ("nomaster", "default", "")):
            # The kernel drops the port's routes when it moves, and announces neither.
            ip(f"link set wan1 {command}")
            self.await_states(wan1="Route Pending")
            ip(f"route add 198.51.100.0/24 via 203.0.113.254 {table}")
            self.await_states(wan1="Estab")
            self.assertEqual(self.vias(), {vrf: ["203.0.113.254 wan1"]})


if __name__ == "__main__":
    main()
