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

from products import Products, await_, branch, build, main, patience, source


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
        self.assertIn('warning: VRF "v" names policy "p", which is not there', self.errors(run_dir))
        load('{"udpPortConfig": 2,\n "pathGroupConfig": {"a": {"localintf": []}}}', agent)
        await_("it is refused",
               lambda: "line 2: /pathGroupConfig/a/localintf" in self.errors(run_dir))
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
