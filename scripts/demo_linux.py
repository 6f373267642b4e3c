"""The steps of scripts/demo --linux: demo_linux.py NAV_AGENT NAVCTL.

Real packets through the kernel of this machine, in network namespaces. Each stage has to be reached
before its deadline, or the demo fails and says what it waited for.
"""
import os
import signal
import socket
import sys
import time

from netlab import CHARON, Lab, Unavailable, await_, host, port, providers, sites
from traffic import Traffic, text

INTRODUCTION = """\
Three sites, each with a router and a host, are connected by two providers: an internet and an MPLS
network. An agent on each router brings a path up to each other site over each provider, and has the
kernel send every application over the paths that its policy prefers: voice over MPLS, the web over
the internet, either over the other one if there is no path; guests may use the internet only. Each
host sends 200 packets a second of each application to the next site."""

applications = {"voice": (5060, False), "web": (443, False), "guests": (7000, True)}  # port, guests'
ipv4 = 0x800  # the type of its frames
rate = 200  # packets a second of each stream


def kind_of(packet):
    """Whether a packet of IPv4 without options is encrypted (RFC 4303, RFC 3948) or one of a tunnel
    in clear text. None: another packet, as those of IKE are."""
    protocol, ports, marker = packet[9], packet[20:24], packet[28:32]
    if text in packet or (protocol == 17 and int.from_bytes(ports[2:]) == port):
        return "clear"
    esp = protocol == 50 or (protocol == 17 and int.from_bytes(ports[2:]) == 4500 and any(marker))
    return "encrypted" if esp else None


