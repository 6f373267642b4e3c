"""The agent as a service: service_test.py BUILD_DIR SOURCE_DIR.

What it tells the service manager, what members of its group may do, and what systemd-analyze
thinks of its unit.
"""
import grp
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import unittest

from products import Products, await_, branch, main, patience, programs, read, source, write


class ServiceTest(Products):
    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
    def test_the_unit_is_correct_and_gives_away_little(self):
        unit = read("systemd/nav-agent.service.in").replace("@bindir@/nav-agent", programs["nav-agent"])
        path = write(f"{self.run_dir()}/nav-agent.service", unit)
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", path], capture_output=True, text=True,
                              check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        write(path, unit + read("systemd/reflector.conf"))  # offline, drop-ins are not read
        done = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager",
                               "--threshold=15", path], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout[-200:])

    def test_the_service_manager_is_told(self):
        run_dir = self.run_dir()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(f"{run_dir}/manager")
            manager.settimeout(patience)
            journal = os.stat(write(f"{run_dir}/errors", ""))
            environment = {**os.environ, "NOTIFY_SOCKET": manager.getsockname(),
                           "WATCHDOG_USEC": "20000", "JOURNAL_STREAM": f"{journal.st_dev}:{journal.st_ino}"}
            agent = self.start(run_dir, "nav-agent", *branch, "--log-level", "8", env=environment)

            def told(word):
                while word not in (lines := manager.recv(4096).decode().splitlines()):
                    pass
                return lines

            self.assertIn("STATUS=0 of 0 paths are up", told("READY=1"))
            self.assertEqual(self.navctl(run_dir, "ping").returncode, 0, "ready, so it answers")
            while "STATUS=7 of 7 paths are up" not in told("WATCHDOG=1"):
                pass
            agent.send_signal(signal.SIGHUP)
            self.assertTrue(told("RELOADING=1")[1].startswith("MONOTONIC_USEC="))
            told("READY=1")
            agent.send_signal(signal.SIGTERM)
            told("STOPPING=1")
            self.assertEqual(agent.wait(patience), 0)
        # Each line with its priority; operators are not told where in the code it is written.
        levels = set()
        for line in self.errors(run_dir).splitlines():
            priority, level, place = re.fullmatch(
                r"<(\d)>\d{4}-\d\d-\d\dT[\d:.]+\+00:00 \w+:(\d) .*?( \(\w+\.\w+:\d+\))?", line).groups()
            self.assertEqual((priority, bool(place)), (min(level, "7"), level >= "7"), line)
            levels.add(level)
        self.assertLessEqual({"5", "6", "7", "8"}, levels)

    @unittest.skipUnless(os.geteuid() == 0, "only root can become another user")
    def test_members_of_the_group_read_and_change_nothing(self):
        run_dir, group = self.run_dir(), grp.getgrnam("users")
        agent = self.agent(run_dir, *branch, "--group", group.gr_name)
        self.start(run_dir, "nav-forwarder")

        def navctl(*arguments, gid=group.gr_gid):
            return subprocess.run(
                ["setpriv", "--reuid=65534", f"--regid={gid}", "--clear-groups", programs["navctl"],
                 "--run-dir", run_dir, *arguments], capture_output=True, text=True, check=False,
                timeout=patience, cwd="/")

        if navctl("--version").returncode != 0:
            self.skipTest("other users cannot run the programs built here")
        config = f"{source}/examples/branch/branch.json"
        for reading in (["get", "/cliConfig"], ["show", "paths"], ["show", "events"], ["explain"],
                        ["trace"], ["log"], ["ping"], ["diff"], ["diff", config], ["show", "history"],
                        ["show", "history", "1"], ["load", "--dry-run", config],
                        ["load", "--dry-run", "--from-history", "1"]):
            self.assertEqual(navctl(*reading).returncode, 0, reading)
        await_("counters can be read", lambda: navctl("show", "counters").returncode == 0)
        for changing in (["set", "/cliConfig/udpPortConfig", "1"], ["del", "/cliConfig/vrfConfig[v]"],
                         ["load", config], ["load", "--confirm", "9", config], ["confirm"],
                         ["confirm", "--no"], ["load", "--from-history", "1"],
                         ["diff", "--forwarding", f"{source}/examples/linux/forwarding.json"],
                         ["save", "--forwarding", "/dev/shm/nav-not-written"],
                         ["log", "path", "8"]):
            done = navctl(*changing)
            self.assertEqual(done.returncode, 1, changing)
            self.assertIn("permission denied to uid 65534", done.stderr, changing)
        self.assertEqual(navctl("ping", gid=65534).returncode, 4, "not a member")
        self.assertEqual(self.navctl(run_dir, "set", "/cliConfig/udpPortConfig", "4000").returncode, 0)
        events = json.loads(navctl("--json", "show", "events").stdout)
        self.assertEqual([event["by"].split(",")[0] for event in events if event["event"].startswith(
            'set "/cliConfig/udpPortConfig"')], ["uid 0"])
        self.assertEqual(self.stop(agent), 0)


if __name__ == "__main__":
    main()
