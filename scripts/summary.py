"""Summarises the JUnit files that ctest wrote: summary.py FILE ...

Prints a line for each skipped test with its reason, and one with the totals.
"""
import os
import re
import sys
import xml.etree.ElementTree as xml

# As printed by scripts, by GoogleTest and by Python's unittest.
reasons = re.compile(r"^skipped: (.+)|: Skipped\n(.+)|skipped '(.+)'", re.M)

passed, failed, skipped = 0, 0, []
for file in filter(os.path.exists, sys.argv[1:]):
    for test in xml.parse(file).getroot().iter("testcase"):
        if test.get("status") == "run":
            passed += 1
        elif test.get("status") == "notrun" and test.find("skipped").get("message", "").startswith("SKIP_"):
            reason = reasons.search(test.findtext("system-out", ""))
            skipped.append((test.get("name"), reason[reason.lastindex] if reason else "no reason"))
        else:
            failed += 1
for name, reason in skipped:
    print(f"skipped {name}: {reason}")
if passed or failed or skipped:
    print(f"{passed} passed, {failed} failed, {len(skipped)} skipped")
