"""The steps of scripts/demo: demo.py NAV_AGENT NAVCTL NAV_FORWARDER EXAMPLE_DIR.

Runs an agent on the simulated network and prints its reports as they arrive. Each stage must be
reached before its deadline, or the demo fails and names the unmet condition.
"""
import collections
import json
import os
import re
import selectors
import subprocess
import sys
import tempfile
import time

agent_program, navctl_program, forwarder_program, example = sys.argv[1:]
patience = 60  # seconds for a stage
run_dir = tempfile.TemporaryDirectory(prefix="nav-demo-")
start = time.monotonic()
processes = []
selector = selectors.DefaultSelector()

INTRODUCTION = """\
A branch router has two WAN links: wan1 to the internet, wan2 to an MPLS network. It reaches three
remote sites over both, by IPsec over the internet. The agent brings up a path for each pair of
addresses, measures the paths, and steers each application over those that its policy prefers: voice
over MPLS while that loses at most 1 %, the rest over the internet; guests, in VRF blue, may use the
internet only. A forwarder, a separate
process, sends packets accordingly and counts them in shared memory, where navctl reads them.

The states of a path:
  Route Pending   no route to the far end
  Ipsec Pending   route found; the IPsec connection is being established
  Arp Pending     waiting for the gateway's answer and for hardware programming
  Estab, Ipsec Estab   the path carries traffic, without or with IPsec"""


class Feed:
    """A process whose output is read line by line, each with its handler."""

    def __init__(self, name, process, stream, handler):
        processes.append(process)
        self.name, self.process, self.stream, self.handler = name, process, stream, handler
        self.lines, self.rest = collections.deque(), b""
        os.set_blocking(stream.fileno(), False)
        selector.register(stream, selectors.EVENT_READ, self)

    def read(self):
        data = self.stream.read()
        if not data:
            raise SystemExit(f"demo: the {self.name} ended before its time")
        *lines, self.rest = (self.rest + data).split(b"\n")
        self.lines.extend(line.decode() for line in lines)


def reach(what, conditions):
    """Handles the lines of each feed until its condition holds. Later lines belong to the next
    stage, however slow this process is."""
    end = time.monotonic() + patience
    while conditions:
        for feed in list(conditions):
            while feed.lines and feed in conditions:
                feed.handler(feed.lines.popleft())
                if conditions[feed]():
                    del conditions[feed]
        if conditions:
            ready = selector.select(end - time.monotonic())
            if not ready:
                names = ", ".join(feed.name for feed in conditions)
                raise SystemExit(f"demo: waited {patience} s in vain until {what} ({names})")
            for key, _ in ready:
                key.data.read()


def tell(kind, text):
    print(f"{(time.monotonic() - start) * 1000:7.0f} ms  {kind:8} {text}", flush=True)


def navctl(*arguments, **options):
    return subprocess.run([navctl_program, "--run-dir", run_dir.name, *arguments], check=True,
                          stdout=subprocess.PIPE, text=True, **options).stdout


def show(view):
    print(f"\n$ navctl show {view}\n{navctl('show', *view.split())}", end="", flush=True)


def path_to(destination):
    rows = json.loads(navctl("--json", "show", "quality"))
    return next(row["path"] for row in rows if row["destination"] == destination)


