"""The programs together, as an operator runs them: product_test.py BUILD_DIR SOURCE_DIR.

The commands that README.md shows; the shared tables from start to stop, crashes included; run
directories, configuration files and the kernel's addresses; what a broken invariant leaves behind;
an agent under valgrind. Each case has run directories of its own.
"""
import json
import os
import re
import shutil
import signal
import subprocess

from products import Products, await_, branch, build, main, patience, source, programs


def tables_of(*processes):
    """The names of the shared tables that the processes have mapped."""
    maps = ""
    for process in processes:
        with open(f"/proc/{process.pid}/maps", encoding="utf-8") as file:
            maps += file.read()
    return set(re.findall(r"/dev/shm/(shard\S+)\n", maps))


def exist(names):
    return [os.path.exists(f"/dev/shm/{name}") for name in sorted(names)]


class ProductTest(Products):
    def counters(self, run_dir, *path):
        """The rows of the counters, or of those of one path; empty when nobody writes them."""
        shown = self.navctl(run_dir, "--json", "show", "counters")
        rows = json.loads(shown.stdout) if shown.returncode == 0 else []
        return [row for row in rows if not path or row["path"] == path[0]]

    def test_commands_of_the_readme(self):
        with open(f"{source}/README.md", encoding="utf-8") as file:
            text = file.read()
        commands = [line.split("#")[0].replace("'", "").split()
                    for line in re.findall(r"^    (nav.*)", text, re.M)]
        self.assertGreater(len(commands), 5)
        run_dir = self.run_dir()
        for program, *arguments in commands:
            if program == "nav-agent":
                self.agent(run_dir, *arguments)
            elif program == "nav-forwarder":
                self.start(run_dir, program, *arguments)
                await_("counters come", lambda: self.counters(run_dir))
            elif "watch" in arguments or "--watch" in arguments:
                watch = self.start(run_dir, program, *arguments, stdout=subprocess.PIPE)
                self.assertTrue(watch.stdout.readline(), arguments)
            else:
                done = self.navctl(run_dir, *arguments)
                self.assertEqual((done.returncode, done.stderr), (0, ""), arguments)

    def test_tables_live_as_long_as_their_writers(self):
        here, there = self.run_dir(), self.run_dir()
        agent, forwarder = self.agent(here, *branch), self.start(here, "nav-forwarder")
        row = await_("a path carries traffic", lambda: self.counters(here, "Path1"))[0]
        self.assertGreater(row["packets"], 0)
        mine = tables_of(agent, forwarder)
        self.assertEqual(exist(mine), [True] * 3)  # both forwarding tables and the counters
        theirs = tables_of(self.agent(there, *branch))
        self.assertEqual(exist(theirs - mine), [True] * 2)
        self.assertEqual(self.navctl(there, "show", "counters").returncode, 3)
        self.assertEqual(self.start(here, "nav-forwarder").wait(patience), 1)
        self.assertIn("nav-forwarder: ", self.errors(here))

        # The tables outlive the crash of their writers, who take them over when they are back.
        self.stop(agent, signal.SIGKILL)
        self.assertTrue(self.counters(here), "the forwarder goes on without the agent")
        self.stop(forwarder, signal.SIGKILL)
        self.assertEqual(exist(mine), [True] * 3)
        agent, forwarder = self.agent(here, *branch), self.start(here, "nav-forwarder")
        await_("traffic is back", lambda: self.counters(here, "Path1"))
        self.assertEqual(tables_of(agent, forwarder), mine)

        self.assertEqual((self.stop(forwarder), self.stop(agent)), (0, 0))
        self.assertEqual((exist(mine), exist(theirs)), ([False] * 3, [True] * 2))
        self.assertEqual(self.navctl(here, "show", "counters").returncode, 3)

    def test_tables_show_what_the_tree_holds(self):
        run_dir, long = self.run_dir(), "long" * 100  # answers of far more than 32 KiB
        with open(f"{source}/examples/branch/branch.json", encoding="utf-8") as file:
            config = json.load(file)
        groups = config["pathGroupConfig"]
        groups[long] = groups.pop("internet")
        groups[long]["remoteViaConfig"]["10.255.9.9"] = {
            "remoteVia": [f"198.51.100.{i}" for i in range(100, 200)]}
        for profile in config["loadBalanceProfile"].values():
            priority = profile["pathGroupPriority"]
            if "internet" in priority:
                priority[long] = priority.pop("internet")
        with open(f"{run_dir}/config.json", "w", encoding="utf-8") as file:
            json.dump(config, file)
        self.agent(run_dir, f"--config={run_dir}/config.json", branch[1])

        def ask(*arguments):
            done = self.navctl(run_dir, "--json", *arguments)
            self.assertEqual(done.returncode, 0, done.stderr)
            return json.loads(done.stdout)

        await_("paths are up", lambda: sum(
            "Estab" in path["state"] for path in ask("show", "paths")["navPathSelPaths"]) == 7)
        infos = ask("get", "/navDb/pathKeyInfo").values()
        status = ask("get", "/navStatusDir/navPathStatusDir/pathStatus[default]/pathStatusEntry")
        rows = {int(row["pathName"][4:]): row for row in ask("show", "paths")["navPathSelPaths"]}
        self.assertGreater(len(json.dumps(list(rows.values()))), 40000)
        self.assertEqual(len(rows), 107)
        peers, mappings = ask("show", "peers")["navPeers"], ask("show", "mappings")
        for info in infos:
            key, site, index = info["pathKey"], info["siteGroupKey"], info["pathIndex"]
            row = rows[index]
            self.assertEqual([row["pathGroup"], row["source"], row["destination"], row["peer"]],
                             [site["name"], key["srcAddr"], key["dstAddr"], site["routerIp"]])
            text = f"{key['srcAddr']},{key['dstAddr']},{key['vrfId']}"
            self.assertEqual("Estab" in row["state"], status[text]["programmed"])
            self.assertEqual(peers[str(index)], site["routerIp"])
            self.assertEqual(mappings["groups"][str(index)], site["name"])

        table = {name: ask("show", name) for name in ("groups", "policies", "ipsec", "nexthops",
                                                      "sites", "load-balance")}
        self.assertEqual({row["pathGroup"]: (row["interfaces"], row["sites"], row["paths"])
                          for row in table["groups"]}, {long: (["wan1"], 4, 104), "mpls": (["wan2"], 3, 3)})
        policies = ask("get", "/cliConfig/policyConfig")
        self.assertEqual(
            [(row["policy"], row["rule"], row["application"], row["loadBalance"])
             for row in table["policies"]],
            [(name, key, rule["appProfileName"], rule["lbGrpName"]) for name, policy in policies.items()
             for key, rule in [*policy["appProfilePolicyRuleList"].items(),
                               *[("default", {"appProfileName": None,
                                              "lbGrpName": policy["defaultLbGrpName"]})]
                               * policy["defaultRuleCfgd"]]])
        self.assertEqual({(row["policy"], vrf) for row in table["policies"] for vrf in row["vrfs"] or []},
                         {(vrf["policyName"], name)
                          for name, vrf in ask("get", "/cliConfig/vrfConfig").items()})
        connections = ask("get", "/ipsecPathStatusDir/ipsecPathStatus")
        up = [row for row in table["ipsec"] if row["state"] == "established"]
        self.assertEqual([(row["source"], row["destination"], row["encapId"]) for row in up],
                         [(each["key"]["srcAddr"], each["key"]["dstAddr"], each["encapId"])
                          for each in connections.values() if each["connectionState"] == 3])
        self.assertEqual((len(up), len(table["ipsec"])), (4, 104))
        results = ask("get", "/nexthopStatus/vrf[default]/nexthop")
        fecs = ask("get", "/forwardingStatus/fec")
        hops = [row for row in table["nexthops"] if row["vrf"] == "default"]
        self.assertEqual({row["nextHop"]: row["fec"] for row in hops if row["state"] == "resolved"},
                         {address: result["fecId"] for address, result in results.items()})
        self.assertEqual(len(hops), 107)
        for row in hops:
            vias = fecs[str(row["fec"])] if row["fec"] is not None else []
            self.assertEqual(row["vias"], [f"{via['hop']} {via['intfId']}" for via in vias])
        usable = {(each["key"]["name"], each["key"]["routerIp"]): sorted(map(int, each["pathIndexEntry"]))
                  for each in ask("get", "/siteGroupStatus/siteGroupStatusEntry").values()}
        self.assertEqual({(row["pathGroup"], row["site"]): row["usablePaths"]
                          for row in table["sites"] if row["usablePaths"]}, usable)
        members = ask("get", "/navStatusDir/navLbProfileStatus/lbProfileStatusEntry").values()
        self.assertEqual([(row["id"], row["pathIndex"], row["priority"]) for row in table["load-balance"]
                          if row["pathIndex"] is not None],
                         [(each["lbIndex"], path["pathIndex"], path["priority"]) for each in members
                          for path in sorted(each["pathEntry"].values(),
                                             key=lambda m: (m["priority"], m["pathIndex"]))])
        for last in (1, 3):
            self.assertEqual(len(ask("trace", "--last", str(last))), last)

    def test_the_log_says_what_happened_and_never_delays_the_agent(self):
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
        self.assertEqual(self.stop(agent), 0)
        self.assertTrue(self.errors(run_dir).endswith("agent:5 nav-agent stopped\n"))

        deaf = self.run_dir()
        unread, end = os.pipe()
        self.addCleanup(os.close, unread)
        agent = subprocess.Popen([programs["nav-agent"], "--run-dir", deaf, *branch, "--log-level", "8"],
                                 stderr=end, cwd=source)
        os.close(end)
        self.processes.callback(agent.kill)
        await_("paths are up", lambda: self.navctl(deaf, "show", "paths").stdout.count("Estab") == 7)
        levels = json.loads(self.navctl(deaf, "--json", "log").stdout)
        self.assertIn({"facility": "path", "level": 8}, levels)
        requests = '{"op":"log","facility":"path","level":8}\n' * 5000
        self.assertEqual(self.navctl(deaf, "batch", "-", input=requests).returncode, 0)
        self.assertEqual(self.stop(agent), 0)

    def test_one_agent_to_a_run_directory_whatever_a_crashed_one_left(self):
        run_dir = self.run_dir()
        crashed = self.agent(run_dir)
        self.assertEqual(os.stat(f"{run_dir}/control.sock").st_mode & 0o777, 0o600)
        watch = self.start(run_dir, "navctl", "watch", "/cliConfig", stdout=subprocess.PIPE)
        self.assertTrue(watch.stdout.readline())
        refused = self.run_to_end("nav-agent", "--run-dir", run_dir)
        self.assertEqual(refused.returncode, 1)
        self.assertIn(f"another agent runs there (pid {crashed.pid})", refused.stderr)
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
        file = f"{run_dir}/file"
        with open(file, "w", encoding="utf-8") as text:
            text.write('{\n  "a": 1,\n  "b": }\n')
        for arguments, status, reason in (
                (["--platform", "cloud"], 2, "cloud"),
                (["--log-level", "9"], 2, "--log-level"),
                (["--world", "w", "--platform", "manual"], 2, "--world"),
                (["--run-dir", file], 1, file + ": Not a directory"),
                (["--run-dir", run_dir + "/no/where"], 1, "No such file or directory"),
                (["--run-dir", f"{run_dir}/{'x' * 90}"], 1, "107 bytes"),
                (["--run-dir", f"{run_dir}/new", "--config", file], 1, file + ": line 3"),
                (["--run-dir", run_dir, "--config", run_dir], 1, run_dir + ": Is a directory")):
            done = self.run_to_end("nav-agent", *arguments)
            self.assertEqual(done.returncode, status, done.stderr)
            self.assertIn(reason, done.stderr)
        self.assertEqual(os.stat(f"{run_dir}/new").st_mode & 0o777, 0o700)

    def test_a_hang_up_loads_the_file_again_and_a_bad_file_changes_nothing(self):
        run_dir = self.run_dir()
        file = f"{run_dir}/config.json"

        def load(text, agent=None):
            with open(f"{file}.new", "w", encoding="utf-8") as new:
                new.write(text)
            os.rename(f"{file}.new", file)
            if agent:
                agent.send_signal(signal.SIGHUP)

        def port():
            return self.navctl(run_dir, "get", "/cliConfig/udpPortConfig").stdout

        load('{"udpPortConfig": 1, "vrfConfig": {"v": {"policyName": "p"}}}')
        agent = self.agent(run_dir, "--config", file)
        self.assertIn('warning: VRF "v" names policy "p", which is not configured', self.errors(run_dir))
        load('{"udpPortConfig": 2,\n "pathGroupConfig": {"a": {"localintf": []}}}', agent)
        await_("it is refused",
               lambda: "line 2: /cliConfig/pathGroupConfig[a]/localintf" in self.errors(run_dir))
        self.assertEqual(port(), "1\n")
        load('{"udpPortConfig": 3}', agent)
        await_("it is loaded", lambda: port() == "3\n")

    def test_paths_come_from_the_kernels_addresses(self):
        enter = ["unshare", "--net", "--map-root-user", "sh", "-c",
                 "ip link add wan1 type veth peer name isp1 && ip link set isp1 up && "
                 "ip link set wan1 up && ip addr add 203.0.113.1/24 dev wan1 && "
                 "ip route add 198.51.100.2 via 203.0.113.254 && "
                 'exec "$0" "$@"']
        if subprocess.run([*enter, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("no network namespace, or no ip command")
        run_dir = self.run_dir()
        with open(f"{run_dir}/config.json", "w", encoding="utf-8") as file:
            json.dump({"navConfigured": True, "pathGroupConfig": {"internet": {
                "localIntf": ["wan1"],
                "remoteViaConfig": {"10.255.0.2": {"remoteVia": ["198.51.100.2"]}}}}}, file)
        agent = self.agent(run_dir, "--platform", "linux", f"--config={run_dir}/config.json",
                           under=enter)
        await_("the path has its route",
               lambda: "Arp Pending" in self.navctl(run_dir, "show", "paths").stdout)
        shown = self.navctl(run_dir, "show", "paths").stdout
        self.assertRegex(shown, r"203\.0\.113\.1 +198\.51\.100\.2 +10\.255\.0\.2 ")
        self.assertEqual(self.stop(agent), 0)

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
        with open(f"{run_dir}/postmortem.trace", encoding="utf-8") as file:
            self.assertIn("198.51.1.28", file.read())
        self.assertEqual(self.stop(self.agent(run_dir)), 0)

    def test_nothing_is_lost_or_read_astray(self):
        with open(f"{build}/CMakeCache.txt", encoding="utf-8") as cache:
            if re.search(r"^NAV_SANITIZE:\w+=.", cache.read(), re.M):
                self.skipTest("the sanitizers look for the same, and do not go with valgrind")
        if not shutil.which("valgrind"):
            self.skipTest("valgrind is not installed")
        run_dir = self.run_dir()
        agent = self.agent(run_dir, *branch, under=["valgrind", "--quiet", "--leak-check=full",
                                                    "--error-exitcode=9"])
        await_("all paths are up", lambda: self.navctl(run_dir, "show", "paths").stdout.count(
            "Estab") == 7)
        for view in ("load-balance", "policies", "ipsec", "nexthops"):
            self.assertEqual(self.navctl(run_dir, "show", view).returncode, 0)
        self.assertEqual(self.navctl(run_dir, "del", "/cliConfig/pathGroupConfig[mpls]").returncode, 0)
        self.assertEqual(self.navctl(run_dir, "show", "paths").stdout.count("mpls"), 0)
        self.assertEqual(self.stop(agent), 0, self.errors(run_dir))


if __name__ == "__main__":
    main()
