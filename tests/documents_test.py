"""The documents against the product: documents_test.py BUILD_DIR SOURCE_DIR.

Every command that they show is run, here or where `elsewhere` says; every reason, state and line of the
log is in them as the source has it; listings, options and links are right. metrics_test compares the
metrics, operations_test the reference of the configuration.
"""
import glob
import os
import re
import shlex
import shutil
import socket
import subprocess

from products import Products, await_, branch, main, programs, read, source, write

pages = sorted(os.path.relpath(page, source) for pattern in ("*.md", "docs/*.md", "docs/man/*.md")
               for page in glob.glob(f"{source}/{pattern}"))
on_linux = ("docs/configuration-forwarding.md", "docs/ipsec.md", "docs/linux.md")
# Commands that are not run here: what runs them, or why nothing does.
elsewhere = {
    r"scripts/|(cmake|ctest) ": "developers and CI run them all the time",
    r"cmake .*host|printf .*/host": "package_test",
    r"ip route add 10.77.0.0/16": "forwarding_test, as everything in docs/forwarding.md",
    r"nav-agent --remove-forwarding": "forwarding_test",
    r"examples/monitoring/fleet|prometheus |curl ": "metrics_test, without a collector",
    r"(apt|cp|install|adduser) ": "they change the machine; scripts/fresh installs the packages",
    r"(systemctl|journalctl|systemd-analyze) ": "they need systemd as the first process",
    r"swanctl |openssl |git ": "they need charon as a service, a certificate, a repository",
    r"(ip|nft) monitor|ping ": "they do not end",
}
# A router with two providers, in a network of its own, that becomes the command behind it.
router = ["unshare", "--user", "--map-root-user", "--net", "sh", "-ec", """
    ip link set lo up
    for each in wan1=203.0.113.1/24 wan2=192.0.2.1/24; do
        ip link add ${each%=*} type veth peer name to-${each%=*}
        ip addr add ${each#*=} dev ${each%=*}
        ip link set to-${each%=*} up
        ip link set ${each%=*} up
    done
    exec "$@" """, "sh"]


def commands_of(page):
    """The lines of the page's indented blocks that begin with the name of a program."""
    text = re.sub(r"^```.*?^```", "", read(page), flags=re.M | re.S)
    for block in re.findall(r"(?<=\n\n)(?: {4}.*\n)+", text):
        if re.match(r" {4}[a-z./][\w./-]*(?= [^{]|\n)", block):
            yield from (re.sub(r"\s+#.*", "", line.strip()) for line in block.splitlines())


def mentioned_in(page):
    """The commands between back quotes."""
    return re.findall(r"`((?:nav-?\w+|ip|nft|ss|bridge|ping|\w+ctl|systemd-\w+|adduser|openssl|git|"
                      r"c(?:make|test)|scripts/\w+) [^`\n]+)`", read(page))


def is_elsewhere(command):
    return any(re.match(each, command) for each in elsewhere)


def phrases(file, begin="", end=r"\Z"):
    """What of the texts in the code from `begin` to `end` an operator reads: those of several words,
    except for the log's."""
    code = re.search(f"(?s){begin}.*?{end}", re.sub(r"(?s)DUOLOG\(.*?\);", "", read(file)))[0]
    return {text for text in literals(code) if " " in text}


def literals(code):
    """The texts in C++ code, without what surrounds them."""
    code = re.sub(r'(?<!\\)"\s*\n\s*"', "", code)
    texts = (text.replace('\\"', '"') for text in re.findall(r'"((?:[^"\\\n]|\\.)*)"', code)
             if not re.match("/|navctl |.*%s", text))
    return [text for text in (each.strip(edges) for each in texts) if re.search("[A-Za-z]", text)]


