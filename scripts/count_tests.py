#!/usr/bin/python3
"""Adds up test reports (JUnit's form). Usage: count_tests.py EXPECTED REPORT...

Prints "PASSED FAILED" and, on standard error, what has not passed. What was skipped or disabled has not passed,
nor has what is missing of the EXPECTED number of tests (0: as many as there are) because a process ended early.
"""
import sys
from pathlib import Path
from xml.etree import ElementTree


def read_cases(report):
    try:
        return list(ElementTree.parse(report).iter("testcase"))
    except (OSError, ElementTree.ParseError) as reason:
        print(f"{report}: {reason}", file=sys.stderr)
        return []


def has_passed(case):
    return (case.get("status") not in ("fail", "notrun", "disabled")
            and all(case.find(tag) is None for tag in ("failure", "error", "skipped")))


def main():
    expected = int(sys.argv[1])
    cases = [case for report in sys.argv[2:] for case in read_cases(Path(report))]
    bad = [case for case in cases if not has_passed(case)]
    for case in bad:
        print("not passed:", case.get("classname"), case.get("name"), file=sys.stderr)
    missing = max(expected - len(cases), 0 if cases else 1)
    if missing:
        print(f"no report of {missing} tests", file=sys.stderr)
    print(len(cases) - len(bad), len(bad) + missing)


main()