def watch(path, handler):
    process = subprocess.Popen([navctl_program, "--run-dir", run_dir.name, "watch", path],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    feed = Feed(f"watch on {path}", process, process.stdout, lambda value: None)
    reach("the watch begins", {feed: lambda: True})  # with the value there is
    feed.handler = lambda line: handler(json.loads(line))
    return feed


traffic = {}  # what is steered where: the newest line of each site, application and VRF
network = []  # what happened to the links
paths = {}  # the status of each, and its state in a word
usable = set()  # the paths of each group and site


def handle_log(line):
    match = re.search(r" (sim|agent|router):[45] (.*)", line.rstrip())
    if not match:
        print(line, file=sys.stderr)
        return
    text = match[2]
    if match[1] != "sim":
        tell({"agent": "agent", "router": "choice"}[match[1]], text)
        return
    if " now over " in text:
        who, where = text.split(" now over ")
        traffic[who] = where
        tell("traffic", text)
    else:
        network.append(text)
        tell("network", text)


def state_of(status):
    """The state word of the show command."""
    info = status["pathInfo"]
    secured = info["pathType"] == "securedPath"
    if status["programmed"]:
        return "Ipsec Estab" if secured else "Estab"
    if info["pathState"] == "resolved":
        return "Arp Pending"
    if not info["via"]["intfId"]:
        return "Route Pending"
    return "Ipsec Pending" if secured else "Unknown"


def handle_path(event):
    match = re.search(r"/pathStatusEntry\[([^]]*)\](?:/(\w+))?$", event["path"])
    if not match or event["event"] == "del":
        return
    path = paths.setdefault(match[1], {"state": ""})
    if match[2]:
        path["status"][match[2]] = event["value"]
    else:
        path["status"] = event["value"]
    index = path["status"]["pathInfo"]["pathIndex"]  # 0 until resolution has seen the path
    before, path["state"] = path["state"], state_of(path["status"]) if index else ""
    if path["state"] != before:
        source, destination, _ = match[1].split(",")
        tell("path", f"Path{index} {source} -> {destination}: {path['state']}")


def handle_site(event):
    match = re.search(r"Entry\[([^,]*),([^]]*)\]/pathIndexEntry\[(\d+)\]$", event["path"])
    if match:
        there = event["event"] == "set"
        (usable.add if there else usable.discard)(match.groups())
        tell("site", f"site {match[2]} {'can use' if there else 'has lost'} Path{match[3]} of "
                     f"group {match[1]}")


def states():
    return collections.Counter(path["state"] for path in paths.values())


def steered(*expected):
    """Whether each pair of patterns (who, where) matches the traffic of all three sites."""
    return all(sum(bool(re.search(who, w)) and bool(re.search(where, to))
                   for w, to in traffic.items()) == 3 for who, where in expected)


def main():
    print(INTRODUCTION)
    print("\n== The agent starts and gets its configuration", flush=True)
    agent = subprocess.Popen([agent_program, "--platform", "sim", "--world",
                              f"{example}/world.json", "--run-dir", run_dir.name],
                             stderr=subprocess.PIPE)
    log = Feed("agent", agent, agent.stderr, handle_log)
    end = time.monotonic() + patience
    while subprocess.run([navctl_program, "--run-dir", run_dir.name, "ping"],
                         capture_output=True).returncode != 0:
        if agent.poll() is not None or time.monotonic() > end:
            raise SystemExit("demo: the agent does not answer")
    forwarder = subprocess.Popen([forwarder_program, "--run-dir", run_dir.name])
    processes.append(forwarder)
    path_feed = watch("/navStatusDir/navPathStatusDir", handle_path)
    site_feed = watch("/siteGroupStatus", handle_site)
    navctl("load", f"{example}/branch.json")
    at_best = [("voice", "mpls"), ("backup", "internet"), ("blue", "internet"),
               (r"(backup|default) to .*\.3", "Path.*Path")]
    reach("all is up", {
        log: lambda: steered(*at_best),
        path_feed: lambda: states() == {"Estab": 3, "Ipsec Estab": 4},
        site_feed: lambda: len(usable) == 7})
    show("paths")
    show("load-balance")
    show("counters")

    print("\n== The internet link fails", flush=True)
    reach("all has followed", {
        log: lambda: network[-1:] == ["link wan1 is down"] and
        steered(("voice", "mpls"), ("backup", "mpls"), ("blue", "no path")),
        path_feed: lambda: states() == {"Estab": 3, "Route Pending": 4},
        site_feed: lambda: len(usable) == 3})
    show("paths")
    show("counters")

    print("\n== The internet link comes back", flush=True)
    reach("all is as before", {
        log: lambda: network[-1:] == ["link wan1 is up"] and steered(*at_best),
        path_feed: lambda: states() == {"Estab": 3, "Ipsec Estab": 4},
        site_feed: lambda: len(usable) == 7})
    show("sites")

    print("\n== The MPLS network loses packets", flush=True)
    reach("voice has left it, and nothing else", {
        log: lambda: "loss 5 % forward" in network[-1] and
        steered(("voice", "internet"), *at_best[1:])})
    show("quality")
    show("counters")

    print("\n== It is good again", flush=True)
    reach("voice is back", {
        log: lambda: "loss 0 % forward" in network[-1] and steered(*at_best)})
    show(f"quality {path_to('192.0.2.130')} --graph")

    print("\n== Forwarder and agent are told to stop", flush=True)
    for name, process in (("forwarder", forwarder), ("agent", agent)):
        process.terminate()
        if process.wait(patience) != 0:
            raise SystemExit(f"demo: the {name} ended with status {process.returncode}")
        tell(name, "has torn everything down and ended")


try:
    main()
finally:
    for process in processes:
        if process.poll() is None:
            process.kill()
        process.wait()
    run_dir.cleanup()