class Demo:
    def __init__(self, lab, traffic):
        self.lab, self.traffic = lab, traffic
        self.streams = {}
        for name, (port, guest) in applications.items():
            self.streams[name] = [
                traffic.stream(name, (f"host{site}", host(site, guest)),
                               (f"host{site % 3 + 1}", host(site % 3 + 1), port), rate)
                for site in sites]

    def paths(self, seconds):
        """The providers that carry each application, over some time from now."""
        before = self.lab.carried()
        goals = {stream: len(stream.sent) + int(seconds * rate) for stream in self.traffic.streams}
        await_("packets are sent", lambda: all(len(s.sent) >= goal for s, goal in goals.items()))
        now, found = self.lab.carried(), {}
        for name, (port, _) in applications.items():
            found[name] = [provider for provider in providers if any(
                packets > before.get(key, 0) for key, packets in now.items()
                if key[0] == provider and key[3] == port)]
        return found

    def stage(self, title, expected, change=lambda: None):
        """Changes something, awaits that each application takes the expected paths, and tells what
        that cost."""
        print(f"\n== {title}", flush=True)
        first = {stream: len(stream.sent) for stream in self.traffic.streams}
        start = time.monotonic()
        change()
        took = time.monotonic() - start
        await_(f"applications take {expected}", lambda: self.paths(0.1) == expected)
        last = self.paths(1.5)
        self.traffic.settle()
        print(f"   ({took * 1000:.0f} ms for the change itself)")
        print("   APPLICATION  OVER          PACKETS  LOST  LONGEST INTERRUPTION")
        for name, streams in self.streams.items():
            outages = [each for stream in streams for each in stream.outages(first[stream])]
            longest = f"{max(length for _, length in outages) * 1000:.0f} ms" if outages else "-"
            sent = sum(stream.settled - first[stream] for stream in streams)
            lost = sum(stream.lost(first[stream]) for stream in streams)
            print(f"   {name:12} {', '.join(last[name]) or 'no path':12} {sent:8} {lost:5}  {longest}",
                  flush=True)

    def capture(self):
        """Shows what can be seen of packets on their way, at each provider. Returns, by provider, the
        kinds of packets that were seen."""
        print(f"\n== What the providers see; hosts send \"{text.decode().strip()}\"", flush=True)
        print("   PROVIDER   ENCRYPTED  IN CLEAR TEXT  END OF A PACKET", flush=True)
        seen = {}
        for provider in providers:
            with self.lab.within(provider):
                tap = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(ipv4))
            found = seen[provider] = {"encrypted": [], "clear": []}
            with tap:
                tap.settimeout(10)
                while sum(map(len, found.values())) < 500:
                    packet, (_, _, direction, *_) = tap.recvfrom(2048)
                    if direction != socket.PACKET_OUTGOING and (kind := kind_of(packet)):
                        found[kind].append(packet)
            last = next(each for each in found.values() if each)[-1][-len(text):]
            print(f"   {provider:10} {len(found['encrypted']):9} {len(found['clear']):14}  "
                  + "".join(chr(each) if 32 <= each < 127 else "." for each in last), flush=True)
        return {provider: {kind for kind, packets in found.items() if packets}
                for provider, found in seen.items()}

    def prefer(self, web):
        """Has the agents read configurations in which the web prefers that provider."""
        for site in sites:
            changed = self.lab.configuration(site)
            changed["loadBalanceProfile"]["web"]["pathGroupPriority"] = {
                provider: 1 if provider == web else 2 for provider in providers}
            self.lab.configure(site, changed)

    def run(self):
        lab = self.lab
        usual = {"voice": ["mpls"], "web": ["internet"], "guests": ["internet"]}
        self.stage("All paths are up", usual)
        if lab.secured and self.capture() != {"internet": {"encrypted"}, "mpls": {"clear"}}:
            raise SystemExit("demo: the internet carries clear text, or MPLS does not")
        self.stage("MPLS fails: its links go down, one after the other", {**usual, "voice": ["internet"]},
                   lambda: lab.links("mpls", "down"))
        self.stage("MPLS comes back", usual, lambda: lab.links("mpls", "up"))
        self.stage("The internet fails; guests may not use MPLS",
                   {"voice": ["mpls"], "web": ["mpls"], "guests": []},
                   lambda: lab.links("internet", "down"))
        self.stage("The internet comes back", usual, lambda: lab.links("internet", "up"))
        self.stage("The internet degrades: it drops a tenth of all packets", usual,
                   lambda: lab.degrade("internet", 10))
        moved = {**usual, "web": ["mpls"]}
        self.stage("The operator has the web prefer MPLS", moved, lambda: self.prefer("mpls"))
        self.stage("The internet is as good as before", moved, lambda: lab.degrade("internet", 0))
        self.stage("The operator takes the preference back", usual, lambda: self.prefer("internet"))
        print(f"\n$ navctl show counters    (at site 1)\n{lab.navctl(1, 'show', 'counters').stdout}")
        self.traffic.stop()
        for site in sites:
            if lab.end_agent(site) != 0:
                raise SystemExit(f"demo: the agent of site {site} failed: {lab.log(site)}")
        print("== The agents have removed everything from the kernel and ended")


def main():
    # So that the laboratory is taken down whatever asks this process to end.
    for ending in signal.SIGTERM, signal.SIGHUP:
        signal.signal(ending, lambda number, _: sys.exit(128 + number))
    sys.setswitchinterval(0.0005)  # so that packets are sent in time
    secured = ["internet"] if os.path.exists(CHARON) else []
    print(INTRODUCTION, flush=True)
    print("Paths over the internet are secured by IPsec." if secured else
          f"Paths are not secured by IPsec: {CHARON} not found (package strongswan-charon).", flush=True)
    start = time.monotonic()
    try:
        with Lab(*sys.argv[1:3], secured=secured) as lab, Traffic(lab) as traffic:
            lab.start_agents()
            print(f"\nAll paths are up {time.monotonic() - start:.1f} s after the start", flush=True)
            Demo(lab, traffic).run()
    except Unavailable as reason:
        print(f"demo: {reason}", file=sys.stderr)
        sys.exit(77)  # as tests are skipped


main()
