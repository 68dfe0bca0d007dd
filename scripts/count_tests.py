"""Counts test cases from Meson's JUnit reports.

Usage: count_tests.py FAILED_BUILDS UNSTYLED FOLDER...

A variant that did not build, an executable that left no report of its cases, was
ended before it could or failed without a case that did, and each check of the
code's style that failed count as one failure each. The last line printed is
"N passed, N failed", with ", N skipped" where tests were skipped; the exit status
is 1 when anything failed or nothing ran.
"""
import json
import pathlib
import sys
import xml.etree.ElementTree as xml


def results_of(log):
    """What became of each executable."""
    results = [json.loads(line) for line in log.read_text().splitlines()]
    return {r["name"]: r["result"] for r in results}


def count(report, results):
    passed = failed = skipped = 0
    # Ran out of time, or was killed.
    broken = {n for n, r in results.items() if r not in ("OK", "SKIP", "FAIL")}
    for name in broken:
        failed += 1
        print(f"NOT FINISHED: {name}")
    failures = set()
    for suite in xml.parse(report).getroot().iter("testsuite"):
        cases = list(suite.iter("testcase"))
        if not cases:
            failed += 1
            print(f"no result: {suite.get('name')}")
        for case in cases:
            # Meson reports an executable without a report of its own as a case.
            if case.get("name") in broken:
                continue
            if case.find("failure") is not None or case.find("error") is not None:
                failed += 1
                # "project.executable.suite", or the case is the executable.
                failures |= {case.get("name"), *suite.get("name").split(".")[1:2]}
                print(f"FAILED: {suite.get('name')} {case.get('name')}")
            elif case.find("skipped") is not None:
                skipped += 1
            else:
                passed += 1
    for name, result in results.items():
        if result == "FAIL" and name not in failures:
            failed += 1
            print(f"FAILED without a case: {name}")
    return passed, failed, skipped


def main():
    passed, skipped = 0, 0
    failed = int(sys.argv[1]) + int(sys.argv[2])
    for folder in sys.argv[3:]:
        report = pathlib.Path(folder) / "meson-logs" / "testlog.junit.xml"
        if report.exists():
            p, f, s = count(report, results_of(report.with_name("testlog.json")))
            passed, failed, skipped = passed + p, failed + f, skipped + s
    line = f"{passed} passed, {failed} failed"
    print(line + (f", {skipped} skipped" if skipped else ""))
    return 1 if failed or not passed else 0


sys.exit(main())
