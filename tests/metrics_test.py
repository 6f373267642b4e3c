"""The metrics as a collector reads them: complete, in the format, guarded, and documented."""
import json
import os
import re
import shutil
import socket
import subprocess
import unittest
import urllib.error
import urllib.request

from products import Products, await_, branch, main, programs, read, source, write

promtool = shutil.which("promtool", path=f"{os.environ['PATH']}:{source}/build/tools")
monitoring = f"{source}/examples/monitoring"


def parse(text):
    """{metric: {labels: value}}; fails where the format does not hold."""
    samples, described = {}, []
    for line in text.splitlines():
        if line.startswith("#"):
            word, name = line.split(" ", 3)[1:3]
            assert (word, name) not in described, line
            described.append((word, name))
            continue
        name, labels, value = re.fullmatch(r'(\w+)(?:\{(.*)\})? (\S+)', line).groups()
        family = re.sub("_(bucket|sum|count)$", "", name) if "loop_busy" in name else name
        assert described[-1] == ("TYPE", family), f"{line} is not below its header"
        key = tuple(sorted(re.findall(r'(\w+)="([^"]*)"', labels or "")))
        assert key not in samples.setdefault(name, {}), f"{line} comes twice"
        samples[name][key] = float(value)
    return samples


class MetricsTest(Products):
    def scrape(self, run_dir, patience=60):
        body = self.metrics(run_dir, patience)
        return body and (parse(body), body)

    def await_paths(self, run_dir, count):
        def answer():
            metrics, text = self.scrape(run_dir) or ({}, "")
            return (metrics, text) if len(metrics.get("nav_path_up", ())) == count else None
        return await_(f"{count} paths have samples", answer)

    def test_a_fleet_has_a_collector_configuration(self):
        directory = f"{self.run_dir()}/fleet"
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        # It prints when each branch has answered a request with its token, and has a path up.
        fleet = subprocess.run([f"{monitoring}/fleet", "--branches", "1", "--port", str(port), "--agent",
                                programs["nav-agent"], directory], stdin=subprocess.DEVNULL,
                               capture_output=True, text=True, timeout=150, check=False)
        self.assertEqual((fleet.returncode, fleet.stderr), (0, ""))
        [job] = json.loads(read(f"{directory}/prometheus.yml"))["scrape_configs"]
        self.assertEqual(job["static_configs"], [
            {"targets": [f"127.0.0.1:{port}"], "labels": {"branch": "branch1"}}])
        if promtool:
            subprocess.run([promtool, "check", "config", f"{directory}/prometheus.yml"], check=True,
                           capture_output=True)

    def test_every_configured_path_has_its_samples(self):
        run_dir = self.run_dir()
        self.agent(run_dir, *branch)
        self.start(run_dir, "nav-forwarder")
        def counted():
            metrics, _ = self.scrape(run_dir) or ({}, "")
            up = sum(metrics.get("nav_path_up", {}).values()) == 7
            return metrics if up and "nav_path_flows" in metrics else None
        metrics = await_("all paths are up and counted", counted)
        [trip] = [value for key, value in metrics["nav_path_round_trip_seconds"].items()
                  if ("destination", "192.0.2.130") in key]
        self.assertAlmostEqual(trip, 0.018, delta=0.0005)
        # A path without an interface, and one that fails, keep their samples.
        self.navctl(run_dir, "set", "/cliConfig/pathGroupConfig[mpls]/localIntf[absent0]", "true")
        after, _ = self.await_paths(run_dir, 10)
        absent = {key for key in after["nav_path_up"] if ("interface", "absent0") in key}
        for key in absent:
            self.assertEqual(after["nav_path_up"][key], 0)
            states = {dict(k)["state"]: v for k, v in after["nav_path_state"].items()
                      if set(key) < set(k)}
            self.assertEqual(states, {"absent": 1, "unresolved": 0, "unprogrammed": 0, "up": 0})
        before = after["nav_path_transitions_total"]
        self.navctl(run_dir, "del", "/cliConfig/pathGroupConfig[mpls]/localIntf[wan2]")
        after, text = self.await_paths(run_dir, 7)
        self.assertEqual(after["nav_load_balance_ids"][(("state", "used"),)] +
                         after["nav_load_balance_ids"][(("state", "free"),)], 1023)
        self.assertTrue(all(key in before for key in after["nav_path_transitions_total"]))
        documented = set(re.findall(r"`(nav_[a-z_]+)`", read("docs/metrics.md")))
        served = {re.sub("_(bucket|sum|count)$", "", name) if "loop_busy" in name else name
                  for name in metrics | after}
        self.assertEqual(documented, served)
        used = read(f"{monitoring}/dashboard.json") + read(f"{monitoring}/alerts.yml")
        for expression in re.findall(r"\bnav_\w+", used):
            self.assertIn(expression.removesuffix("_bucket"), served)
        if promtool:
            lint = subprocess.run([promtool, "check", "metrics"], input=text, text=True,
                                  capture_output=True)
            self.assertEqual((lint.returncode, lint.stdout + lint.stderr), (0, ""))

    def test_collectors_that_misbehave_cost_their_own_connection(self):
        run_dir = self.run_dir()
        token = write(f"{run_dir}/token", "secret\n")
        os.chmod(token, 0o644)
        options = [f"--run-dir={run_dir}", *branch, "--metrics=127.0.0.1:0", f"--metrics-token={token}"]
        refused = self.run_to_end("nav-agent", *options)
        self.assertIn("mode 0600", refused.stderr)
        os.chmod(token, 0o600)
        self.assertIn("expected an address and a port",
                      self.run_to_end("nav-agent", *options).stderr)
        with socket.create_server(("127.0.0.1", 0)) as probe:
            port = probe.getsockname()[1]
        self.agent(run_dir, *branch, f"--metrics=127.0.0.1:{port}",
                   f"--metrics-token={token}")
        for given, path, expected in (("secret", "/metrics", 200), ("secres", "/metrics", 401),
                                      ("", "/metrics", 401), ("secret", "/other", 404)):
            request = urllib.request.Request(f"http://127.0.0.1:{port}{path}",
                                             headers={"Authorization": f"Bearer {given}"})
            try:
                code = urllib.request.urlopen(request, timeout=60).status
            except urllib.error.HTTPError as error:
                code = error.code
            self.assertEqual(code, expected)
        # Collectors that leave at once, or send garbage; afterwards one is answered as before.
        for end in range(40):
            with socket.socket(socket.AF_UNIX) as client:
                client.connect(f"{run_dir}/metrics.sock")
                client.sendall(b"GET /metrics HTTP/1.1\r\n\r\n" if end % 4 else b"\0" * 20000)
        self.await_paths(run_dir, 7)

    @unittest.skipUnless(promtool, "promtool is not found; see scripts/promtool")
    def test_alert_rules(self):
        subprocess.run([promtool, "test", "rules", f"{monitoring}/alerts_test.yml"], check=True,
                       stdout=subprocess.DEVNULL)


main()
