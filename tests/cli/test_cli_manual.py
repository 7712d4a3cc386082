# SPDX-License-Identifier: ISC
"""The manual page of fwupdate-cli and what it says."""
import re
import subprocess

from simulated_router import BUILD, PROJECT, Router

PAGE = PROJECT / "docs/man/fwupdate-cli.1"


def test_usage_and_page_name_the_same_options():
    with Router("--bare") as router:
        usage = router.run("fwupdate-cli --help").output
    documented = set(re.findall(r"Fl -([a-z]+)", PAGE.read_text()))
    documented |= set(re.findall(r"\| -([a-z]+)", PAGE.read_text()))
    assert set(re.findall(r"--([a-z]+)", usage)) == documented


def test_statuses_are_the_same_everywhere():
    page = PAGE.read_text()
    statuses = re.findall(r"\.It (\d+)\n", page[page.index("EXIT STATUS"):])
    contract = re.findall(r"^\| (\d+) \|", (PROJECT / "docs/fwupdate-cli.md").read_text(), re.M)
    assert statuses == contract == ["0", "1", "2", "3", "4", "10"]


def test_command_and_page_are_installed(tmp_path):
    subprocess.run(["cmake", "--install", BUILD, "--prefix", tmp_path], check=True,
                   stdout=subprocess.DEVNULL)
    page = tmp_path / "share/man/man1/fwupdate-cli.1"
    assert page.read_bytes() == PAGE.read_bytes()
    command = tmp_path / "bin/fwupdate-cli"
    assert command.stat().st_mode & 0o777 == 0o755
    parts = {path.name for path in (tmp_path / "share/fwupdate-cli").iterdir()}
    assert parts == set(re.findall(r"^\s*\. \$parts/(\S+)", command.read_text(), re.M))
