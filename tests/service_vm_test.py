"""The packages on a Debian router from their installation to their purge, under systemd on Debian's own
kernel: service_vm_test.py BUILD_DIR SOURCE_DIR, in the virtual machine of `scripts/vm --systemd`, with the
packages in BUILD_DIR/packages.

The service is the agent of site 1 of the laboratory. Whatever becomes of it, packets from site 1 to site 2
arrive. They are secured, with the files of docs/ipsec.md, if this machine has charon-systemd.
"""
import contextlib
import glob
import json
import os
import re
import signal
import subprocess
import tempfile
import textwrap
import unittest

from products import Lab, Traffic, await_, build, main, read
from netlab import host

tempfile.tempdir = "/dev/shm"  # the root is an overlay, and charons have a /run of their own
names = "libnav1", "nav-agent", "navctl"
CAP_NET_ADMIN = 12
units = "/etc/systemd/system"
secured = ["internet"] if os.path.exists("/usr/sbin/charon-systemd") else []


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {(done.stdout + done.stderr)[-2000:]}")
    return done.stdout.strip()


def shown(what):
    return run("systemctl", "show", "--value", f"--property={what}", "nav-agent.service")


def journal():
    return run("journalctl", "--no-pager", "--output=cat", "--unit=nav-agent.service")


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def documented(path):
    """A file, as the documentation has it."""
    return textwrap.dedent(re.search(rf"`{path}`:\n\n((?:    .*\n)+)", read("docs/ipsec.md"))[1])


def earlier(package, directory):
    """The same package as of an earlier version."""
    tree = f"{directory}/{os.path.basename(package)}"
    run("dpkg-deb", "--raw-extract", package, tree)
    control = read(f"{tree}/DEBIAN/control")
    version = re.search(r"^Version: (.*)$", control, re.M)[1]
    write(f"{tree}/DEBIAN/control",
          re.sub(rf"(Version: |= ){re.escape(version)}\b", rf"\g<1>{version}~earlier", control))
    run("dpkg-deb", "--build", "-Znone", tree, f"{tree}.deb")
    return f"{tree}.deb"