edges = " :;,.'\"()[]-<>"
reasons = {
    "docs/operating.md": {
        *phrases("agent/observe/PathReason.cpp", end="std::vector<ConfiguredPath>"),
        *phrases("agent/observe/PathReason.cpp", "PathState stateOf", "\n}"),
        *phrases("agent/observe/Explain.cpp", "class Applications", "\nQuestion "),
        *phrases("agent/linux/LinuxPlatform.cpp", "PathDetail LinuxPlatform", "\n}"),
        *phrases("agent/router/Constraints.cpp")},
    "docs/ipsec.md": {
        *re.findall(r'",\s*"([^"]+)"}', read("agent/linux/ipsec/Sas.cpp")),
        *phrases("agent/linux/ipsec/Connection.cpp"), *phrases("agent/linux/ipsec/IpsecService.cpp"),
        *phrases("agent/linux/ipsec/ViciConnection.cpp"),
        *phrases("agent/sim/SimRouter.cpp", "PathDetail SimRouter", "\n}")}}
states = {
    *literals(re.search(r"(?s)stateWord\(.*?\n}", read("nav/root/NavRootSm.cpp"))[0]),
    *literals(re.search(r'(?s)alive.is_null[^,]*', read("navctl/Show.cpp"))[0]),
    *(word for enumeration in ("agent/router/ConnectionState.h", "agent/shell/Events.h")
      for word in re.search(r"enum class .*?{(.*?)}", read(enumeration))[1].replace(",", "").split())}


