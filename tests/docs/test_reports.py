# SPDX-License-Identifier: ISC
"""What tests/list_results makes of a build's reports, on which ./test.sh counts."""
import os
import subprocess

import console
import pytest


@pytest.fixture
def build(tmp_path):
    (tmp_path / "reports").mkdir()
    (tmp_path / "Testing/Temporary").mkdir(parents=True)
    return tmp_path


def report(build, name, when, **results):
    """A report of GoogleTest's, written at that second."""
    cases = "".join(f'<testcase classname="Suite" name="{test}" status="run">{"" if good else "<failure/>"}</testcase>'
                    for test, good in results.items())
    path = build / "reports" / name
    path.write_text(f"<testsuites><testsuite>{cases}</testsuite></testsuites>")
    os.utime(path, (when, when))


def ctest_saw_fail(build, *entries):
    lines = [f"{number}:{entry}" for number, entry in enumerate(entries, 1)]
    (build / "Testing/Temporary/LastTestsFailed.log").write_text("\n".join(lines))


def listed(build, *options):
    return subprocess.run([console.project / "tests/list_results", *options, build], capture_output=True, text=True,
                          check=True).stdout.splitlines()


def test_a_test_counts_with_its_last_result(build):
    report(build, "job_tests.1.xml", 1, Bad=False, Good=True)
    ctest_saw_fail(build, "job_tests.1")
    assert listed(build, "--failed") == ["job_tests Suite.Bad"]
    assert listed(build, "--count") == ["1 passed, 1 failed, 0 skipped"]
    report(build, "job_tests.xml", 2, Bad=True)
    assert listed(build) == ["passed Suite.Good", "passed Suite.Bad"]


def test_what_crashed_has_failed_and_gets_no_second_try(build):
    report(build, "job_tests.1.xml", 1, Good=True)
    ctest_saw_fail(build, "job_tests.1", "base_tests.1")
    assert listed(build, "--count") == ["1 passed, 2 failed, 0 skipped"]
    again = subprocess.run([console.project / "tests/run_again", build], capture_output=True, check=False)
    assert again.returncode == 1
