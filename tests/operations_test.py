"""Operating a running router: operations_test.py BUILD_DIR SOURCE_DIR.

Changes of the configuration that are looked at first, confirmed, returned from and undone.
"""
import json
import os
import re
import signal

from products import Products, await_, main, read, source, write


class OperationsTest(Products):
    def setUp(self):
        super().setUp()
        self.directory = self.run_dir()

    def router(self, *options):
        """The branch with files of this test, when all its paths are up, as they stay."""
        world = json.loads(read("examples/branch/world.json"))
        del world["events"][1:]
        self.options = [f"--config={self.file('config', self.config)}",
                        f"--world={self.file('world', world)}", f"--history={self.directory}/history"]
        self.process = self.agent(self.directory, *self.options, *options)
        await_("the paths are up", lambda: [
            path["state"] for path in self.ask("explain")["paths"]] == ["up"] * 7)

    @property
    def config(self):
        return json.loads(read("examples/branch/branch.json"))

    def file(self, name, config):
        return write(f"{self.directory}/{name}", "// what this is for\n" + json.dumps(config))

    def says(self, *arguments, status=0, err=""):
        done = self.navctl(self.directory, *arguments)
        self.assertEqual(done.returncode, status, (arguments, done.stderr))
        self.assertIn(err, done.stderr, arguments)
        return done.stdout

    def ask(self, *arguments, status=0):
        return self.shown(self.directory, *arguments, status=status)

    def states(self):
        return [(row["number"], row["state"]) for row in self.ask("show", "history")]

    def test_a_change_is_looked_at_confirmed_and_undone(self):
        self.router()
        without = self.config
        del without["pathGroupConfig"]["mpls"]
        without["pathGroupConfig"]["internet"]["localIntf"].append("wan3")
        without["udpPortConfig"] = 4000
        without = self.file("without", without)

        # Looked at: nothing of it happens.
        self.assertEqual(self.says("diff"), "")
        changes = self.ask("diff", without, status=1)
        self.assertEqual([(change["path"], change["before"], change["after"]) for change in changes
                          if change["path"] != "/cliConfig/pathGroupConfig[mpls]"],
                         [("/cliConfig/udpPortConfig", 4793, 4000),
                          ("/cliConfig/pathGroupConfig[internet]/localIntf[wan3]", None, True)])
        self.assertIn("\n- /cliConfig/pathGroupConfig[mpls] {", self.says("diff", without, status=1))
        foreseen = self.ask("load", "--dry-run", without)
        self.assertEqual([change | {"schemaVersion": 1} for change in foreseen["configuration"]], changes)
        self.assertEqual(
            sorted((path["change"], path["interface"], path["destination"], path["state"])
                   for path in foreseen["paths"]),
            [("added", "wan3", f"198.51.100.{i}", None) for i in (13, 2, 3, 4)] +
            [("removed", "wan2", f"192.0.2.{i}", "up") for i in (130, 131, 132)])
        carriers = {(row["application"], row["site"]): row for row in self.ask("explain")["applications"]
                    if row["vrf"] == "default"}
        self.assertEqual([(row["application"], row["site"]) for row in foreseen["traffic"]],
                         [("voice", f"10.255.0.{i}") for i in (2, 3, 4)])
        for row in foreseen["traffic"]:
            self.assertEqual(row["from"], carriers[row["application"], row["site"]]["paths"])
            self.assertEqual(row["to"], carriers["backup", row["site"]]["paths"], "the internet's")
        self.assertEqual(self.ask("load", "--dry-run", f"{self.directory}/config"),
                         {"schemaVersion": 1, "configuration": [], "paths": [], "traffic": []})
        self.assertIn("PATH GROUP", self.says("load", "--dry-run", without))
        self.assertEqual((self.says("diff"), self.states()), ("", [(1, "running")]))

        # Not confirmed in time: the agent returns, and says so.
        self.says("load", "--confirm", "5", without, err="names path group")
        self.assertEqual(self.states(), [(1, None), (2, "unconfirmed")])
        for refused in (("load", without), ("set", "/cliConfig/udpPortConfig", "5")):
            self.says(*refused, status=1, err="waits for its confirmation")
        self.process.send_signal(signal.SIGHUP)
        await_("a reload is refused", lambda: "configuration refused: " in self.errors(self.directory))
        for row in foreseen["traffic"]:
            explained = self.ask("explain", "application", row["application"])["applications"]
            self.assertIn(row["to"], [now["paths"] for now in explained if now["site"] == row["site"]])
        await_("the agent returns", lambda: self.states()[-1] == (3, "running"))
        self.assertEqual(self.says("diff"), "")
        self.assertIn("not confirmed within 5 s", self.errors(self.directory))
        self.assertIn(("returned to the one before", "not confirmed within 5 s", None),
                      [(event["event"], event["cause"], event["by"])
                       for event in self.ask("show", "events")])
        self.says("confirm", status=1, err="no configuration waits")

        # Refused by the operator, then confirmed, then undone.
        self.says("load", "--confirm", "3600", without)
        self.says("confirm", "--no")
        self.assertEqual(self.says("diff"), "")
        self.says("load", "--confirm", "3600", without)
        self.says("confirm")
        self.says("set", "/cliConfig/udpPortConfig", "7")
        rows = self.ask("show", "history")
        self.assertEqual([row["state"] for row in rows], [None] * 6 + ["running"])
        self.assertTrue(rows[-1]["by"].startswith(f"uid {os.getuid()}, pid "))
        self.assertEqual(self.ask("show", "history", "7")["changes"],
                         [{"path": "/cliConfig/udpPortConfig", "before": 4000, "after": 7}])
        self.says("load", "--from-history", "1")
        self.assertEqual(self.says("diff"), "")
        self.says("load", "--from-history", "99", status=1, err="entry 99 of the history: not found")
        many = "".join(json.dumps({"op": "set", "path": "/cliConfig/udpPortConfig", "value": value}) +
                       "\n" for value in range(1000, 1100))
        done = self.navctl(self.directory, "batch", "-", input=many)
        self.assertEqual(done.returncode, 0)
        self.assertIn("the last of 100 changes", self.ask("show", "history")[-1]["change"])
        for port in range(2000, 2010):
            self.says("set", "/cliConfig/udpPortConfig", str(port))
        self.assertEqual([number for number, _ in self.states()], list(range(10, 20)))

    def test_a_restart_returns_from_an_unconfirmed_configuration(self):
        self.router()
        other = self.config
        other["udpPortConfig"] = 4000
        # The agent's own file is the new one already.
        own = self.file("config", other)
        self.assertEqual(len(self.ask("diff", status=1)), 1)
        self.says("load", "--confirm", "3600", own)
        self.assertEqual(os.stat(f"{self.directory}/history").st_mode & 0o777, 0o600)
        self.stop(self.process, signal.SIGKILL)
        self.process = self.agent(self.directory, *self.options)
        self.assertEqual(self.states()[-1], (3, "running"))
        self.assertEqual(self.ask("diff", status=1)[0]["before"], 4793)
        self.assertIn("the last was not confirmed", self.errors(self.directory))
        # What was confirmed, or is the same, makes no new entry.
        self.says("load", "--confirm", "3600", own)
        self.says("confirm")
        self.stop(self.process)
        self.process = self.agent(self.directory, *self.options)
        self.assertEqual(self.says("diff"), "")
        self.assertEqual(self.states()[-1], (4, "running"))
        # A damaged file is reported and left as it is.
        self.stop(self.process)
        write(f"{self.directory}/history", "{")
        self.process = self.agent(self.directory, *self.options)
        self.assertIn("is not kept in", self.errors(self.directory))
        self.assertEqual(self.states(), [(1, "running")])
        self.assertEqual(os.stat(f"{self.directory}/history").st_size, 1)

    def test_comments_are_read_and_not_lost(self):
        self.router()
        own = f"{self.directory}/config"
        commented = read(own)
        self.says("save", own, status=1, err="it has comments")
        self.assertEqual(read(own), commented)
        bad = write(f"{self.directory}/bad",
                    '// one\n/* two\n three */ {\n"vrfConfig": {"v": {"policy": 1}}}')
        self.says("check", bad, status=1, err=f"{bad}: line 4: /cliConfig/vrfConfig[v]/policy")
        self.says("save", "--force", own)
        self.assertEqual(self.says("diff", own), "")
        self.says("save", own)

    def test_the_reference_is_complete_and_its_ranges_hold(self):
        page = self.run_to_end("navctl", "reference").stdout
        self.assertEqual(read("docs/reference.md"), page, "navctl reference > docs/reference.md")
        options = {"cliConfig": (), "forwardingConfig": ("--forwarding",), "ipsecConfig": ("--ipsec",)}

        def accepted(root, path, value):
            """Whether a configuration with this value, or this key, at a path is valid."""
            config = {"cliConfig": {}, "ipsecConfig": {"profile": {"1": {"presharedKey": "x"}}},
                      "forwardingConfig": {"vrf": {"1": {"vni": 1, "address": "10.255.0.1/24"}},
                                           "probe": {"window": 3600000}}}[root]
            at, steps = config, path.replace("/", " ").replace("[", " ").replace("]", "").split()
            if path.endswith("]"):
                steps, value = [*steps[:-1], str(value)], {}
            keys = {"remoteAddr": "10.0.0.1", "routerAddr": "10.0.0.1"}
            keyed = set(re.findall(r"\[(\w+)\]", path))
            for step in steps[:-1]:
                at = at.setdefault(keys.get(step, "1") if step in keyed else step, {})
            at[steps[-1]] = value
            name = write(f"{self.directory}/{root}", config)
            os.chmod(name, 0o600)
            done = self.run_to_end("navctl", "check", *options[root], name)
            self.assertIn(done.returncode, (0, 1), done.stderr)
            return done.returncode == 0

        count = 0
        for line in page.splitlines():
            if heading := re.search(r"`/(\w+)`$", line):
                root = heading[1]
            row = re.match(r"\| `(.*?)` \| [^|]*?(\d+) to (\d+)(, or 0)? \|", line)
            if not row:
                continue
            least, most, count = int(row[2]), int(row[3]), count + 1
            expected = {least: True, most: True, most + 1: False}
            if least > 0:
                expected[least - 1] = False
            if row[4]:
                expected[0] = True
            is_map = "by path group" in line.split("|")[2]
            self.assertEqual({value: accepted(root, row[1], {"1": value} if is_map else value)
                              for value in expected}, expected, row[1])
        self.assertGreater(count, 20)

    def test_examples_work_as_they_are(self):
        names = [name for name in sorted(os.listdir(f"{source}/examples"))
                 if os.path.exists(f"{source}/examples/{name}/config.json") and
                 os.path.exists(f"{source}/examples/{name}/world.json")]
        self.assertEqual(names, ["guest-vrf", "hub", "provider-and-mpls", "two-providers"])
        for name in names:
            with self.subTest(name):
                self.directory = self.run_dir()
                config = f"examples/{name}/config.json"
                self.assertEqual(self.run_to_end("navctl", "check", config).stderr, "")
                command = re.search(r"^//     nav-agent (.*)$", read(config), re.M)[1].split()
                agent = self.agent(self.directory, *command)
                await_("every path is up and every application has some", lambda: (
                    explained := self.ask("explain")) and all(
                        path["state"] == "up" for path in explained["paths"]) and all(
                            row["paths"] and not row["reason"] for row in explained["applications"]))
                self.assertEqual(self.says("validate"), "PASS\n")
                self.assertEqual(self.says("diff"), "")
                self.assertEqual(self.stop(agent), 0)

    def hook(self, text):
        """The program of the hook from now on."""
        path = f"{self.directory}/hook"
        write(f"{path}.new", f"#!/bin/sh\ncd {self.directory}\n{text}\n")
        os.chmod(f"{path}.new", 0o755)
        os.rename(f"{path}.new", path)
        return path

    def runs(self):
        """What has become of transitions so far, by result."""
        return {result: int(count) for result, count in
                re.findall(r'^nav_hook_runs_total{result="(\w+)"} (\d+)$',
                           self.metrics(self.directory), re.M)}

    def test_hooks_hear_of_transitions_and_delay_nothing(self):
        told = f"{self.directory}/told"

        def lines():
            return read(told).splitlines()

        self.router("--hook-timeout=2", "--hook", self.hook(
            'echo "$*|$NAV_SITE|$NAV_CAUSE|$NAV_PATHS|$NAV_PATHS_BEFORE|$(env | wc -l)" >> told'))
        await_("each path is told of", lambda: sum(line.startswith("path ") for line in lines()) == 7)
        await_("each site", lambda: {f"site 10.255.0.{i} up" for i in (2, 3, 4)} <= {
            line.split("|")[0] for line in lines()})
        os.truncate(told, 0)
        paths = {path["destination"]: path["path"] for path in self.ask("explain")["paths"]}
        vias = "/cliConfig/pathGroupConfig[{}]/remoteViaConfig[10.255.0.4]/remoteVia[{}]"
        gone = {"mpls": "192.0.2.132", "internet": "198.51.100.4"}
        for group, destination in gone.items():
            before = self.ask("explain", "site", "10.255.0.4")["applications"]
            self.says("del", vias.format(group, destination))
            lost = paths[destination]
            await_("the path's end is told", lambda: any(re.match(
                rf"path {lost} down\|10\.255\.0\.4\|{destination} is not a destination", line)
                for line in lines()))
            moved = [row["application"] for row in before
                     if row["vrf"] == "default" and lost in row["paths"]]
            self.assertTrue(moved)
            for application in moved:
                await_(f"{application} is told of", lambda: any(re.match(
                    rf"application {application} (moved|down)\|10\.255\.0\.4\|.*\|.*\|{lost}\|", line)
                    for line in lines()))
        await_("the site is down", lambda: any(line.startswith("site 10.255.0.4 down|")
                                               for line in lines()))
        self.assertTrue(all(int(line.split("|")[5]) < 20 for line in lines()), "environment")
        self.assertEqual(self.runs()["failed"], 0)

        # A program that hangs, with a child, is killed; the agent answers meanwhile.
        self.hook("sleep 1000 & echo $$ $! >> hanging; sleep 1000")
        self.says("set", vias.format("mpls", gone["mpls"]), "true")
        await_("it hangs", lambda: os.path.exists(f"{self.directory}/hanging"))
        self.says("ping")
        await_("it is killed", lambda: self.runs()["killed"] >= 4)
        self.assertIn("killed after 2 s", self.errors(self.directory))
        killed = [each for line in read(f"{self.directory}/hanging").splitlines()[:4]
                  for each in line.split()]

        def lives(process):
            try:
                return read(f"/proc/{process}/cmdline") != ""  # else nobody has waited for it yet
            except FileNotFoundError:
                return False

        self.assertEqual(len(killed), 8)
        await_("its processes are gone", lambda: not any(map(lives, killed)))
        # One that fails, or is missing, is reported.
        self.hook("exit 3")
        self.says("del", vias.format("mpls", gone["mpls"]))
        await_("it fails", lambda: "down: exit status 3" in self.errors(self.directory))
        os.unlink(f"{self.directory}/hook")
        self.says("set", vias.format("mpls", gone["mpls"]), "true")
        await_("it is missing", lambda: "site 10.255.0.4 up: No such file or directory" in
               self.errors(self.directory))
        # Transitions of one subject are reported one after the other.
        self.hook("[ $3 = down ] && sleep 1\necho $* >> told")
        os.truncate(told, 0)
        for change in (("del",), ("set", "true")):
            self.says(change[0], vias.format("mpls", gone["mpls"]), *change[1:])
            await_("it is seen", lambda: [path["state"] for path in self.ask(
                "explain")["paths"]].count("up") == (5 if change[0] == "del" else 6))
        await_("the site is back", lambda: [line for line in lines() if "site" in line] == [
            "site 10.255.0.4 down", "site 10.255.0.4 up"])
        self.assertEqual(self.stop(self.process), 0)


if __name__ == "__main__":
    main()
