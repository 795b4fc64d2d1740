"""Inventory plugin over `kvtool discover`."""
from __future__ import annotations

DOCUMENTATION = r"""
name: discover
short_description: Cameras that answer a search of kvtool
version_added: 0.1.0
author: upgradeMain maintainers
description:
  - Searches the controller's networks for cameras, with C(kvtool discover). Cameras in recovery mode answer. Other
    cameras answer if their application does.
  - A host's name is its MAC address with hyphens, because a colon has a meaning in patterns of hosts.
  - Everything runs on the controller. The plugin sets C(ansible_connection=local) for each host, since cameras have no
    SSH.
  - Each host gets the keys of a device in kvtool's JSON as variables, with the prefix C(kvtool_), and C(ansible_host).
    C(kvtool_version) is what follows the last C(_V) of C(kvtool_firmware).
  - If two devices name the same MAC address, the plugin leaves both out and prints a warning.
requirements:
  - kvtool on the controller
extends_documentation_fragment:
  - constructed
options:
  plugin:
    description: Must be C(upgrademain.kvtool.discover).
    required: true
    choices: [upgrademain.kvtool.discover]
  executable:
    description: The kvtool program. A name without a folder is looked for in C(PATH).
    default: kvtool
    env:
      - name: KVTOOL
  group:
    description: The group of all cameras found.
    default: cameras
  hosts:
    description: Addresses to search one by one, for networks that broadcasts do not reach. By default, broadcast.
    type: list
    elements: str
    default: []
  interfaces:
    description: Broadcast on these interfaces only.
    type: list
    elements: str
    default: []
  match:
    description: Take only the devices that fit these patterns, each as C(kvtool discover --match) takes it.
    type: list
    elements: str
    default: []
  timeout:
    description: Seconds to listen for answers.
    type: float
    default: 3
  repeat:
    description: Searches to send.
    type: int
    default: 3
"""

EXAMPLES = r"""
# cameras.kvtool.yml: all cameras of the controller's networks, and a group for each version
plugin: upgrademain.kvtool.discover
keyed_groups:
  - key: kvtool_version
    prefix: version
---
# only one interface, only one series of MAC addresses; a group of one model
plugin: upgrademain.kvtool.discover
interfaces: [wlan0]
match: ["mac=02:76:62:*"]
groups:
  model_38qx: "'_38QX_' in kvtool_firmware"
"""

from ansible.errors import AnsibleParserError
from ansible.plugins.inventory import BaseInventoryPlugin, Constructable

from ansible_collections.upgrademain.kvtool.plugins.module_utils.kvtool import (
    KvtoolError, endpoint, plain_mac, run_kvtool)

NOTHING_FOUND = 4


class InventoryModule(BaseInventoryPlugin, Constructable):
    NAME = "upgrademain.kvtool.discover"

    def verify_file(self, path):
        return super().verify_file(path) and path.endswith(("kvtool.yml", "kvtool.yaml"))

    def parse(self, inventory, loader, path, cache=True):
        super().parse(inventory, loader, path, cache)
        self._read_config_data(path)
        group = self.inventory.add_group(self.get_option("group"))
        for mac, devices in self._devices_by_mac().items():
            if len(devices) == 1:
                self._add(group, mac, devices[0])
            else:
                self.display.warning(f"left out: {len(devices)} devices name the MAC address {devices[0]['mac']}")

    def _devices_by_mac(self):
        found = {}
        for host in self.get_option("hosts") or [None]:
            for device in self._search(host):
                mac = plain_mac(device["mac"])
                if not mac:
                    self.display.warning(f"left out: the device at {endpoint(device)[0]} names no MAC address")
                elif device not in found.setdefault(mac, []):
                    found[mac].append(device)
        return found

    def _search(self, host):
        arguments = ["discover", "--timeout", str(self.get_option("timeout")), "--repeat",
                     str(self.get_option("repeat"))]
        for interface in self.get_option("interfaces"):
            arguments += ["--interface", interface]
        for pattern in self.get_option("match"):
            arguments += ["--match", pattern]
        try:
            outcome = run_kvtool(self.get_option("executable"), arguments + ([host] if host else []))
        except KvtoolError as error:
            raise AnsibleParserError(str(error)) from error
        if outcome.code not in (0, NOTHING_FOUND):
            raise AnsibleParserError(f"kvtool discover: {outcome.text()} ({outcome.reason})")
        for said in ([outcome.report["error"]] if "error" in outcome.report else []) + outcome.report.get(
                "problems", []) + outcome.report.get("conflicts", []):
            self.display.warning(f"kvtool discover: {said}")
        return outcome.report.get("devices", [])

    def _add(self, group, mac, device):
        name = "-".join(mac[i:i + 2] for i in range(0, 12, 2))
        variables = {f"kvtool_{key}": value for key, value in device.items()}
        variables["kvtool_version"] = device["firmware"].rpartition("_V")[2]
        variables["ansible_host"] = endpoint(device)[0]
        variables["ansible_connection"] = "local"
        variables["ansible_python_interpreter"] = "{{ ansible_playbook_python }}"
        self.inventory.add_host(name, group=group)
        for key, value in variables.items():
            self.inventory.set_variable(name, key, value)
        strict = self.get_option("strict")
        self._set_composite_vars(self.get_option("compose"), variables, name, strict=strict)
        self._add_host_to_composed_groups(self.get_option("groups"), variables, name, strict=strict)
        self._add_host_to_keyed_groups(self.get_option("keyed_groups"), variables, name, strict=strict)
