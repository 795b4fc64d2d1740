"""Shared by the inventory plugin and the module: runs kvtool, reads its JSON, and compares MACs and versions."""
from __future__ import annotations

import json
import re
import subprocess

# A stable word for each exit code of kvtool, for playbooks to test.
REASONS = {
    0: "done",
    1: "controller_trouble",
    2: "wrong_usage",
    3: "refused",
    4: "not_found",
    5: "unexpected_answer",
    6: "connection_broke",
    7: "upgrade_under_way",
    8: "no_verdict",
    9: "back_in_recovery",
    10: "never_left_recovery",
    11: "no_answer",
    12: "not_seen_alive",
    130: "interrupted",
}


class KvtoolError(Exception):
    """kvtool could not be run, or its output is not what it documents."""


class Outcome:
    """The result of a command: the exit code of kvtool, and the JSON object that it printed."""

    def __init__(self, code, report):
        self.code = code
        self.report = report
        self.reason = REASONS.get(code, "other")

    def text(self):
        """What went wrong, or how it ended, in one sentence."""
        return self.report.get("error") or self.report.get("result") or self._objections() or self.reason

    def _objections(self):
        return "; ".join(f["text"] for f in self.report.get("findings", []) if f["severity"] == "error")


def run_kvtool(executable, arguments):
    """Runs a command of kvtool with --json and waits for it to end; kvtool bounds all its waits.

    A failure that kvtool reports is an Outcome. Raises KvtoolError if there is no report.
    """
    command = [executable, arguments[0], "--json", *arguments[1:]]
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace",
                              check=False)
    except OSError as error:
        raise KvtoolError(f"cannot run {executable}: {error.strerror}") from error
    try:
        report = json.loads(done.stdout)
        schema = report["schema"]
    except (ValueError, KeyError, TypeError) as error:
        said = (done.stderr or done.stdout).strip() or "nothing"
        raise KvtoolError(f"{' '.join(command)} ended with {done.returncode} and gave no report; it said: {said}"
                          ) from error
    if schema != 1:
        raise KvtoolError(f"{executable} reports in schema {schema}; this collection reads schema 1")
    return Outcome(done.returncode, report)


def plain_mac(text):
    """The 12 hex digits of a MAC address in one of kvtool's spellings, or None if the text is not a MAC address."""
    if not re.fullmatch(r"[0-9A-Fa-f]{12}|[0-9A-Fa-f]{2}([:-][0-9A-Fa-f]{2}){5}", text):
        return None
    return re.sub("[:-]", "", text).lower()


def is_version(firmware, version):
    """Whether a device's firmware is this version: the whole name, or what follows its last "_V"."""
    return firmware == version or ("_V" in firmware and firmware.rpartition("_V")[2] == version)


def endpoint(device):
    """Address and command port of a device of a discovery report; the address that it answered from comes first."""
    senders = device["senders"]
    return (senders[0] if senders else device["address"]), device["command_port"]
