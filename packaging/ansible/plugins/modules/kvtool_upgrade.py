#!/usr/bin/python3
"""Module over `kvtool upgrade`."""
from __future__ import annotations

DOCUMENTATION = r"""
module: kvtool_upgrade
short_description: Upgrade a camera in recovery mode, with kvtool
version_added: 0.1.0
author: upgradeMain maintainers
description:
  - Sends a package to a camera in recovery mode with C(kvtool upgrade), and follows the camera until its application is
    seen alive.
  - Runs on the controller, or wherever kvtool reaches the camera. Use C(connection=local) or C(delegate_to). Cameras
    have no SSH.
  - Does nothing if the camera answers a search with the wanted version and is not in recovery mode.
  - A camera in recovery mode names the version of the recovery program. This says nothing about the application, which
    does not run. So such a camera gets the package whatever version it names, unless I(repair=false).
  - A package contains no version, so I(version) says which one it brings.
requirements:
  - kvtool
attributes:
  check_mode:
    support: full
    description: Finds the camera, logs in, and checks the package against its chip and sensor type. Sends no package.
  diff_mode:
    support: full
    description: Shows the firmware before and after; in check mode, the version that it would get.
options:
  host:
    description: Address, name or MAC address of the camera. A MAC address still fits if the camera's address changes.
    type: str
    required: true
  package:
    description: The package.
    type: path
    required: true
  version:
    description:
      - The version that the package brings, as the camera names it, or only what follows its last C(_V).
    type: str
    required: true
  confirm:
    description:
      - What counts as success after the camera has accepted the package.
      - C(version) means that its application is alive and answers a search with I(version).
      - C(alive) means that the port of its application accepts a connection.
      - C(accepted) asks for nothing more; the camera is not followed.
      - An application that answers no searches cannot name its version. Such a camera needs C(alive). Once its
        application runs, the module cannot find it any more.
    type: str
    choices: [version, alive, accepted]
    default: version
  repair:
    description: Whether a camera in recovery mode gets the package even if it names I(version) already.
    type: bool
    default: true
  wait:
    description: Seconds to wait for the camera to appear in recovery mode. Without this option, it must be there.
    type: float
  expect_port:
    description: TCP port that the application opens, if it is not the RTSP port of the camera's answer to a search.
    type: int
  force:
    description: Send the package in spite of errors found in it.
    type: bool
    default: false
  force_identity:
    description: Send the package to a camera of another chip or sensor type.
    type: bool
    default: false
  layout:
    description: File of the camera's partition sizes.
    type: path
  trusted_key:
    description: File of minisign public keys. A package that none of them has signed is refused.
    type: path
  signature:
    description:
      - File with a detached signature.
      - The default is the signature in the package or, without one, the package's name with C(.minisig).
    type: path
  search_timeout:
    description: Seconds to listen for the answer to a search.
    type: float
    default: 3
  leave_timeout:
    description: Seconds to see the camera leave recovery mode. The default is kvtool's.
    type: float
  back_timeout:
    description: Seconds after that to see it alive. The default is kvtool's.
    type: float
  executable:
    description: The kvtool program. A name without a folder is looked for in C(PATH).
    type: str
    default: kvtool
"""

EXAMPLES = r"""
- name: Upgrade a camera of the inventory plugin
  upgrademain.kvtool.kvtool_upgrade:
    host: "{{ kvtool_mac }}"
    package: firmware.FLS
    version: 2.1.0

- name: Upgrade one camera by its address; its application answers no searches
  upgrademain.kvtool.kvtool_upgrade:
    host: 192.168.10.77
    package: firmware.FLS
    version: 2.1.0
    confirm: alive
    wait: 300
  delegate_to: localhost
"""

RETURN = r"""
changed:
  description: Whether the camera accepted the package; in check mode, whether kvtool would send it.
  returned: always
  type: bool
reason:
  description:
    - A stable word for the outcome. After success C(done), C(already_there), or in check mode C(would_upgrade).
    - After a failure the word for kvtool's exit code. See the collection's README.
  returned: always
  type: str
  sample: back_in_recovery
exit_code:
  description: The exit code of the kvtool command that decided.
  returned: when kvtool was run
  type: int
before:
  description: The camera before the upgrade. C(null) if it was not found.
  returned: always
  type: dict
  contains:
    mac:
      description: MAC address, if it answered a search.
      type: str
    address:
      description: Where it answered from.
      type: str
    firmware:
      description: Name and version of the firmware.
      type: str
    recovery:
      description: Whether it is in recovery mode, so that it can be upgraded.
      type: bool
    ic:
      description: Chip type, in recovery mode.
      type: str
    sensor:
      description: Sensor type, in recovery mode.
      type: str
after:
  description: The camera afterwards, like C(before). C(null) if it was not found.
  returned: always
  type: dict
kvtool:
  description: The JSON object of the kvtool command that decided.
  returned: when kvtool was run
  type: dict
"""

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.upgrademain.kvtool.plugins.module_utils.kvtool import (
    KvtoolError, endpoint, is_version, plain_mac, run_kvtool)


