"""Three sites and two providers in network namespaces of this machine, with an agent on each site's
router: what scripts/demo --linux shows and tests/forwarding_test.py measures.

    host1 -- router1 --internet-- (provider "internet") --internet-- router2 -- host2
                     \\--mpls----- (provider "mpls")     -----mpls--/
    and so router3 with host3

A router's interfaces are named after its providers, a provider's after the sites. Every router
reaches the others over both providers: voice prefers MPLS, web the internet, guests may use the
internet only, everything else is spread over both.

The namespaces have no names: this process holds them open, so the kernel removes them and all in
them when it ends, whatever ends it; the agents are killed with it. Inspect them while it runs with
`nsenter --net=PLACE`, where PLACE is what Lab.place() gives.
"""
import contextlib
import ctypes
import json
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

sites = (1, 2, 3)
providers = {"internet": 11, "mpls": 12}  # and the routing table of each
port = 4793  # of the tunnels
tunnel = "nav.default"

CLONE_NEWNET = 0x40000000
libc = ctypes.CDLL(None, use_errno=True)


class Unavailable(Exception):
    """This machine, or this user, cannot have the namespaces; the text says why."""


def call(function, *arguments):
    if getattr(libc, function)(*arguments) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{function}: {os.strerror(error)}")


def await_(what, condition, patience=60, every=0.01):
    """The first true value of the condition, which is looked at each `every` seconds."""
    end = time.monotonic() + patience
    while not (value := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"waited {patience} s in vain until {what}")
        time.sleep(every)  # between two looks
    return value


def outside(provider, site, v6=False):
    """The address of a site's router at a provider."""
    if v6:
        return f"2001:db8:{providers[provider]}:{site}::1"
    return f"{'198.51.100' if provider == 'internet' else '192.0.2'}.{16 * site + 1}"


def gateway(provider, site, v6=False):
    address = outside(provider, site, v6)
    return address[:-1] + "fe" if v6 else address[:address.rindex(".") + 1] + str(16 * site + 14)


def router(site):
    """A router's address in the overlay."""
    return f"10.255.0.{site}"


def host(site, guest=False, v6=False):
    """The address of a site's host, in the guests' network or the other one."""
    return f"fd00:{site}:{int(guest)}::2" if v6 else f"10.{site}.{int(guest)}.2"


