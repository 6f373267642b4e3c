"""Reads off optimised programs and libraries that they are hardened: hardening_test.py FILE ..."""
import os
import re
import subprocess
import sys


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def shortcomings(file):
    """Of one file, and which of the marks of protected code it bears."""
    headers = output("readelf", "--wide", "--file-header", "--program-headers", "--dynamic", file)
    code = output("objdump", "--disassemble", "--no-show-raw-insn", file)
    imports = output("nm", "--dynamic", "--undefined-only", file)
    # By address, for a function may have several names. _init and _fini are the C library's.
    names = output("nm", *([] if "INTERP" in headers else ["--dynamic"]), "--defined-only", file)
    functions = set(re.findall(r"^(\w+) T (?!_init|_fini|_start)", names, re.M))
    landing = set(re.findall(r"^([0-9a-f]+) <.*>:\n.*\tendbr64", code, re.M))
    wanted = {
        "position independent": re.search(r"Type: +DYN ", headers),
        "bound at start": re.search(r"Flags:.* NOW", headers),
        "read-only after relocation": "GNU_RELRO" in headers,
        "stack not executable": re.search(r"GNU_STACK .* RW +0x", headers),
        "code not writable": "TEXTREL" not in headers,
        "stack protector": "__stack_chk_fail" in imports,
        "indirect branches land on marks": functions and functions <= landing,
    }
    marks = {"fortified functions": re.search(r"__(?!stack)\w+_chk@", imports),
             "probed stack": re.search(r"\torq +\$0x0,\(%rsp\)", code)}
    return [what for what, found in wanted.items() if not found], marks


if absent := [path for path in sys.argv[1:] if not os.path.exists(path)]:
    print(f"skipped: not built: {', '.join(absent)}")
    sys.exit(77)
missing = {"fortified functions", "probed stack"}  # not every file has a use for these
failed = False
for path in sys.argv[1:]:
    lacks, found_marks = shortcomings(path)
    missing -= {mark for mark, found in found_marks.items() if found}
    failed |= bool(lacks)
    print(f"{path}: {'lacks ' + ', '.join(lacks) if lacks else 'hardened'}")
if missing:
    print("in none of them: " + ", ".join(sorted(missing)))
sys.exit(failed or bool(missing))
