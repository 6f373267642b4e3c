"""The programs together, as an operator runs them: product_test.py BUILD_DIR SOURCE_DIR.

The shared tables from start to stop, crashes included; run directories and configuration files; what
tables show; the log; what a broken invariant leaves behind. Each case has run directories of its own.
"""
import json
import os
import pwd
import re
import signal
import subprocess

from products import Products, await_, branch, document, main, patience, read, write


def tables_of(run_dir):
    """The shared tables of the directory's agent and forwarder, by name."""
    return {name: os.stat(f"{run_dir}/{name}").st_ino for name in os.listdir(run_dir)
            if name.startswith("shard.")}


class ProductTest(Products):
    def counters(self, run_dir):
        """The rows of paths' counters; empty when nobody writes them."""
        shown = self.navctl(run_dir, "--json", "show", "counters")
        rows = document(shown.stdout, "show", "counters") if shown.returncode == 0 else []
        return [row for row in rows if row["path"] != "all"]

    def test_every_document_is_as_its_schema_says(self):
        run_dir, other = self.run_dir(), "examples/two-providers/config.json"
        self.agent(run_dir, *branch)
        self.start(run_dir, "nav-forwarder")
        await_("counters come", lambda: self.counters(run_dir))
        await_("what is measured has a history", lambda: self.navctl(
            run_dir, "--json", "show", "quality", "Path5", "--graph").stdout.count(".") > 0)
        views = self.navctl(run_dir, "__complete", "--", "show", "").stdout.split()
        for command in [("show", view) for view in views if view != "forwarding"] + [
                ("show", "history", "1"), ("show", "quality", "Path5", "--graph"), ("explain",),
                ("validate",), ("load", "--dry-run", other), ("log",), ("ping",), ("trace",)]:
            self.assertTrue(self.shown(run_dir, *command), command)
        self.assertTrue(self.shown(run_dir, "diff", other, status=1))
        self.assertEqual(self.navctl(run_dir, "__complete", "--", "explain", "application", "").stdout,
                         "backup\ndefault\nvoice\n")
        again = self.start(run_dir, "navctl", "--json", "explain", "path", "wan1", "--watch",
                           stdout=subprocess.PIPE)
        for _ in range(2):
            self.assertEqual(len(document(again.stdout.readline(), "explain")["paths"]), 4)

    def test_tables_live_as_long_as_their_writers(self):
        here, there = self.run_dir(), self.run_dir()
        agent, forwarder = self.agent(here, *branch), self.start(here, "nav-forwarder")
        row = await_("a path carries traffic", lambda: [
            row for row in self.counters(here) if row["packets"] > 0])[0]
        self.assertGreater(row["bytes"], row["packets"])
        row = await_("its rate is known", lambda: [
            row for row in self.counters(here) if row["packets/s"] > 0])[0]
        self.assertAlmostEqual(row["bits/s"] / row["packets/s"], 8 * row["bytes"] / row["packets"],
                               delta=row["bytes"] / row["packets"])
        watch = self.start(here, "navctl", "--json", "show", "counters", "--watch",
                           stdout=subprocess.PIPE)
        self.navctl(here, "set", "/cliConfig/loadBalanceProfile[realtime]/pathGroupPriority[mpls]",
                    "3")
        await_("a path that voice has left has no rate any more", lambda: any(
            row["app"] == 1 and row["path"] != "all" and row["packets"] and not row["packets/s"]
            for row in json.loads(watch.stdout.readline())))
        mine = tables_of(here)
        self.assertEqual(sorted(mine), ["shard.fib", "shard.fib6", "shard.lbProfileCounter"])
        self.agent(there, *branch)
        theirs = tables_of(there)
        self.assertEqual(sorted(theirs), ["shard.fib", "shard.fib6"])
        self.assertEqual(self.navctl(there, "show", "counters").returncode, 3)
        self.assertEqual(self.start(here, "nav-forwarder").wait(patience), 1)
        self.assertIn("nav-forwarder: ", self.errors(here))

        # The tables outlive the crash of their writers, who take them over when they are back.
        self.stop(agent, signal.SIGKILL)
        self.assertTrue(self.counters(here), "the forwarder goes on without the agent")
        self.stop(forwarder, signal.SIGKILL)
        self.assertEqual(tables_of(here), mine)
        agent, forwarder = self.agent(here, *branch), self.start(here, "nav-forwarder")
        await_("traffic is back", lambda: self.counters(here))
        self.assertEqual(tables_of(here), mine)

        # Whoever breaks a table under its living writer costs it nothing.
        os.truncate(f"{here}/shard.lbProfileCounter", 100)
        await_("traffic goes on", lambda: self.counters(here))

        self.assertEqual((self.stop(forwarder), self.stop(agent)), (0, 0))
        self.assertEqual((tables_of(here), tables_of(there)), ({}, theirs))
        self.assertEqual(self.navctl(here, "show", "counters").returncode, 3)

    def test_tables_show_what_the_router_does(self):
        run_dir, long = self.run_dir(), "long" * 400  # makes answers of far more than 64 KiB
        config = json.loads(read("examples/branch/branch.json").replace('"internet"', f'"{long}"'))
        config["pathGroupConfig"][long]["remoteViaConfig"]["10.255.9.9"] = {
            "remoteVia": [f"10.99.0.{i}" for i in range(100, 200)]}
        world = json.loads(read("examples/branch/world.json"))
        del world["events"][1:]  # the paths come up and stay
        self.agent(run_dir, f"--config={write(f'{run_dir}/config.json', config)}",
                   f"--world={write(f'{run_dir}/world.json', world)}")

        def table(name):
            lines = self.navctl(run_dir, "show", name).stdout.splitlines()[1:]
            return [re.split(r" {2,}", line) for line in lines]

        await_("paths are up", lambda: [row[4][-5:] for row in table("paths")].count("Estab") == 7)
        address = "203.0.113.1|198.51.100.13"
        for name, count, row in (
                ("paths", 107, f"{long}|{address}|10.255.0.3|Ipsec Estab|Path3"),
                ("peers", 107, "Path3|10.255.0.3"),
                ("mappings", 111, f"path group|Path3|{long}"),
                ("mappings", 111, "vrf, application|0,2|default, backup"),
                ("groups", 2, f"{long}|wan1|overlay|4|104"),
                ("policies", 4, "office|default|20|backup|2|bulk"),
                ("policies", 4, "office|default|default|-|-|bulk"),
                ("ipsec", 104, f"default|{address}|overlay|wan1|Path3|established|3|-|-|-|-|-|-|-"),
                ("nexthops", 107, "default|198.51.100.13|resolved|2|203.0.113.254 wan1"),
                ("nexthops", 107, "default|10.99.0.150|unresolved|-|-"),
                ("sites", 7, f"{long}|10.255.0.3|198.51.100.3, 198.51.100.13|Path2, Path3"),
                ("load-balance", 25, f"10.255.0.3|default|voice|4|3|150|30|1|2|Path3|{long}"),
                ("vrfs", 2, "default|0|wan1, wan2|office|107")):
            rows = ["|".join(row) for row in table(name)]
            self.assertIn(row, rows)
            self.assertEqual(len(rows), count, (name, rows[-10:]))
        row = next(row for row in table("quality") if row[2] == "192.0.2.130")
        self.assertEqual(row[1:6] + row[8:],
                         ["192.0.2.1", "192.0.2.130", "default", "yes", "alive", "1.0", "0.0", "0.0"])
        self.assertAlmostEqual(float(row[6]), 18, delta=0.5)
        await_("the graph begins", lambda: re.search(
            r"\nround trip, ms: 18\n +1[89] │█+\n",
            self.navctl(run_dir, "show", "quality", row[0], "--graph").stdout))
        self.assertEqual(self.navctl(run_dir, "show", "quality", "Path999").returncode, 1)
        for last in (1, 3):
            lines = self.navctl(run_dir, "trace", "--last", str(last)).stdout.splitlines()
            self.assertEqual(len(lines), last)

    def test_the_log_says_what_happened(self):
        run_dir = self.run_dir()
        agent = self.agent(run_dir, *branch)
        await_("paths are up", lambda: self.errors(run_dir).count(" is up by ") == 7)
        group = "/cliConfig/pathGroupConfig[mpls]"
        self.assertEqual(self.navctl(run_dir, "del", group).returncode, 0)
        self.assertEqual(self.navctl(run_dir, "get", group).returncode, 1, "it is gone")
        await_("the reason is logged", lambda: re.search(
            r"agent:5 path Path\d+ 192\.0\.2\.1 -> 192\.0\.2\.130 \(mpls, 10\.255\.0\.2\) is down: "
            "path group mpls is not configured", self.errors(run_dir)))
        await_("a link fails", lambda: "is down: interface wan1 is down" in self.errors(run_dir))
        explained = self.shown(run_dir, "explain", "path", "Path1")
        self.assertEqual([(row["interface"], row["state"], row["reason"])
                          for row in explained["paths"]],
                         [("wan1", "down", "interface wan1 is down")])
        self.assertIn("Path1, priority 1: interface wan1 is down",
                      self.navctl(run_dir, "explain", "application", "backup").stdout)
        self.assertEqual(self.navctl(run_dir, "explain", "site", "10.9.9.9").returncode, 1)
        rows = self.shown(run_dir, "show", "interfaces")
        self.assertEqual([(row["interface"], row["state"], row["pathsUp"]) for row in rows],
                         [("lan1", "up", 0), ("wan1", "down", 0), ("wan2", "up", 0)])
        events = self.shown(run_dir, "show", "events")
        self.assertEqual([(event["by"].split(",")[0], event["user"]) for event in events
                          if event["event"] == "del " + json.dumps(group)],
                         [(f"uid {os.getuid()}", pwd.getpwuid(os.getuid()).pw_name)])
        self.assertLessEqual({"agent", "configuration", "interface", "path", "choice"},
                             {event["kind"] for event in events})
        self.assertEqual(self.stop(agent), 0)
        self.assertTrue(self.errors(run_dir).endswith("agent:5 nav-agent stopped\n"))
        self.assertEqual(self.errors(run_dir).count(" is up by "), 7, "once for each path")

    def test_one_agent_to_a_run_directory_whatever_a_crashed_one_left(self):
        run_dir = self.run_dir()
        crashed = self.agent(run_dir)
        self.assertEqual(os.stat(f"{run_dir}/control.sock").st_mode & 0o777, 0o600)
        watch = self.start(run_dir, "navctl", "watch", "/cliConfig", stdout=subprocess.PIPE)
        self.assertTrue(watch.stdout.readline())
        refused = self.run_to_end("nav-agent", "--run-dir", run_dir)
        self.assertEqual(refused.returncode, 1)
        self.assertIn(f"another agent is running there (pid {crashed.pid})", refused.stderr)
        self.assertEqual(self.navctl(run_dir, "ping").returncode, 0, "left alone by the refused one")
        self.stop(crashed, signal.SIGKILL)
        self.assertEqual(watch.wait(patience), 3)
        self.assertIn("navctl: the agent stopped", self.errors(run_dir))
        for by in (signal.SIGTERM, signal.SIGINT):
            agent = self.agent(run_dir)
            agent.send_signal(signal.SIGHUP)  # without a file there is nothing to load again
            self.assertEqual(self.stop(agent, by), 0)
            self.assertFalse([name for name in os.listdir(run_dir) if name.endswith(".sock")])

    def test_what_cannot_run_says_why(self):
        run_dir = self.run_dir()
        file = write(f"{run_dir}/file", '{\n  "a": 1,\n  "b": }\n')
        world = write(f"{run_dir}/world", '{"vrfs": {"a": {"id": 7},\n"b": {"id": 7}}}')
        for arguments, status, reason in (
                (["--run-dir", run_dir, "--world", world], 1,
                 world + ': line 2: /vrfs/b: has the same id as VRF "a"'),
                (["--log-level", "9"], 2, "--log-level"),
                (["--world", "w", "--platform", "manual"], 2, "--world"),
                (["--forwarding", "f"], 2, "only --platform linux forwards"),
                (["--run-dir", file], 1, file + ": Not a directory"),
                (["--run-dir", f"{run_dir}/{'x' * 90}"], 1, "107 bytes"),
                (["--run-dir", run_dir, "--config", run_dir + "/none"], 1, "No such file"),
                (["--run-dir", f"{run_dir}/new", "--config", file], 1, file + ": line 3"),
                (["--run-dir", run_dir, "--config", run_dir], 1, run_dir + ": Is a directory")):
            done = self.run_to_end("nav-agent", *arguments)
            self.assertEqual(done.returncode, status, done.stderr)
            self.assertIn(reason, done.stderr)
        self.assertEqual(os.stat(f"{run_dir}/new").st_mode & 0o777, 0o700)

    def test_a_hang_up_loads_both_files_or_neither_and_shows_no_key(self):
        alone = ["unshare", "--user", "--map-root-user", "--net"]
        if subprocess.run([*alone, "true"], check=False).returncode != 0:
            self.skipTest("user namespaces are refused")
        run_dir = self.run_dir()
        names = [f"{run_dir}/{name}.json" for name in ("config", "forwarding")]

        def configure(udp_port, probe):
            write(names[0], {"udpPortConfig": udp_port})
            write(names[1], probe)

        configure(1, '{"probe": {"key": "s3cret"}}')
        agent = self.agent(run_dir, "--platform", "linux", "--config", names[0], "--forwarding",
                           names[1], under=alone)
        for probe, reason in (('{"probe":\n{"key": "s3cret', "line 2, column"),
                              ('{"probe":\n{"key": "s3cret", "window": 5}}',
                               "line 2: /forwardingConfig/probe/window: expected milliseconds")):
            configure(2, probe)
            agent.send_signal(signal.SIGHUP)
            await_("it is refused", lambda: f"{names[1]}: {reason}" in self.errors(run_dir))
        self.assertEqual(self.navctl(run_dir, "get", "/cliConfig/udpPortConfig").stdout, "1\n")
        configure(2, '{"probe": {"key": "s3cret", "window": 600}}')
        agent.send_signal(signal.SIGHUP)
        await_("both are loaded", lambda: self.navctl(
            run_dir, "get", "/forwardingConfig/probe/window").stdout == "600\n")
        self.assertEqual(self.navctl(run_dir, "get", "/cliConfig/udpPortConfig").stdout, "2\n")
        self.assertNotIn("s3cret", self.errors(run_dir))

    def test_a_broken_invariant_leaves_its_trace(self):
        run_dir = self.run_dir()
        agent = self.agent(run_dir, "--platform", "manual", "--log-level", "8")
        group = {"name": "internet", "localIntf": ["wan1"], "remoteViaConfig": {
            "10.255.0.2": {"remoteVia": [f"198.51.{i // 100}.{i % 100 + 1}" for i in range(129)]}}}
        sets = {"/ipStatusDir/ipIntfStatus[wan1]/activeAddrWithMask": "203.0.113.1/24",
                "/cliConfig/pathGroupConfig[internet]": group, "/cliConfig/navConfigured": True}
        requests = "".join(json.dumps({"op": "set", "path": path, "value": value}) + "\n"
                           for path, value in sets.items())
        self.assertNotEqual(self.navctl(run_dir, "batch", "-", input=requests).returncode, 0)
        self.assertEqual(agent.wait(patience), -signal.SIGABRT)
        self.assertIn("assertion failed: ", self.errors(run_dir))
        self.assertIn("198.51.1.28", read(f"{run_dir}/postmortem.trace"))
        self.assertEqual(self.stop(self.agent(run_dir)), 0)


if __name__ == "__main__":
    main()
