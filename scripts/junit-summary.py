#!/usr/bin/env python3
"""Prints why each skipped test was skipped, then one closing line
"<job>: N passed, N failed, N skipped", from ctest's JUnit output.
   scripts/junit-summary.py <junit.xml> <job name>
A skip's reason is the GoogleTest message under its "Skipped" line."""
import sys
import xml.etree.ElementTree as ET

suite = ET.parse(sys.argv[1]).getroot()
failed = skipped = 0
for case in suite.iter("testcase"):
    if case.find("skipped") is not None:
        skipped += 1
        lines = (case.findtext("system-out") or "").splitlines()
        marks = [i for i, line in enumerate(lines) if line.endswith(": Skipped")]
        reason = lines[marks[0] + 1] if marks and marks[0] + 1 < len(lines) else "(no reason given)"
        print(f"skipped: {case.get('name')}: {reason}")
    elif case.get("status") == "fail" or case.find("failure") is not None:
        failed += 1
total = len(list(suite.iter("testcase")))
print(f"{sys.argv[2]}: {total - failed - skipped} passed, {failed} failed, {skipped} skipped")