class Lab:
    """`v6_outside`: the providers that have IPv6 only. `secured`: those over which paths are secured
    by IPsec, with a charon for each router; `kernel_esp`: by the kernel rather than by charon. `user`:
    runs the agents, whose only capability is CAP_NET_ADMIN, and has a group of the same name; root
    runs them if that user cannot reach the program. Raises Unavailable."""

    def __init__(self, agent, navctl, v6_outside=(), secured=(), kernel_esp=False, user=None):
        if secured and not os.path.exists(CHARON):
            raise Unavailable(f"{CHARON} not found (package strongswan-charon)")
        for tool, package in (("ip", "iproute2"), ("nft", "nftables"), ("nsenter", "util-linux")):
            if not shutil.which(tool):
                raise Unavailable(f"{tool} not found (package {package})")
        self.programs = {"agent": agent, "navctl": navctl}
        self.v6_outside, self.secured = set(v6_outside), set(secured)
        self.kernel_esp = kernel_esp
        places = pathlib.Path(os.path.abspath(agent)).parents
        self.user = user if all(place.stat().st_mode & 0o001 for place in places) else None
        self.agents, self.charons = {}, {}
        self._processes = []
        with contextlib.ExitStack() as stack:
            self.netns = self._namespaces(stack)
            self.directory = stack.enter_context(tempfile.TemporaryDirectory(prefix="nav-lab-"))
            os.chmod(self.directory, 0o711)
            for site in sites:
                os.mkdir(self.run_dir(site))
                self._give(self.run_dir(site))
            self._wire()
            stack.callback(self._kill_processes)
            self.stack = stack.pop_all()  # closed at the end

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stack.close()

    # Namespaces, and commands in them.

    def _namespaces(self, stack):
        names = [*providers, *(f"{kind}{site}" for kind in ("router", "host") for site in sites)]
        found = {}
        own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        try:
            for name in names:
                call("unshare", CLONE_NEWNET)
                found[name] = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
                stack.callback(os.close, found[name])
        except PermissionError as error:
            raise Unavailable("network namespaces need root") from error
        except OSError as error:
            raise Unavailable(f"this kernel gives no network namespaces: {error}") from error
        finally:
            if found:
                call("setns", own, CLONE_NEWNET)
            os.close(own)
        return found

    def place(self, name):
        return f"/proc/{os.getpid()}/fd/{self.netns[name]}"

    @contextlib.contextmanager
    def within(self, name):
        """What this thread opens meanwhile belongs to the namespace."""
        own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        try:
            call("setns", self.netns[name], CLONE_NEWNET)
            yield
        finally:
            call("setns", own, CLONE_NEWNET)
            os.close(own)

    def start(self, name, *command, **options):
        """A process in a namespace, which does not outlive this one."""
        under = ["nsenter", f"--net={self.place(name)}", "setpriv", "--pdeathsig", "KILL"]
        self._processes.append(subprocess.Popen([*under, *command], **options))
        return self._processes[-1]

    def run(self, name, *command, **options):
        done = subprocess.run(["nsenter", f"--net={self.place(name)}", *command], text=True,
                              capture_output=True, check=False, **options)
        if done.returncode != 0:
            raise RuntimeError(f"{name}: {' '.join(command)}: {done.stderr.strip()}")
        return done.stdout

    def ip(self, name, commands):
        """Runs commands of ip(8), one a line, up to the first that is refused."""
        self.run(name, "ip", "-batch", "-", input=commands)

    def nft(self, name, text):
        self.run(name, "nft", "-f", "-", input=text)

    def json(self, name, *command):
        return json.loads(self.run(name, *command) or "[]")

    # The network.

    def _wire(self):
        for name in self.netns:
            settings = ["net.ipv4.ip_forward=1", "net.ipv6.conf.all.forwarding=1",
                        "net.ipv6.conf.default.accept_dad=0",
                        "net.ipv6.conf.all.keep_addr_on_down=1",
                        "net.ipv4.fib_multipath_hash_policy=1",
                        "net.ipv6.fib_multipath_hash_policy=1",
                        "net.ipv4.ip_unprivileged_port_start=862",
                        f"net.ipv4.nexthop_compat_mode={int(name == 'router3')}"]  # works with either
            self.run(name, "sysctl", "-qw", *(settings if not name.startswith("host") else settings[2:3]))
            self.ip(name, "link set lo up")
        for site in sites:
            self._wire_lan(site)
            for provider in providers:
                self._wire_provider(provider, site)
        for provider in providers:
            self.nft(provider, COUNTING)
        for site in sites if self.secured else ():
            self.nft(f"router{site}", COUNTING_DECRYPTED)

    def _wire_lan(self, site):
        self.ip(f"router{site}",
                f"link add lan type veth peer name eth0 netns {self.place(f'host{site}')}\n"
                f"link set lan up\n"
                f"addr add 10.{site}.0.1/24 dev lan\naddr add 10.{site}.1.1/24 dev lan\n"
                f"addr add fd00:{site}::1/64 dev lan\naddr add fd00:{site}:1::1/64 dev lan")
        self.ip(f"host{site}",
                "link set eth0 up\n"
                f"addr add {host(site)}/24 dev eth0\naddr add {host(site, True)}/24 dev eth0\n"
                f"addr add {host(site, v6=True)}/64 dev eth0\n"
                f"addr add {host(site, True, True)}/64 dev eth0\n"
                f"route add default via 10.{site}.0.1\nroute add default via fd00:{site}::1")

    def _wire_provider(self, provider, site):
        v6, table = provider in self.v6_outside, providers[provider]
        here, there = outside(provider, site, v6), gateway(provider, site, v6)
        length = 64 if v6 else 28
        # The kernel announces at once that a link has lost its carrier only if the two ends have
        # different indices; else up to a second later.
        self.ip(provider,
                f"link add site{site} index {100 + site} group 1 type veth peer name {provider} "
                f"address 02:00:00:00:{table}:{site:02} netns {self.place(f'router{site}')}\n"
                f"link set site{site} up\naddr add {there}/{length} dev site{site}")
        family = "-6" if v6 else "-4"
        self.ip(f"router{site}",
                f"link set {provider} up\naddr add {here}/{length} dev {provider}\n"
                f"route add default via {there} metric {100 * (table - 10)}\n"
                f"route add default via {there} table {table}")
        # Without a priority it would come before the rules of an agent that runs.
        self.run(f"router{site}", "ip", family, "rule", "add", "from", here, "lookup", str(table),
                 "priority", "32765")

    def rewire(self, provider, site):
        """Replaces the link between a provider and a router by another one, as a driver may."""
        self.ip(provider, f"link del site{site}")
        self.run(f"router{site}", "ip", "-6" if provider in self.v6_outside else "-4", "rule", "del",
                 "lookup", str(providers[provider]))
        self._wire_provider(provider, site)

    def renumber(self, provider, site, address):
        """Gives a router another address at a provider (IPv4), as DHCP may."""
        via, table = gateway(provider, site), providers[provider]
        self.ip(f"router{site}",
                f"addr flush dev {provider} scope global\naddr add {address}/28 dev {provider}\n"
                f"route add default via {via} dev {provider} metric {100 * (table - 10)}\n"
                f"route add default via {via} dev {provider} table {table}\n"
                f"rule add from {address} lookup {table} priority 32765")

    def translate(self, provider, site, address):
        """Has a provider translate a router's address to another one."""
        self.ip(provider, f"addr add {address}/32 dev lo")
        self.nft(provider, "add table ip nat\n"
                           "add chain ip nat source { type nat hook postrouting priority srcnat; }\n"
                           f"add rule ip nat source ip saddr {outside(provider, site)} snat to {address}")

    def links(self, provider, state, among=None):
        """Sets a provider's links to sites "up" or "down": all of them by one system call, so that
        no site is ahead of another whatever else the machine does, or those `among` one after
        the other."""
        self.ip(provider, f"link set group 1 {state}\n" if among is None else
                "".join(f"link set site{site} {state}\n" for site in among))

    def degrade(self, provider, percent):
        """Has a provider drop as many of the packets that it forwards; 0: none."""
        rule = f"numgen random mod 100 < {percent} drop" if percent else ""
        self.nft(provider, f"flush chain inet lab degrade\n"
                           f"{'add rule inet lab degrade ' + rule if rule else ''}\n")

    def carried(self):
        """The packets in tunnels so far, by provider, site of origin and inner source and
        destination port. What a provider cannot read is counted by the routers that receive it."""
        found = {}
        for provider in providers:
            origins = {outside(provider, site): site for site in sites}
            origins |= {f"site{site}": site for site in sites}
            places = ([f"router{site}" for site in sites] if provider in self.secured else [provider])
            for place in places:
                for (origin, ports), packets in self._counted(place, "carried"):
                    if origin in origins:
                        # As the packet has them, taken for a number of this machine.
                        key = (provider, origins[origin],
                               *struct.unpack(">HH", struct.pack("=I", ports)))
                        found[key] = found.get(key, 0) + packets
        return found

    def _counted(self, name, counted):
        """(element, packets) of each element of a set in a namespace."""
        shown = self.json(name, "nft", "-j", "list", "set", "inet", "lab", counted)
        elements = next(each["set"] for each in shown["nftables"] if "set" in each).get("elem", [])
        for element in (each["elem"] for each in elements):
            value = element["val"]
            yield value["concat"] if "concat" in value else value, element["counter"]["packets"]

    def clear(self, provider):
        """How many packets of tunnels and probes have come to a provider in clear text so far, by
        site."""
        return {int(link[4:]): packets for link, packets in self._counted(provider, "clear")}

    # The agents.

    def _give(self, path):
        if self.user:
            shutil.chown(path, self.user, self.user)

    def run_dir(self, site):
        return f"{self.directory}/site{site}"

    def configuration(self, site):
        """The path configuration, to be changed at will."""
        groups = {provider: {"localIntf": [provider], "remoteViaConfig": {
            router(other): {"remoteVia": [outside(provider, other, provider in self.v6_outside)]}
            for other in sites if other != site}} for provider in providers}
        for provider in self.secured:
            groups[provider]["ipsecProfile"] = "branch"
        rules = {"5": (9, "guest"), "10": (7, "voice"), "20": (8, "web")}
        return {
            "navConfigured": True, "udpPortConfig": port, "pathGroupConfig": groups,
            "loadBalanceProfile": {
                "voice": {"pathGroupPriority": {"mpls": 1, "internet": 2}},
                "web": {"pathGroupPriority": {"internet": 1, "mpls": 2}},
                "guest": {"pathGroupPriority": {"internet": 1}},
                "rest": {"pathGroupPriority": {"internet": 1, "mpls": 1}}},
            "policyConfig": {"applications": {
                "defaultRuleCfgd": True, "defaultLbGrpName": "rest",
                "appProfilePolicyRuleList": {
                    key: {"appProfileId": number, "appProfileName": name, "lbGrpName": name}
                    for key, (number, name) in rules.items()}}},
            "vrfConfig": {"default": {"policyName": "applications"}}}

    def forwarding(self, site):
        """The forwarding configuration."""
        return {
            "vrf": {"default": {"vni": 100, "address": f"{router(site)}/24"}},
            "site": {router(other): {"vrf": {"default": {
                "prefix": [f"10.{other}.0.0/16", f"fd00:{other}::/32"]}}}
                     for other in sites if other != site},
            "application": {
                "voice": {"match": {"1": {"protocol": "udp", "destinationPort": ["5060-5061"]},
                                    "2": {"dscp": ["ef"]}}},
                "web": {"match": {"1": {"destinationPort": ["80", "443"]}}},
                "guest": {"match": {
                    str(each): {"sourcePrefix": [f"10.{each}.1.0/24", f"fd00:{each}:1::/64"]}
                    for each in sites}}},
            # The namespaces share one kernel, which may keep all agents waiting at once for longer
            # than 300 ms when others change their network; no router stops for as long.
            "probe": {"multiplier": 10}}

    def ipsec(self, **changes):
        """The IPsec profiles."""
        return {"profile": {"branch": {"presharedKey": "The key of the laboratory", "dpdDelay": 1,
                                       "dpdTimeout": 2, **changes}}}

    def configure(self, site, configuration=None, forwarding=None, ipsec=None):
        """Writes the files of a site's agent, and has it read them if it runs."""
        for name, value in (("config", configuration or self.configuration(site)),
                            ("forwarding", forwarding or self.forwarding(site)),
                            ("ipsec", ipsec or self.ipsec())):
            with open(f"{self.run_dir(site)}/{name}.json", "w", encoding="utf-8",
                      opener=lambda path, flags: os.open(path, flags, 0o600)) as file:
                json.dump(value, file)
            self._give(file.name)
        if self.runs(site):
            self.agents[site].send_signal(signal.SIGHUP)

    def start_agent(self, site, *options):
        if not os.path.exists(f"{self.run_dir(site)}/config.json"):
            self.configure(site)
        if self.secured:
            options += ("--ipsec", f"{self.run_dir(site)}/ipsec.json",
                        "--charon", f"{self.run_dir(site)}/charon.vici")
        under = ["setpriv", "--reuid", self.user, "--regid", self.user, "--clear-groups", "--no-new-privs",
                 *(f"--{each}=-all,+net_admin" for each in ("inh-caps", "ambient-caps", "bounding-set"))]
        with open(f"{self.run_dir(site)}/log", "a", encoding="utf-8") as log:
            self.agents[site] = self.start(
                # With the priority that its service has.
                f"router{site}", "nice", "-n", "-10", *(under if self.user else ()),
                self.programs["agent"], "--platform", "linux",
                "--run-dir", self.run_dir(site), "--config", f"{self.run_dir(site)}/config.json",
                "--forwarding", f"{self.run_dir(site)}/forwarding.json", *options,
                stderr=log)

    def start_charon(self, site):
        """With a /run of its own, where it has its pid file."""
        place = f"{self.run_dir(site)}/charon"
        shutil.rmtree(place, ignore_errors=True)
        os.mkdir(place)
        with open(f"{place}.conf", "w", encoding="utf-8") as file:
            file.write(CHARON_CONF.format(socket=f"{self.run_dir(site)}/charon.vici",
                                          group=f"group = {self.user}" if self.user else "",
                                          plugin="" if self.kernel_esp else "kernel-libipsec",
                                          own="" if self.kernel_esp else OWN_ESP))
        with open(f"{place}.log", "a", encoding="utf-8") as log:
            self.charons[site] = self.start(
                f"router{site}", "unshare", "--mount", "--propagation", "private", "sh", "-c",
                f"mount --bind {place} /run && STRONGSWAN_CONF={place}.conf exec {CHARON}",
                stdout=log, stderr=log)

    def swanctl(self, site, *arguments):
        """What a command prints about a site's charon; empty if it fails."""
        return subprocess.run(["swanctl", *arguments, "--uri", f"unix://{self.run_dir(site)}/charon.vici"],
                              text=True, capture_output=True, check=False, timeout=30).stdout

    def end_charon(self, site, by=signal.SIGTERM):
        self.charons[site].send_signal(by)
        self.charons[site].wait(30)

    def start_agents(self):
        for site in sites:
            if self.secured:
                self.start_charon(site)
            self.start_agent(site)
        for site in sites:
            await_(f"all paths of site {site} are up", lambda s=site: self.paths_up(s) == 4)

    def runs(self, site):
        return site in self.agents and self.agents[site].poll() is None

    def end_agent(self, site, by=signal.SIGTERM):
        """Returns the status with which the agent ended."""
        self.agents[site].send_signal(by)
        return self.agents[site].wait(30)

    def _kill_processes(self):
        for process in self._processes:
            process.kill()
            process.wait()

    def log(self, site):
        with open(f"{self.run_dir(site)}/log", encoding="utf-8") as file:
            return file.read()

    def navctl(self, site, *arguments):
        return subprocess.run([self.programs["navctl"], "--run-dir", self.run_dir(site), *arguments],
                              text=True, capture_output=True, check=False, timeout=30)

    def quality(self, site, provider, other):
        """What a site measures of its path to another one; empty if nothing."""
        ends = {"source": outside(provider, site, provider in self.v6_outside),
                "destination": outside(provider, other, provider in self.v6_outside)}
        # Not by navctl: to start a process many times a second would disturb what is measured.
        with socket.socket(socket.AF_UNIX) as control, contextlib.suppress(OSError):
            control.connect(f"{self.run_dir(site)}/control.sock")
            control.sendall(b'{"op":"quality"}\n')
            with control.makefile() as answers:
                rows = json.loads(answers.readline())["value"]
            return next((row for row in rows if ends.items() <= row.items()), {})
        return {}

    def paths_up(self, site):
        """How many paths of a site can carry traffic."""
        if not self.runs(site):
            raise RuntimeError(f"the agent of site {site} has ended: {self.log(site)}")
        shown = self.navctl(site, "--json", "show", "paths")
        if shown.returncode != 0:
            return -1
        return sum(path["state"].endswith("Estab")
                   for path in json.loads(shown.stdout)["navPathSelPaths"])


