"""What the tests of the whole programs share. Such a test is called with BUILD_DIR SOURCE_DIR, and
with options of unittest."""
import contextlib
import functools
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

import jsonschema

build, source = (os.path.abspath(argument) for argument in sys.argv[1:3])
sys.path.insert(0, f"{source}/scripts")
from netlab import Lab, Unavailable, await_  # noqa: E402, F401
from traffic import Traffic  # noqa: E402
# In front of a command: ends it with the test, however that ends.
tied = ["setpriv", "--pdeathsig", "KILL"]
programs = {"nav-agent": f"{build}/agent/host/nav-agent", "navctl": f"{build}/navctl/navctl",
            "nav-forwarder": f"{build}/forwarder/nav-forwarder"}
branch = [f"--config={source}/examples/branch/branch.json",
          f"--world={source}/examples/branch/world.json"]
patience = 60  # seconds


def read(path):
    """The text of a file, whose path may be relative to SOURCE_DIR."""
    with open(os.path.join(source, path), encoding="utf-8") as file:
        return file.read()


def write(path, content):
    """A file of a text, or of anything else as JSON; returns its path."""
    with open(path, "w", encoding="utf-8") as file:
        file.write(content if isinstance(content, str) else json.dumps(content))
    return path


@functools.cache
def schema_of(name):
    """One of docs/navctl.schema.json. Its readers accept members that it does not describe, and the
    tests do not."""
    def strict(part):
        if isinstance(part, list):
            return [strict(each) for each in part]
        if not isinstance(part, dict):
            return part
        closed = {"additionalProperties": False} if "properties" in part else {}
        return {key: strict(value) for key, value in part.items()} | closed

    schemas = strict(json.loads(read("docs/navctl.schema.json"))["$defs"])
    return jsonschema.Draft202012Validator({"$ref": f"#/$defs/{name}", "$defs": schemas})


def document(text, *command):
    """What a command printed with --json, which must be as its schema says."""
    name = ("show-history-entry" if command[:2] == ("show", "history") and command[2:] else
            "show-quality-graph" if "--graph" in command else
            "load-dry-run" if "--dry-run" in command else
            "-".join(command[:2]) if command[0] == "show" else command[0])
    value = json.loads(text)
    for error in schema_of(name).iter_errors(value) if name != "get" else ():
        raise AssertionError(f"{command}: {error.json_path}: {error.message[:400]}")
    return value


class Products(unittest.TestCase):
    """A case with the programs in run directories of its own; all of them end with it."""

    def setUp(self):
        self.processes = contextlib.ExitStack()
        self.addCleanup(self.processes.close)

    def run_dir(self):
        return self.processes.enter_context(tempfile.TemporaryDirectory(prefix="nav-product-"))

    def start(self, run_dir, program, *arguments, under=(), **options):
        with open(f"{run_dir}/errors", "w", encoding="utf-8") as errors:
            process = subprocess.Popen(
                [*tied, *under, programs[program], "--run-dir", run_dir, *arguments], stderr=errors,
                text=True, **{"cwd": source, **options})
        self.processes.callback(process.communicate)
        self.processes.callback(process.terminate)
        return process

    def errors(self, run_dir):
        return read(f"{run_dir}/errors")

    def agent(self, run_dir, *arguments, **options):
        process = self.start(run_dir, "nav-agent", *arguments, **options)
        await_("the agent answers", lambda: self.navctl(run_dir, "ping").returncode == 0)
        return process

    def run_to_end(self, program, *arguments, **options):
        return subprocess.run([programs[program], *arguments], capture_output=True, text=True,
                              timeout=patience, check=False, **{"cwd": source, **options})

    def navctl(self, run_dir, *arguments, **options):
        return self.run_to_end("navctl", "--run-dir", run_dir, *arguments, **options)

    def shown(self, run_dir, *command, status=0):
        done = self.navctl(run_dir, "--json", *command)
        self.assertEqual(done.returncode, status, (command, done.stderr))
        return document(done.stdout, *command)

    def metrics(self, run_dir, patience=patience):
        """What the agent answers a collector; None if there are too many at once."""
        with socket.socket(socket.AF_UNIX) as client:
            client.settimeout(patience)
            client.connect(f"{run_dir}/metrics.sock")
            client.sendall(b"GET /metrics HTTP/1.0\r\n\r\n")
            answer = b"".join(iter(lambda: client.recv(65536), b"")).decode()
        head, body = answer.split("\r\n\r\n", 1)
        if " 503 " in head.splitlines()[0]:
            return None
        self.assertIn(" 200 ", head.splitlines()[0])
        return body

    def stop(self, process, by=signal.SIGTERM):
        process.send_signal(by)
        return process.wait(patience)


class LabCase(unittest.TestCase):
    """A case in the network of scripts/netlab.py, as root; skipped where it cannot be made."""
    laboratory = Lab
    network = {"v6_outside": ["mpls"]}  # its options

    def setUp(self):
        cleanup = contextlib.ExitStack()
        self.addCleanup(cleanup.close)
        sys.setswitchinterval(0.0005)
        try:
            self.lab = cleanup.enter_context(
                self.laboratory(programs["nav-agent"], programs["navctl"], **self.network))
        except Unavailable as reason:
            self.skipTest(str(reason))
        self.traffic = cleanup.enter_context(Traffic(self.lab))
        self.addCleanup(self.show_logs)

    def show_logs(self):
        if any(case is self for case, _ in self._outcome.result.errors + self._outcome.result.failures):
            print(*(f"--- agent of site {site}\n{self.lab.log(site)}" for site in self.lab.agents))

    def shown(self, site, *what):
        return document(self.lab.navctl(site, "--json", *what).stdout, *what)

    def kill(self, site):
        self.lab.end_agent(site, signal.SIGKILL)
        self.lab.start_agent(site)

    def firsts(self):
        """Where each stream is now."""
        return {stream: len(stream.sent) for stream in self.traffic.streams}

    def assert_nothing_lost(self, streams, firsts):
        self.traffic.settle()
        self.assertEqual({stream.name: stream.outages(firsts[stream]) for stream in streams
                          if stream.lost(firsts[stream])}, {})


def main():
    unittest.main(argv=sys.argv[:1] + sys.argv[3:], verbosity=2)