class ServiceVmTest(unittest.TestCase):
    purged = False

    def setUp(self):
        # dpkg knows which packages this machine has, but not their files and triggers: to read those, and
        # to rebuild the databases of these, would take minutes.
        status = read("/var/lib/dpkg/status")
        run("mount", "-t", "tmpfs", "tmpfs", "/var/lib/dpkg")
        for part in "info", "triggers", "updates":
            os.mkdir(f"/var/lib/dpkg/{part}")
        write("/var/lib/dpkg/status", status)
        with contextlib.suppress(FileNotFoundError):
            os.remove("/usr/sbin/policy-rc.d")  # of a container, in which no service may be started
        self.later = [glob.glob(f"{build}/packages/{name}_*.deb")[0] for name in names]
        os.mkdir("/run/earlier")
        self.earlier = [earlier(package, "/run/earlier") for package in self.later]

    def configure(self, config):
        for unit in "nav-agent", "strongswan":
            write(f"{units}/{unit}.service.d/router.conf",
                  f"[Service]\nNetworkNamespacePath={self.lab.place('router1')}\n")
        write("/etc/default/nav-agent", 'NAV_AGENT_OPTIONS="--platform linux --config /etc/nav/config.json '
              f'--forwarding /etc/nav/forwarding.json{" --ipsec /etc/nav/ipsec.json" if secured else ""}"\n')
        write("/etc/nav/config.json", config)
        write("/etc/nav/forwarding.json", json.dumps(self.lab.forwarding(1)))
        run("systemctl", "daemon-reload")

    def start_secured(self):
        """First without the group that may use charon's socket."""
        settings, drop_in = "/etc/strongswan.d/nav.conf", f"{units}/nav-agent.service.d/ipsec.conf"
        write(drop_in, documented(drop_in))
        write(settings, documented(settings).replace("group = nav", ""))
        write("/run/ipsec.json", json.dumps(self.lab.ipsec()))
        run("install", "-o", "nav", "-g", "nav", "-m", "0600", "/run/ipsec.json", "/etc/nav/ipsec.json")
        for site in 2, 3:
            self.lab.start_charon(site)
        run("systemctl", "daemon-reload")
        run("systemctl", "start", "nav-agent")
        await_("charon is refused", lambda: "charon is not available: Permission denied" in run(
            "navctl", "show", "ipsec"), every=0.5)
        write(settings, documented(settings))
        run("systemctl", "restart", "strongswan")

    def await_agent(self, other_than):
        await_("the agent is another process", lambda: shown("MainPID") not in ("0", other_than), every=0.1)
        await_("all paths are up", lambda: (shown("ActiveState"), shown("StatusText")) == (
            "active", "4 of 4 paths are up"), every=0.2)

    def check_privileges(self):
        status = dict(line.split(":", 1) for line in read(f"/proc/{shown('MainPID')}/status").splitlines())
        self.assertEqual(status["Uid"].split()[0], run("id", "-u", "nav"))
        for kind in "CapEff", "CapPrm", "CapBnd":
            self.assertEqual(int(status[kind], 16), 1 << CAP_NET_ADMIN, kind)
        run("systemd-analyze", "security", "--no-pager", "--threshold=15", "nav-agent")
        run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no", "nav-agent.service")

    def costs_nothing(self, what, change, restarts=True):
        first, agent = len(self.flow.sent), shown("MainPID")
        change()
        if restarts:
            self.await_agent(other_than=agent)
        goal = len(self.flow.sent) + 50
        await_("more packets are sent", lambda: len(self.flow.sent) >= goal)
        self.traffic.settle()
        print(f"{what}: {self.flow.settled - first} packets sent, {self.flow.lost(first)} lost", flush=True)
        self.assertEqual(self.flow.lost(first), 0, what)

    def test_a_router_from_installation_to_purge(self):
        run("dpkg", "--install", *self.earlier)
        self.assertEqual(shown("ActiveState"), "inactive", "there is no configuration yet")
        with Lab("/usr/bin/nav-agent", "/usr/bin/navctl", secured=secured,
                 kernel_esp=True) as self.lab, Traffic(self.lab) as self.traffic:
            self.addCleanup(lambda: None if self.purged else print(journal()[-4000:]))
            self.live()

    def live(self):
        config = json.dumps(self.lab.configuration(1))
        self.configure(config)
        for site in 2, 3:
            self.lab.start_agent(site)
        if secured:
            self.start_secured()
        run("systemctl", "start", "nav-agent")
        self.await_agent(other_than="0")
        self.check_privileges()
        await_("the other sites' probes are answered",
               lambda: self.lab.quality(2, "internet", 1).get("alive"))
        self.flow = self.traffic.stream("web", ("host1", host(1)), ("host2", host(2), 443), 50)
        await_("packets arrive", lambda: self.flow.latest > 20)

        self.costs_nothing("reload", lambda: run("systemctl", "reload", "nav-agent"), restarts=False)
        await_("the reload is logged", lambda: "reload on SIGHUP" in journal())
        self.costs_nothing("restart", lambda: run("systemctl", "restart", "nav-agent"))
        self.costs_nothing("upgrade", lambda: run("dpkg", "--install", *self.later))
        self.assertNotIn("~", run("dpkg-query", "--show", *names))
        # An event loop that stops is noticed by the service manager alone.
        self.costs_nothing("hang", lambda: os.kill(int(shown("MainPID")), signal.SIGSTOP))
        self.assertEqual(shown("NRestarts"), "1", "by its watchdog")
        self.configure('{"navConfigured": maybe}')
        self.costs_nothing("refused reload", lambda: run("systemctl", "reload", "nav-agent"), restarts=False)
        await_("the refusal is logged", lambda: "config.json: line 1" in journal())
        self.costs_nothing("refused start", lambda: self.assertRaises(
            RuntimeError, run, "systemctl", "restart", "nav-agent"), restarts=False)
        self.configure(config)
        run("systemctl", "reset-failed", "nav-agent")  # it has been started too often by now
        self.costs_nothing("start", lambda: run("systemctl", "restart", "nav-agent"))
        self.traffic.stop()
        self.assertEqual([self.lab.clear(provider) for provider in secured], [{} for _ in secured])

        files = {path for path in run("dpkg-query", "--listfiles", *names).split("\n")
                 if path and not os.path.isdir(path)}
        self.assertGreater(len(files), 20)
        run("dpkg", "--purge", *names)
        files |= {"/var/lib/nav", "/run/nav", "/etc/default/nav-agent", "/usr/share/nav",
                  "/etc/systemd/system/multi-user.target.wants/nav-agent.service"}
        self.assertEqual([path for path in files if os.path.lexists(path)], [])
        self.assertEqual(shown("LoadState"), "not-found")
        for listed in (["nft", "list", "tables"], ["ip", "nexthop"], ["ip", "link", "show", "group", "110"],
                       ["ip", "xfrm", "state"]):
            left = self.lab.run("router1", *listed).replace("table inet lab\n", "")
            self.assertEqual(left, "", listed)
        self.assertTrue(os.path.exists("/etc/nav/config.json"), "it is the operator's")
        self.purged = True


if __name__ == "__main__":
    main()