CHARON = "/usr/lib/ipsec/charon"
CHARON_CONF = """
charon {{
    load = random nonce aes sha1 sha2 hmac kdf gcm pem pkcs1 pkcs8 x509 constraints pubkey openssl \
        curve25519 {plugin} kernel-netlink socket-default vici
    install_routes = no
    process_route = no
    cookie_threshold_ip = 255
    block_threshold = 256
    retransmit_timeout = 1
    retransmit_tries = 3
    {group}
    plugins {{
        {own}
        vici {{ socket = unix://{socket} }}
    }}
}}
"""
# What has charon's mark is not encrypted again.
OWN_ESP = """
        kernel-libipsec { allow_peer_ts = yes }
        kernel-netlink { fwmark = !0x42 }
        socket-default { fwmark = 0x42 }"""

# Counts what the tunnels carry by the ports of the inner packet, whose header has no options.
COUNTING = f"""
table inet lab {{
    set carried {{ type ifname . mark; size 65535; flags dynamic; counter; }}
    chain carried {{
        type filter hook forward priority filter - 10;
        udp dport != {port} accept
        @th,128,4 4 meta mark set @th,288,32 update @carried {{ iifname . meta mark }}
        @th,128,4 6 meta mark set @th,448,32 update @carried {{ iifname . meta mark }}
    }}
    set clear {{ type ifname; size 65535; flags dynamic; counter; }}
    chain clear {{
        type filter hook prerouting priority raw;
        udp dport {{ {port}, 862 }} update @clear {{ iifname }}
        udp sport 862 update @clear {{ iifname }}
    }}
    chain degrade {{ type filter hook forward priority filter; }}
}}
"""

# The same of what has come to a router and has been decrypted, if it was encrypted.
COUNTING_DECRYPTED = f"""
table inet lab {{
    set carried {{ type ipv4_addr . mark; size 65535; flags dynamic; counter; }}
    chain carried {{
        type filter hook prerouting priority raw;
        udp dport != {port} accept
        @th,128,4 4 meta mark set @th,288,32 update @carried {{ ip saddr . meta mark }} meta mark set 0
        @th,128,4 6 meta mark set @th,448,32 update @carried {{ ip saddr . meta mark }} meta mark set 0
    }}
}}
"""
