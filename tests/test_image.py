# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The package on a board: built from the tree (lintian included) and installed with apt in a
Debian 12 guest under qemu that boots with systemd as PID 1, which starts bluetoothd, the daemon
and the OBEX receiver. The guest plays each boot (guest/image.py); each test judges a part."""

import collections
import json
import os
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "guest"))

import guest as qemu  # noqa: E402
from guest import observed  # noqa: E402


@pytest.fixture(scope="module")
def guest(tmp_path_factory):
    workdir = tmp_path_factory.mktemp("image")
    built = subprocess.run([f"{qemu.TOP}/scripts/build-package"], capture_output=True, text=True,
                           env=dict(os.environ, PACKAGE_DIR=str(workdir / "package")))
    assert built.returncode == 0, built.stderr
    results = qemu.Guest(workdir).boot({
        "init": f"{qemu.HERE}/image.py", "board.py": f"{qemu.HERE}/board.py", "simenv.py":
        f"{qemu.TOP}/tools/simenv.py", "bluetooth-agent.deb": built.stdout.split()[-1]}, init=None)
    assert "observations.json" in results, f"the guest reported nothing: {workdir}"
    return json.loads(results["observations.json"])


def test_the_package_installs_and_its_units_follow_bluetoothd_and_their_failures(guest):
    assert observed(guest, "install")[0] == 0, observed(guest, "install")[1]
    assert [observed(guest, f"failed_{boot}") for boot in ("install", "boot", "rebooted")] == [
        [0, ""]] * 3
    # Started before hci0 was there, it failed and was tried again (the guest waited for that);
    # then bluetoothd restarted, stopped (the daemon and the receiver with it) and started, and a
    # crash: each time a new daemon ran and registered. /run is read-only to it.
    seen = observed(guest, "boot")
    assert len(set(seen["pids"])) == 4 and seen["stopped"] == ["inactive", "inactive"]
    assert seen["run"][0] == 1 and "Read-only file system" in seen["run"][1]
    # The folders removed, systemd-tmpfiles makes them anew as the package says, without a word.
    anew = observed(guest, "anew")
    assert anew["tmpfiles"] == [0, ""] and anew["modes"] == ["/var/spool/lp/obex 750 obex",
                                                             "/var/spool/lp/obex/.incoming 700 obex",
                                                             "/var/spool/lp/www 755 root"]


def test_the_user_interface_group_answers_and_an_outsider_is_refused(guest):
    seen = observed(guest, "pairing")
    assert [m for m, _ in seen["ui"] if m.startswith("Request")] == ["RequestUserConfirmation"]
    assert seen["answered"] == [0, ""] and seen["outsider"][0] == 4
    assert seen["pair_error"] is None and seen["embosser_sees_phone"]["Paired"] is True


@pytest.mark.parametrize("name, announced, sizes, aborted", [
    ("documents", ["letter.brf", "big.brf"], [3000, 3 << 20], 4),
    ("anew", ["anew.brf"], [5000], 0), ("rebooted", ["again.brf"], [5000], 0)])
def test_whole_documents_print_and_broken_off_ones_never(guest, name, announced, sizes, aborted):
    # Each whole push is spooled with its content and announced; those cancelled or dropped
    # half-way reach neither folder.
    seen = observed(guest, name)
    whole = [sha for status, sha in seen["sent"] if status == "complete"]
    assert seen["announced"] == announced and [size for size, _ in whole] == sizes
    assert sorted(seen["spooled"].values()) == sorted(whole) and seen["receive_folder"] == {}
    assert len(seen["sent"]) - len(whole) == aborted


def test_pairing_and_pushes_log_only_routine_lines(guest):
    # The daemon's question at info, the file refused at err, and nothing else; the receiver's
    # agent's account of each push at info.
    lines = observed(guest, "routine")
    daemon = [line[1:] for line in lines if line[0] == "bluetooth-agent.service"]
    assert [priority for priority, _ in daemon] == [6, 3], lines
    assert daemon[0][1].startswith("BluetoothPairingAgent: pairing_agent::RequestConfirmation ")
    assert daemon[1][1] == 'BluetoothAgentDaemon: uploadError: "wrong file type"'
    told = collections.Counter((line[1], line[2].split(": ")[1]) for line in lines
                               if line[0] == "bluetooth-agent-obex.service")
    assert told == {(6, "push accepted"): 6, (6, "published"): 2, (6, "dropped"): 4}, lines
