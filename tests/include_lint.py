#!/usr/bin/env python3
"""Every folder may include only from the floors below its own; the two libraries need nothing but
the standard library and Linux. Prints each offending line and fails if there is one."""
import re
import sys
from pathlib import Path

root = Path(sys.argv[1])

# From the bottom up. A folder may include itself and every floor before it.
floors = [
    ["platform"],  # the export macro
    ["platform/netz"],
    ["platform/trace", "platform/loom"],
    ["platform/vel"],
    ["platform/shard"],
    ["platform/services"],
    ["nav"],  # the export macro
    ["nav/types"],
    ["nav/config"],
    ["nav/counters"],
    ["nav/path", "nav/lb", "nav/policy"],
    ["nav/root"],
    ["agent/base"],
    ["client"],
    ["agent/model"],
    ["agent/shell"],
    ["agent/router"],
    ["agent/linux/kernel"],
    ["agent/linux/forwarding", "agent/linux/quality"],
    ["agent/linux/ipsec"],
    ["agent/sim", "agent/linux", "agent/observe"],
    ["agent/metrics"],
    ["agent/host"],
]
height = {folder: i for i, floor in enumerate(floors) for folder in floor}
# The command line talks to an agent over sockets; it shares the check of a configuration with it.
height["navctl"] = len(floors)
height["forwarder"] = len(floors) + 1
reading = {"platform", "platform/vel", "platform/shard", "nav/counters"}
only = {"client": {"agent/base"},
        "navctl": {"agent/base", "agent/model", "client", "nav/types"} | reading,
        "forwarder": {"agent/base", "client"} | reading}

include = re.compile(r'\s*#\s*include\s*([<"])([^>"]+)[>"]')
bad = []
for folder in height:
    for source in sorted((root / folder).glob("*.*")):
        if source.suffix not in (".h", ".cpp"):
            continue
        for number, line in enumerate(source.read_text().splitlines(), 1):
            match = include.match(line)
            if not match:
                continue
            kind, path = match.groups()
            target = str(Path(path).parent)
            where = f"{source.relative_to(root)}:{number}: {line.strip()}"
            if kind == "<":
                if folder.startswith(("platform", "nav")) and folder != "navctl" and "/" in path:
                    if not path.startswith(("sys/", "linux/", "netinet/", "arpa/", "net/", "bits/")):
                        bad.append(where + "  (neither standard library nor Linux)")
            elif target not in height:
                bad.append(where + "  (no folder of this project)")
            elif target != folder:
                if height[target] >= height[folder]:
                    bad.append(where + "  (not a floor below)")
                elif folder in only and target not in only[folder]:
                    bad.append(where + "  (not for the command line)")
print("\n".join(bad) if bad else f"include lint: {len(height)} folders keep to their floors")
sys.exit(1 if bad else 0)
