"""Counts the instructions of operations with callgrind and compares them with their budgets.

    bench/instructions.py BUILD_DIR [--scaling] [--update]

bench/budgets.json contains the instructions of each operation and a common slack, because hash seeds
differ between runs and libraries differ slightly between machines. Budgets apply to one compiler;
with another one the check is skipped.
"""
import argparse
import json
import pathlib
import re
import subprocess
import sys
import tempfile

import scaling

root = pathlib.Path(__file__).resolve().parent.parent
table = root / "bench/budgets.json"
skipped = 77


def count(build, what):
    """{(operation, what varied): {how many of it: instructions of one operation}}"""
    with tempfile.TemporaryDirectory() as directory:
        dumps = pathlib.Path(directory, "dumps")
        run = subprocess.run(["valgrind", "--quiet", "--tool=callgrind", "--collect-atstart=no",
                              "--combine-dumps=yes", f"--callgrind-out-file={dumps}",
                              build / "bench/nav-instructions", what])
        if run.returncode:
            sys.exit(f"FAILED nav-instructions {what} ended with {run.returncode}")
        found = re.findall(r"^desc: Trigger: Client Request: (.*)\n(?:.*\n)*?totals: (\d+)$",
                           dumps.read_text(), re.MULTILINE)
    costs = {}
    for label, instructions in found:
        operation, varied, number, times = label.split("|")
        costs.setdefault((operation, varied), {})[int(number)] = int(instructions) / int(times)
    if not costs:
        sys.exit("callgrind counted nothing")
    return costs


def compiler(build):
    """The compiler and its major version."""
    (cache,) = build.glob("CMakeFiles/*/CMakeCXXCompiler.cmake")
    about = dict(re.findall(r'^set\((\w+) "([^"]*)"\)$', cache.read_text(), re.MULTILINE))
    return about["CMAKE_CXX_COMPILER_ID"] + " " + about["CMAKE_CXX_COMPILER_VERSION"].split(".")[0]


def check(costs, budgets, slack):
    """Prints the operations beside their budgets; returns what is wrong."""
    wrong, cheaper = [], []
    print(f"{'operation':20} {'instructions':>13} {'budget':>11}")
    for operation, cost in costs.items():
        budget = budgets.get(operation)
        if budget is None:
            wrong.append(f"{operation}: has no budget")
            continue
        print(f"{operation:20} {cost:13,.1f} {budget:11,} {cost / budget - 1:+8.1%}")
        if cost > budget * (1 + slack):
            wrong.append(f"{operation}: {cost:,.0f} instructions, {budget:,} are budgeted")
        if cost < budget * (1 - slack):
            cheaper.append(operation)
    wrong += [f"{operation}: is budgeted, but was not run" for operation in budgets.keys() - costs]
    if cheaper:
        print(f"note: much less than budgeted: {', '.join(cheaper)}; lower the budget with "
              "scripts/instructions --update")
    return wrong


def gate(build, update):
    costs = {operation: cost[0] for (operation, _), cost in count(build, "full").items()}
    known = json.loads(table.read_text())
    if update:
        known |= {"compiler": compiler(build),
                  "instructions": {name: round(cost) for name, cost in costs.items()}}
        table.write_text(json.dumps(known, indent=4) + "\n")
    elif known["compiler"] != compiler(build):
        print(f"skipped: the budgets are of {known['compiler']}, this is {compiler(build)}")
        sys.exit(skipped)
    return check(costs, known["instructions"], known["slack"])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--scaling", action="store_true")
    parser.add_argument("--update", action="store_true")
    arguments = parser.parse_args()
    if arguments.scaling:
        wrong = scaling.check(count(arguments.build, "scaling"), arguments.update)
    else:
        wrong = gate(arguments.build, arguments.update)
    for line in wrong:
        print(f"FAILED {line}")
    sys.exit(bool(wrong))


main()
