"""navctl against an agent whose services nobody plays: navctl_test.py BUILD_DIR SOURCE_DIR.

What it prints, what reaches the agent, how it ends.
"""
import fcntl
import json
import os
import pty
import re
import socket
import struct
import subprocess
import termios

from products import Products, await_, main, patience, programs, read, tied, write

group = "/cliConfig/pathGroupConfig"


class Terminal:
    """A program on a terminal of its own."""

    def __init__(self, rows, columns, *command):
        self.process, self.descriptor = pty.fork()
        if self.process == 0:
            os.environ["TERM"] = "xterm"
            self.descriptor = 0
            self.resize(rows, columns)
            os.execvp(tied[0], [*tied, *command])
        self.written = b""
        os.set_blocking(self.descriptor, False)

    def resize(self, rows, columns):
        fcntl.ioctl(self.descriptor, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def lines(self):
        """Those of all frames so far."""
        try:
            while chunk := os.read(self.descriptor, 65536):
                self.written += chunk
        except OSError:
            pass  # nothing more now, or the program has ended
        return re.split(r"\x1b\[K(?:\r\n)?", self.text)

    @property
    def text(self):
        return self.written.decode(errors="replace")

    def status(self):
        await_("it ends", lambda: self.lines() and os.waitid(
            os.P_PID, self.process, os.WEXITED | os.WNOHANG | os.WNOWAIT))
        self.lines()
        return os.waitstatus_to_exitcode(os.waitpid(self.process, 0)[1])


class NavctlTest(Products):
    def setUp(self):
        super().setUp()
        self.directory = self.run_dir()
        self.process = self.agent(self.directory, "--platform", "manual")

    def says(self, *arguments, status=0, out="", err="", **options):
        done = self.navctl(self.directory, *arguments, **options)
        self.assertEqual(done.returncode, status, (arguments, done.stderr))
        self.assertIn(out, done.stdout, arguments)
        self.assertIn(err, done.stderr, arguments)
        return done.stdout

    def file(self, name, text):
        return write(f"{self.directory}/{name}", text)

    def test_exit_status_says_who_is_at_fault(self):
        self.says("get", "/cliConfig/udpPortConfig", out="4793\n")
        self.says("get", "/b", status=1, err="navctl: /b: not found\n")
        self.says("--json", "get", "/b", status=1, err='{"ok":false,"error":"/b: not found"}\n')
        for command in ("get", "watch", "--help"):
            with open("/dev/full", "w", encoding="utf-8") as full:
                done = subprocess.run([programs["navctl"], "--run-dir", self.directory, command,
                                       "/cliConfig"], stdout=full, stderr=subprocess.PIPE, text=True,
                                      timeout=60, check=False)
            self.assertEqual(done.returncode, 1, command)
            self.assertTrue(done.stderr.startswith("navctl: standard output: "), done.stderr)
        for wrong in ((), ("get", "/a", "/b"), ("show", "sites", "--raw"), ("load", self.directory),
                      ("trace", "--last", "many"), ("batch", "/none"), ("completion", "fish")):
            self.assertEqual(self.says(*wrong, status=2), "", wrong)
        self.says("show", "moon", status=2, err='unknown command "moon"; see navctl --help\n')
        self.says("--fast", "--json", status=2, err='{"ok":false,"error":"unknown option \\"--fast\\""}')
        os.chmod(self.directory, 0)
        as_anybody = ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]
        done = subprocess.run([*(as_anybody if os.geteuid() == 0 else []), programs["navctl"],
                               "--run-dir", self.directory, "ping"], capture_output=True, text=True,
                              timeout=60, check=False)
        os.chmod(self.directory, 0o700)
        self.assertEqual(done.returncode, 4, done.stderr)
        self.assertIn("permission denied: " + self.directory, done.stderr)
        self.stop(self.process)
        for request in (("get", "/a"), ("show", "paths"), ("batch", "-")):
            self.says(*request, status=3, err="no agent at", input="")

    def test_values_and_files_reach_the_agent_as_they_were_meant(self):
        self.says("set", f"{group}[a]", '{"localIntf": ["w1"]}')
        self.says("set", f"{group}[a]/ipsecProfile", "wan 1")
        self.says("--json", "get", f"{group}[a]",
                  out='"localIntf":["w1"],"remoteViaConfig":{},"ipsecProfile":"wan 1"')
        self.says("set", "/cliConfig/udpPortConfig", "-5", status=1, err="0 to 65535, got -5")
        warning = 'warning: VRF "v" names policy "p", which is not configured\n'
        self.says("set", "/cliConfig/vrfConfig[v]", "{}")
        good = self.file("good", '{"vrfConfig": {"v": {"policyName": "p"}}}')
        bad = self.file("bad", '{\n"vrfConfig": {\n"v": {\n"policy": 1}}}')
        reason = f"navctl: {bad}: line 4: /cliConfig/vrfConfig[v]/policy: unknown attribute\n"
        self.says("load", bad, status=1, err=reason)
        self.says("del", "/cliConfig/vrfConfig[v]")
        self.says("load", good, err=warning)

        # A file is replaced in place of a link's target, with its mode, or not at all.
        os.chmod(self.file("target", "old"), 0o640)
        os.symlink("target", f"{self.directory}/saved")
        self.says("save", f"{self.directory}/saved")
        self.assertTrue(os.path.islink(f"{self.directory}/saved"))
        self.assertEqual(os.stat(f"{self.directory}/target").st_mode & 0o777, 0o640)
        self.says("load", f"{self.directory}/saved", err=warning)
        self.says("save", "/dev/full", status=2)
        self.says("save", "/no/where", status=2, err="navctl: /no/where: No such file or directory\n")
        self.stop(self.process)
        self.says("check", good, err=warning)  # by itself
        self.says("check", bad, status=1, err=reason)
        self.says("check", "/none", status=2)

    def test_keys_are_saved_for_their_owner_alone(self):
        alone = ["unshare", "--user", "--map-root-user", "--net"]
        if subprocess.run([*alone, "true"], check=False).returncode != 0:
            self.skipTest("user namespaces are refused")
        self.stop(self.process)
        empty, key = self.file("empty", "{}"), self.file("key", '{"probe": {"key": "s3cret"}}')
        self.agent(self.directory, "--platform", "linux", "--config", empty, "--forwarding", key,
                   under=alone)
        saved = self.file("saved", "old")
        self.says("save", "--forwarding", saved)
        self.assertEqual(os.stat(saved).st_mode & 0o777, 0o600)
        self.assertIn("s3cret", read(saved))
        self.says("load", empty, "--forwarding", saved)
        self.assertNotIn("s3cret", self.says("save", "--forwarding", "-"))
        for wrong in (("save", "--forwarding", "/dev/null"), ("save", "-", "--forwarding", "-"),
                      ("load",)):
            self.says(*wrong, status=2)
        bound = self.file("bound", '{"application": {"x": {"match": {"1": {}}}}}')
        self.says("check", empty, "--forwarding", bound,
                  err='warning: application "x" is not named by any policy\n')

    def test_ipsec_profiles_are_checked(self):
        profiles = json.loads(read("examples/linux/ipsec.json"))["profile"]
        config = self.file("config", {"pathGroupConfig": {
            name: {"ipsecProfile": name} for name in ("branch", "gold")}})
        key, place = {"presharedKey": "s3cret"}, "line 1: /ipsecConfig/profile[p]"
        files = dict.fromkeys(("certificate", "privateKey"), "/none") | {"authority": ["/none"]}
        made = {name: self.file(name, f"{name}\n-----BEGIN {text}-----\n") for name, text in (
            ("certificate", "CERTIFICATE"), ("privateKey", "EC PRIVATE KEY"))}
        os.chmod(made["privateKey"], 0o600)
        for profile, error in (
                (profiles["branch"], None),
                (profiles["partner"], "/privateKey: /etc/nav/router.key: No such file or directory"),
                ({}, ": required: presharedKey, or certificate, privateKey and authority"),
                (key | files, ": either presharedKey or certificates, not both"),
                (files | {"authority": []}, "/authority: required: files in PEM"),
                (made | {"authority": [made["certificate"]]}, None),
                (made | {"certificate": made["privateKey"], "authority": ["/none"]},
                 f"/certificate: {made['privateKey']}: expected PEM with a line \"-----BEGIN CERTIFICATE-----\""),
                (key | {"proposals": "aes128-sha256,"}, "/proposals: expected algorithms such as"),
                (key | {"dpdDelay": 0}, "/dpdDelay: expected seconds from 1 to 3600, got 0"),
                (key | {"localID": "a"}, "/localID: unknown attribute")):
            text = self.file("ipsec", {"profile": {"p": profile}})
            os.chmod(text, 0o600)
            done = self.navctl(self.directory, "check", "--ipsec", text)
            self.assertEqual(done.returncode, 1 if error else 0, (profile, done.stderr))
            self.assertIn(place + error if error else "", done.stderr)
            self.assertNotIn("s3cret", done.stdout + done.stderr)
        profiles = self.file("profiles", {"profile": {"branch": key}})
        os.chmod(profiles, 0o640)
        self.says("check", "--ipsec", profiles, status=1, err="must have mode 0600, not 0640")
        os.chmod(profiles, 0o600)
        self.says("check", config, "--ipsec", profiles,
                  err='path group "gold" names IPsec profile "gold", which is not configured')

    def test_a_batch_goes_on_after_a_refusal_and_says_so_at_the_end(self):
        port = '{"op":"get","path":"/cliConfig/udpPortConfig","id":2}'
        self.says("batch", "-", input='{"op":"get","path":"/b","id":1}\n\n' + port, status=1,
                  out='{"id":1,"ok":false,"error":"/b: not found"}\n{"id":2,"ok":true,"value":4793}\n')
        self.says("batch", self.file("batch", port + "\n"))
        self.says("batch", "-", input="x" * (32 << 20) + "\n", status=1)

    def test_a_newline_may_come_alone(self):
        directory = self.run_dir()
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(f"{directory}/control.sock")
            server.listen()
            get = self.start(directory, "navctl", "get", "/a", stdout=subprocess.PIPE)
            with server.accept()[0] as client:
                client.send(b'{"ok":true,"value":7}')
                await_("it has been read",
                       lambda: fcntl.ioctl(client, termios.TIOCOUTQ, bytes(4)) == bytes(4))
                client.send(b"\n")
                self.assertEqual(get.communicate(timeout=patience)[0], "7\n")

    def test_a_watch_says_when_it_fell_behind(self):
        self.says("watch", "/b", status=1)
        watch = self.start(self.directory, "navctl", "watch", "/cliConfig/pathGroupConfig[a]",
                           stdout=subprocess.PIPE)
        self.assertEqual(watch.stdout.readline(), "null\n")
        sets = (json.dumps({"op": "set", "path": f"{group}[a]/ipsecProfile",
                            "value": str(number) + "x" * 10000}) + "\n" for number in range(1000))
        self.says("batch", "-", input="".join(sets))
        events, _ = watch.communicate(timeout=60)
        self.assertTrue(events.startswith('{"event":"set","path":"/cliConfig/pathGroupConfig[a]'))
        self.assertTrue(events.endswith('\n{"event":"overrun"}\n'))
        self.assertEqual(watch.returncode, 1)
        self.assertIn("did not keep up", self.errors(self.directory))

    def test_a_table_refreshes_in_place_and_marks_changes(self):
        for name in "abc":
            self.says("set", f"{group}[{name}]/ipsecProfile", "silver")
        groups = [programs["navctl"], "--run-dir", self.directory, "show", "groups", "--watch"]
        terminal = Terminal(24, 80, *groups)

        def awaits(*lines):
            await_(lines, lambda: all(any(
                shown.startswith(line) for shown in terminal.lines()) for line in lines))

        awaits("  a           -           silver         0      0")
        self.says("set", f"{group}[b]/ipsecProfile", "gold")
        self.says("del", f"{group}[a]")
        self.says("set", f"{group}[d]", "{}")
        awaits("* b           -           \x1b[7mgold\x1b[0m           0      0",
               "  c           -           silver         0      0",
               "- a           -           silver         0      0", "+ \x1b[7md\x1b[0m ")
        awaits("  b           -           gold           0      0")
        terminal.resize(4, 80)
        awaits("  b           -           gold           0      0", "… 2 more lines, 0 of them marked")
        os.write(terminal.descriptor, b"\x03")
        self.assertEqual(terminal.status(), 0)
        back = "\x1b[0m\x1b[?25h\x1b[?7h\x1b[?1049l"
        self.assertTrue(terminal.text.endswith(back), terminal.text[-200:])
        self.assertEqual(terminal.text.count("\x1b[?1049h"), 1)

        terminal = Terminal(24, 80, *groups)
        awaits("  b           -           gold           0      0")
        self.stop(self.process)
        self.assertEqual(terminal.status(), 3)
        self.assertIn(back + "navctl: no agent at ", terminal.text)

    def test_a_refused_change_says_where_and_why_and_changes_nothing(self):
        def everything():
            return [self.says("get", root) for root in ("/cliConfig", "/navStatusDir", "/nexthopStatus")]

        self.says("set", f"{group}[a]/localIntf[w1]", "true")
        self.says("set", "/nexthopStatus/vrf[default]/nexthop[192.0.2.1]", '{"fecId":5}')
        before, path = everything(), "/navStatusDir/navPathStatusDir/pathStatus[x]/pathStatusEntry"
        for place, value, reason in (
                ("cliConfig/udpPortConfig", 1, "expected a '/'"),
                ("/nowhere", 1, "/nowhere: not found"),
                ("/cliConfig/udpPortConfig[1]", 1, "takes no key"),
                (f"{group}/ipsecProfile", "x", "needs a key"),
                ("/cliConfig/name", "other", 'the key is "cliConfig"'),
                # The fault comes last; what stands before it must not have been done.
                ("/cliConfig", {"udpPortConfig": 1, "pathGroupConfig": {
                    "a": {"localIntf": ["w"]}, "b": {"name": "c"}}}, f'{group}[b]/name: the key is "b"'),
                ("/nexthopStatus/vrf[blue]/nexthop", {"192.0.2.7": {}, "192.0.2.8": {"addr": "192.0.2.9"}},
                 "/nexthop[192.0.2.8]: expected the key 192.0.2.8"),
                (f"{path}[192.0.2.1,192.0.2.2]", {}, "a key of 3 fields"),
                (f"{path}[192.0.2.1,192.0.2.2,0]/pathInfo/pathIndex", 1, "set whole"),
                ("/navDb/lbId", 1, "belongs to"),
                (f"{group}[a]/localIntf[w2]", None, "[w2]: not found"),
                (group, None, "by its key")):
            change = ["del", place] if value is None else ["set", place, json.dumps(value)]
            self.says(*change, status=1, err=reason)
            self.assertEqual(everything(), before, change)

    def test_tables_fit_the_terminal(self):
        self.says("set", f"{group}[zür\x1b[2Jich]",
                  '{"localIntf":["wän"],"remoteViaConfig":{"2001:db8::7":{"remoteVia":["2001:db8::5"]}}}')
        self.says("set", "/cliConfig/navConfigured", "true")
        # In the order in which a narrow terminal asks for it: no empty column, no date of today, words
        # in several lines, no minor column, parts of words. "#" stands for a digit of the time.
        for width, rows in (
                (110, ["PATH GROUP  INTERFACE  SITE         DESTINATION  STATE  SINCE                REASON",
                       "zür?[2Jich  wän        2001:db8::7  2001:db8::5  down   ####-##-## ##:##:##  "
                       "interface wän does not exist"]),
                (80, ["PATH GROUP  INTERFACE  SITE         DESTINATION  STATE  SINCE     REASON",
                      "zür?[2Jich  wän        2001:db8::7  2001:db8::5  down   ##:##:##  interface wän",
                      "                                                                  does not exist"]),
                (60, ["INTERFACE  SITE       DESTINATIO  STATE  SINCE     REASON",
                      "                      N",
                      "wän        2001:db8:  2001:db8::  down   ##:##:##  interface",
                      "           :7         5                            wän does",
                      "                                                   not exist"])):
            terminal = Terminal(24, width, programs["navctl"], "--run-dir", self.directory, "explain")
            self.assertEqual(terminal.status(), 0)
            self.assertIn("\x1b[31mdown\x1b[0m", terminal.text)
            plain = re.sub(r"\x1b\[\d*m", "", terminal.text)
            plain = re.sub(r"(\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d",
                           lambda time: re.sub(r"\d", "#", time[0]), plain)
            self.assertEqual(plain.splitlines(), ["paths", *rows])

    def test_tables_of_what_services_publish(self):
        for path, value in (
                ("/ipsecPathStatusDir/ipsecPathStatus[::1,::2,v]", {"connectionState": 4}),
                ("/nexthopConfig/vrf[v]/nexthop", ["::3"]),
                ("/nexthopStatus/vrf[v]/nexthop[::3]", {"fecId": 1}),
                ("/forwardingStatus/fec[1]", [{"hop": "10.0.0.4", "intfId": "w4"}]),
                ("/forwarding6Status/fec[1]", [{"hop": "::6", "intfId": "w6"}])):
            self.says("set", path, json.dumps(value))
        self.assertIn("down", self.says("show", "ipsec").splitlines()[1])
        self.assertEqual(self.says("show", "nexthops").split()[-5:], ["::3", "resolved", "1", "::6", "w6"])
        self.assertEqual(self.says("show", "paths", "--raw"), "{ }")

    def test_completion_knows_commands_paths_and_keys(self):
        for name in ("internet", "inner", "mpls"):
            self.says("set", f"{group}[{name}]/localIntf", f'["{len(name)}1", "{len(name)}2"]')
        # A key is raw in JSON; in a path, and in a key of several fields, it is escaped.
        self.says("set", f"{group}[in\\\\out\\]]", '{"name":"in\\\\out]"}')
        self.says("set", r"/ipsecPathStatusDir/ipsecPathStatus[192.0.2.1,2001:db8::1,r\,\]\\]",
                  r'{"key":{"srcAddr":"192.0.2.1","dstAddr":"2001:db8:0::1","vrfName":"r,]\\"}}')
        self.says("set", "/ipsecPathStatusDir", self.says("get", "/ipsecPathStatusDir"))
        self.assertEqual(len(json.loads(self.says("get", "/ipsecPathStatusDir/ipsecPathStatus"))), 1)
        for words, expected in (
                (["sh"], "show\n"), (["show", "paths", "--r"], "--raw\n--run-dir\n"),
                (["get", "/cliConfig/p"], f"{group}\n/cliConfig/policyConfig\n"),
                (["set", f"{group}[in"], f"{group}[in\\\\out\\]]\n{group}[inner]\n{group}[internet]\n"),
                (["del", f"{group}[mpls]/localIntf["],
                 f"{group}[mpls]/localIntf[41]\n{group}[mpls]/localIntf[42]\n"),
                (["get", f"{group}[in\\\\"], f"{group}[in\\\\out\\]]\n"),
                (["get", "/nowhere/"], ""), (["set", "/cliConfig", ""], "")):
            self.assertEqual(self.says("__complete", "--", *words), expected, words)


if __name__ == "__main__":
    main()