class Upgrade:
    def __init__(self, module):
        self.module = module
        self.params = module.params
        self.result = {"changed": False, "before": None, "after": None}
        self.info = None  # the outcome of the last login

    def kvtool(self, *arguments):
        return run_kvtool(self.params["executable"], arguments)

    def options(self, **names):
        """kvtool's options for the parameters that are set. Takes parameter=option."""
        words = []
        for name, option in names.items():
            value = self.params[name]
            if value is True:
                words.append(option)
            elif value not in (None, False):
                words.append(f"{option}={value}")
        return words

    def search(self):
        """The device in the discovery report that `host` names, or None."""
        mac = plain_mac(self.params["host"])
        report = self.kvtool("discover", f"--timeout={self.params['search_timeout']}",
                             *([] if mac else ["--", self.params["host"]])).report
        devices = report.get("devices", [])
        if mac:
            devices = [device for device in devices if plain_mac(device["mac"]) == mac]
        return devices[0] if devices else None

    def look(self):
        """What the camera says about itself now, or None. A login shows whether it is in recovery mode."""
        device = self.search()
        if device:
            address, port = endpoint(device)
            self.info = self.kvtool("info", f"--port={port}", "--", address)
        else:
            self.info = self.kvtool("info", "--", self.params["host"])
        told = self.info.report.get("device", {}) if self.info.code == 0 else {}
        if not device and not told:
            return None
        return {
            "mac": device["mac"] if device else None,
            "address": address if device else self.info.report["address"].rpartition(":")[0],
            "firmware": device["firmware"] if device else told["firmware"],
            "recovery": bool(told),
            "ic": told.get("ic"),
            "sensor": told.get("sensor"),
        }

    def is_done(self, camera):
        if not camera or not is_version(camera["firmware"], self.params["version"]):
            return False
        return not camera["recovery"] or not self.params["repair"]

    def finish(self, reason, message, failed=False, outcome=None):
        self.result.update(reason=reason, msg=message)
        if outcome:
            self.result.update(exit_code=outcome.code, kvtool=outcome.report)
        before, after = ((self.result[key] or {}).get("firmware") or "not found" for key in ("before", "after"))
        if reason == "would_upgrade":
            after = self.params["version"]
        self.result["diff"] = {"before": before + "\n", "after": after + "\n"}
        if failed:
            self.module.fail_json(**self.result)
        self.module.exit_json(**self.result)

    def fail(self, outcome):
        self.finish(outcome.reason, f"{outcome.text()} (kvtool's exit code {outcome.code})", True, outcome)

    def predict(self):
        """Check mode: fails where an upgrade would be refused before anything is sent."""
        camera = self.result["before"]
        recovery = bool(camera and camera["recovery"])
        if not recovery and not self.params["wait"]:
            self.fail(self.info)
        words = self.options(layout="--layout", trusted_key="--trusted-key", signature="--signature")
        if recovery and not self.params["force_identity"]:
            words += [f"--ic={camera['ic']}", f"--sensor={camera['sensor']}"]
        package = self.kvtool("inspect", *words, "--", self.params["package"])
        if package.code != 0 and not (self.params["force"] and self.may_force(package.report)):
            self.fail(package)
        self.result["changed"] = True
        self.finish("would_upgrade", "would be upgraded" if recovery else
                    "not in recovery mode now; kvtool would wait for it and upgrade it", outcome=package)

    @staticmethod
    def may_force(report):
        """Whether all errors concern the package itself, not the chip and sensor type."""
        kinds = {finding["kind"] for finding in report.get("findings", []) if finding["severity"] == "error"}
        return bool(kinds) and not kinds & {"chip_type", "sensor_type"}

    def upgrade(self):
        words = self.options(wait="--wait", expect_port="--expect-port", force="--force",
                             force_identity="--force-identity", layout="--layout", trusted_key="--trusted-key",
                             signature="--signature", leave_timeout="--leave-timeout", back_timeout="--back-timeout")
        if self.params["confirm"] == "version":
            words.append(f"--expect-version={self.params['version']}")
        elif self.params["confirm"] == "accepted":
            words.append("--no-follow")
        outcome = self.kvtool("upgrade", *words, "--", self.params["host"], self.params["package"])
        self.result["changed"] = bool(outcome.report.get("accepted"))
        self.result["after"] = self.look()
        if outcome.code != 0:
            self.fail(outcome)
        self.finish("done", outcome.text(), outcome=outcome)

    def run(self):
        try:
            self.result["before"] = self.result["after"] = self.look()
            if self.is_done(self.result["before"]):
                self.finish("already_there", "has this version already")
            elif self.module.check_mode:
                self.predict()
            else:
                self.upgrade()
        except KvtoolError as error:
            self.finish("no_report", str(error), failed=True)


def main():
    Upgrade(AnsibleModule(
        argument_spec={
            "host": {"type": "str", "required": True},
            "package": {"type": "path", "required": True},
            "version": {"type": "str", "required": True},
            "confirm": {"type": "str", "choices": ["version", "alive", "accepted"], "default": "version"},
            "repair": {"type": "bool", "default": True},
            "wait": {"type": "float"},
            "expect_port": {"type": "int"},
            "force": {"type": "bool", "default": False},
            "force_identity": {"type": "bool", "default": False},
            "layout": {"type": "path"},
            "trusted_key": {"type": "path", "no_log": False},
            "signature": {"type": "path"},
            "search_timeout": {"type": "float", "default": 3},
            "leave_timeout": {"type": "float"},
            "back_timeout": {"type": "float"},
            "executable": {"type": "str", "default": "kvtool"},
        },
        required_by={"signature": ["trusted_key"]},
        supports_check_mode=True,
    )).run()


if __name__ == "__main__":
    main()