class DocumentsTest(Products):
    def place(self):
        """A run directory with the files that commands name."""
        place = self.run_dir()
        for name in ("examples", "scripts"):
            os.symlink(f"{source}/{name}", f"{place}/{name}")
        for name in ("branch/branch", "branch/world", "linux/config", "linux/forwarding"):
            shutil.copy(f"{source}/examples/{name}.json", place)
        os.chmod(write(f"{place}/token", "secret\n"), 0o600)
        return place

    def run_command(self, place, command):
        program, *arguments = shlex.split(command)
        if program == "nav-agent":
            with socket.create_server(("127.0.0.1", 0)) as free:
                port = free.getsockname()[1]
            self.agent(place, *(each.replace(":9473", f":{port}") for each in arguments), cwd=place)
        elif program == "nav-forwarder":
            self.start(place, program, *arguments)
            await_("counters come", lambda: "Path" in self.navctl(place, "show", "counters").stdout)
        elif "watch" in arguments or "--watch" in arguments:
            watch = self.start(place, program, *arguments, stdout=subprocess.PIPE)
            self.assertTrue(watch.stdout.readline())
        else:
            done = self.navctl(place, *arguments, cwd=place)
            if arguments[0] != "diff" or "difference" not in done.stderr:
                self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_commands_on_a_simulated_router(self):
        for page in pages:
            commands = [each for each in commands_of(page) if not is_elsewhere(each)]
            if not commands or page in on_linux:
                continue
            place = self.place()
            if not commands[0].startswith("nav-agent"):
                self.agent(place, *branch)
                await_("paths are up", lambda at=place: self.errors(at).count(" is up by ") == 7)
            for command in commands:
                with self.subTest(page, command=command):
                    self.run_command(place, command)

    def test_commands_on_linux(self):
        if subprocess.run([*router, "true"], check=False, capture_output=True).returncode != 0:
            self.skipTest("user namespaces, or veth links in them, are refused")
        place = self.place()
        agent = self.agent(place, "--platform", "linux", "--config", "config.json", "--forwarding",
                           "forwarding.json", under=router, cwd=place)
        commands = [(page, each) for page in on_linux for each in commands_of(page)]
        commands += [(page, each) for page in pages if page != "docs/forwarding.md"
                     for each in mentioned_in(page) if not each.startswith("nav")]
        words = {"A": "198.51.100.2", "I": "wan1"}
        for page, command in commands:
            if not is_elsewhere(command):
                with self.subTest(page, command=command):
                    if command.startswith("nav"):
                        self.run_command(place, command)
                    else:
                        subprocess.run(["nsenter", f"--target={agent.pid}", "--user", "--net",
                                        "--preserve-credentials", *(words.get(each, each)
                                                                    for each in command.split())],
                                       check=True, stdout=subprocess.DEVNULL)

    def test_commands_and_options_exist(self):
        known = "".join(map(read, glob.glob(f"{source}/scripts/*[!_]")))
        shown_in = [(page, each) for page in pages for each in (*commands_of(page), *mentioned_in(page))]
        self.assertFalse([each for each in elsewhere
                          if not any(re.match(each, command) for _, command in shown_in)])
        for page, command in [("", program) for program in programs] + shown_in:
            program, *words = shlex.split(command)
            with self.subTest(page, command=command):
                if program in programs:
                    words = [word for word in words if not word.startswith("-") and not word.isupper()]
                    shown = self.run_to_end(program, *words, "--help").stdout
                    self.assertIn("--help", shown)
                    self.assertFalse(words and re.search("Usage: .* SUBCOMMAND$", shown, re.M))
                    known += shown
                elif program.startswith("scripts/"):
                    shown = read(program)
                else:
                    continue
                self.assertLessEqual(set(re.findall("(?<= )--[a-z-]+", command)),
                                     {"--json", "--run-dir", *re.findall("--[a-z-]+", shown)})
        for page in pages:
            self.assertLessEqual(set(re.findall("`(--[a-z-]+)", read(page))),
                                 set(re.findall("--[a-z-]+", known)), page)

    def test_what_operators_see(self):
        tables = {page: re.findall(r"^\| `.*", re.search(section, read(page), re.S)[0], re.M)
                  for page, section in (("docs/operating.md", "### Why.*## validate"),
                                        ("docs/log.md", ".*"), ("docs/ipsec.md", "## When a path.*"))}
        missing, used = [], set()

        def look_up(page, *texts):
            found = [line for line in tables[page] if all(text in line.replace("`", "") for text in texts)]
            used.update(found)
            if not found:
                missing.append((page, texts))

        for page, texts in reasons.items():
            for text in texts:
                look_up(page, text)
        for file in glob.glob(f"{source}/[anp]*/**/*.[ch]*", recursive=True):
            for facility, level, call in re.findall(
                    r"(?s)(?:DUOLOG\(\s*(\w+)Trace,\s*([1-5]),| report\(place,)(.*?)\);", read(file)):
                look_up("docs/log.md", f"| {facility or 'linux'} {level or '3'} |", *literals(call))
        self.assertFalse(missing)
        stale = [line for lines in tables.values() for line in lines
                 if line not in used and not re.search(r"` \| \d \|", line)]
        self.assertFalse(stale)
        for state in states:
            self.assertIn(f"`{state}`", read("docs/operating.md"))
        self.assertEqual(set(re.findall(r"`(Nav\w+)`", read("docs/metrics.md"))),
                         set(re.findall(r"alert: (\w+)", read("examples/monitoring/alerts.yml"))))

    def test_listings_and_links(self):
        def flat(text):
            return [line.strip() for line in text.strip().splitlines()]

        example = {"cpp": flat(read("examples/host/main.cpp")),
                   "cmake": flat(read("examples/host/CMakeLists.txt"))}
        for language, listing in re.findall(r"(?s)```(\w+)\n(.*?)```", read("docs/embedding.md")):
            lines, whole = flat(listing), example[language]
            self.assertIn(lines, [whole[at:at + len(lines)] for at in range(len(whole))])
        self.assertLessEqual(set(glob.glob("docs/*.md", root_dir=source)),
                             set(re.findall(r"\((docs/.*?)\)", read("README.md"))))
        for page in pages:
            for target in re.findall(r"\]\(([^)\s]+)\)", read(page)):
                file, _, anchor = target.partition("#")
                path = os.path.join(os.path.dirname(page), file) if file else page
                self.assertTrue(os.path.exists(f"{source}/{path}"), f"{page}: {target}")
                if anchor:
                    headings = re.findall(r"^#+ (.*)", read(path), re.M)
                    self.assertIn(anchor, [re.sub(r"[^\w -]", "", each).lower().replace(" ", "-")
                                           for each in headings], page)


if __name__ == "__main__":
    main()
