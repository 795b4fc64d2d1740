#!/usr/bin/python3
"""site_test.py: tests the Ansible collection against a site of six virtual boards.

Builds the collection, installs it into a folder of its own, and runs ansible-playbook on the site's laptop: check mode,
a package that is refused, a canary that fails, a run in which one of six fails, and a run that upgrades only that one.
Runs the module alone for a camera that is absent, and for one that has the wanted version in recovery mode. A stand-in
for kvtool gives search results that a site cannot produce.
"""
import contextlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
BIN = TOP / "build/bin"
VERSION = "9.8.7"
FIRMWARE = f"PRT7K_38QX_QJT_V{VERSION}"
RECOVERY_VERSION = "1.0.0.241127_R1"
BOARDS = 6
SECONDS = 1200


def run(*command, check=True, **options):
    done = subprocess.run([str(word) for word in command], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=SECONDS, check=False, **options)
    if check and done.returncode != 0:
        raise SystemExit(f"{' '.join(map(str, command))} ended with {done.returncode}:\n{done.stdout}")
    return done


def expect(condition, text, shown=""):
    if not condition:
        raise SystemExit(f"site_test: expected: {text}\n{shown}")


def name(number):
    return f"02-76-62-01-00-{number:02x}"


def make_package(work):
    """A package whose application answers searches with FIRMWARE."""
    programs = work / "app/bin"
    programs.mkdir(parents=True)
    shutil.copy(BIN / "cameraMain", programs)
    shutil.copy(TOP / "tests/ansible/answering_app.py", programs)
    network = programs / "network"
    network.write_text("#!/bin/sh\nip link set wlan0 up\nudhcpc -i wlan0\n"
                       f"exec /usr/bin/python3 /opt/app/bin/answering_app.py {FIRMWARE}\n", encoding="utf-8")
    network.chmod(0o755)
    run("mksquashfs", work / "app", work / "app.img", "-quiet", "-no-progress", "-all-root")
    run(BIN / "kvtool", "pack", "-o", work / "firmware.FLS", f"app={work / 'app.img'}")
    run(BIN / "kvtool", "pack", "-o", work / "other.FLS", "--ic", "OTHER", f"app={work / 'app.img'}")


def install_collection(work):
    run("ansible-galaxy", "collection", "build", TOP / "packaging/ansible", "--output-path", work)
    archive = next(work.glob("upgrademain-kvtool-*.tar.gz"))
    release = re.search(r"\d+\.\d+\.\d+", run(BIN / "kvtool", "--version").stdout)[0]
    expect(archive.name == f"upgrademain-kvtool-{release}.tar.gz", f"galaxy.yml names the release {release}", archive)
    run("ansible-galaxy", "collection", "install", "--offline", "-p", work / "collections", archive)


def device(number, mac):
    return {"mac": mac, "firmware": FIRMWARE, "address": "", "senders": [f"10.0.0.{number}"], "command_port": 80}


def test_doubtful_inventory(work):
    """Two devices with one MAC address, one without any, and one that both of two searches find."""
    report = {"schema": 1, "exit_code": 0, "devices": [
        device(1, "02:00:00:00:00:01"), device(2, "02:00:00:00:00:01"), device(3, ""), device(4, "02:00:00:00:00:04")]}
    stand_in = work / "kvtool"
    stand_in.write_text(f"#!/bin/sh\necho '{json.dumps(report)}'\n", encoding="utf-8")
    stand_in.chmod(0o755)
    source = work / "doubtful.kvtool.yml"
    source.write_text("plugin: upgrademain.kvtool.discover\nhosts: [10.0.0.1, 10.0.0.4]\n", encoding="utf-8")
    done = run("ansible-inventory", "-i", source, "--list", "--output", work / "doubtful.json",
               env={**os.environ, "ANSIBLE_COLLECTIONS_PATH": str(work / "collections"), "KVTOOL": str(stand_in)})
    found = json.loads((work / "doubtful.json").read_text("utf-8"))
    expect(found["cameras"]["hosts"] == ["02-00-00-00-00-04"], "only the device that is certain is a host", found)
    variables = found["_meta"]["hostvars"]["02-00-00-00-00-04"]
    expect(variables["ansible_host"] == "10.0.0.4" and variables["kvtool_version"] == VERSION, "variables", variables)
    expect("2 devices name the MAC" in done.stdout and "10.0.0.3 names no MAC" in done.stdout, "warnings", done.stdout)


class Site:
    def __init__(self, work):
        self.work = work
        self.state = work / "site"
        self.environment = {
            **os.environ, "ANSIBLE_COLLECTIONS_PATH": str(work / "collections"), "ANSIBLE_HOME": str(work / "home"),
            "ANSIBLE_LOCAL_TEMP": str(work / "temp"), "ANSIBLE_CALLBACKS_ENABLED": "tree",
            "ANSIBLE_CALLBACK_TREE_DIR": str(work / "tree"), "ANSIBLE_NOCOLOR": "1", "KVTOOL": str(BIN / "kvtool")}
        (work / "cameras.kvtool.yml").write_text(
            "plugin: upgrademain.kvtool.discover\ntimeout: 2\n"
            "keyed_groups: [{key: kvtool_version, prefix: version}]\n", encoding="utf-8")
        (work / "old.kvtool.yml").write_text(
            f"plugin: upgrademain.kvtool.discover\nmatch: ['firmware=*_V{RECOVERY_VERSION}']\n", encoding="utf-8")

    def vboard(self, *words, **options):
        return run(BIN / "vboard", "--state", self.state, *words, **options)

    def board(self, number, *words):
        return run(BIN / "vboard", "--state", self.state / "boards" / str(number), *words)

    def start(self):
        limit = time.monotonic() + 120
        while self.vboard("site", "status", check=False).returncode != 0:
            expect(time.monotonic() < limit, "the site comes up", (self.work / "site.log").read_text("utf-8"))
            time.sleep(0.1)
        self.vboard("site", "start", BOARDS, "--", BIN / "upgradeMain")

    def on_laptop(self, *words, check=True):
        return self.vboard("site", "exec", "--", *words, check=check, env=self.environment)

    def inventory(self, source="cameras.kvtool.yml"):
        return json.loads(self.on_laptop("ansible-inventory", "-i", self.work / source, "--list").stdout)

    def play(self, *words, package="firmware.FLS"):
        """Runs the example playbook. Returns its exit status, its output, and the module's result for each host."""
        shutil.rmtree(self.work / "tree", ignore_errors=True)
        done = self.on_laptop(
            "ansible-playbook", "-i", self.work / "cameras.kvtool.yml", "upgrademain.kvtool.upgrade", "-f", BOARDS,
            "-e", f"package={self.work / package}", "-e", f"version={VERSION}", "-e", f"kvtool={BIN / 'kvtool'}",
            *words, check=False)
        results = {file.name: json.loads(file.read_text("utf-8")) for file in (self.work / "tree").glob("*")}
        return done.returncode, done.stdout, results

    def module(self, parameters, *words):
        """Runs the module alone. Returns its result."""
        text = self.on_laptop("ansible", "localhost", "-o", "-m", "upgrademain.kvtool.kvtool_upgrade", "-a",
                              f"package={self.work / 'firmware.FLS'} executable={BIN / 'kvtool'} {parameters}", *words,
                              check=False).stdout
        return json.loads(text[text.index("=> {") + 3:])

    def fail_next_write(self, number):
        self.board(number, "fault", "mtd5", "write", "--errno", "EIO", "--count", "1")


@contextlib.contextmanager
def running_site(work):
    with open(work / "site.log", "w", encoding="utf-8") as log:
        with subprocess.Popen([BIN / "vboard", "site", "run", "--state", work / "site"], stdout=log,
                              stderr=log) as runner:
            try:
                site = Site(work)
                site.start()
                yield site
            finally:
                runner.terminate()


def test_check_mode(site):
    status, text, results = site.play("--check")
    expect(status == 0 and len(results) == BOARDS, "check mode says what would happen to each camera", text)
    for result in results.values():
        expect(result["changed"] and result["reason"] == "would_upgrade" and result["before"]["recovery"],
               "each would be upgraded", result)
    for words in ([], ["--check"]):
        status, text, results = site.play("--limit", name(1), *words, package="other.FLS")
        result = results[name(1)]
        expect(status != 0 and result["reason"] == "refused" and not result["changed"] and "chip" in result["msg"],
               f"a package of another chip is refused {words}", result)
    expect(len(site.inventory()["cameras"]["hosts"]) == BOARDS, "all are still in recovery mode")


def test_absent_camera(site):
    for check in ([], ["--check"]):
        result = site.module(f"host={name(BOARDS + 1)} version={VERSION} search_timeout=0.5", *check)
        expect(result["reason"] == "not_found" and result["after"] is None, f"the reason is named {check}", result)


def test_recovery_with_the_wanted_version(site):
    for parameters, reason in (("", "would_upgrade"), ("repair=false", "already_there")):
        result = site.module(f"host={name(1)} version={RECOVERY_VERSION} {parameters}", "--check")
        expect(result["reason"] == reason and result["before"]["recovery"], f"{reason} {parameters}", result)


def test_failing_canary(site):
    site.fail_next_write(1)
    status, text, results = site.play()
    expect(status != 0 and list(results) == [name(1)], "after the canary's failure no other camera is touched", text)
    result = results[name(1)]
    expect(result["reason"] == "back_in_recovery" and result["exit_code"] == 9 and result["changed"],
           "the failure is named", result)
    expect(result["after"]["recovery"] and "back in recovery mode" in result["msg"], "it is looked at again", result)


def test_one_of_six_fails(site):
    site.fail_next_write(5)
    status, text, results = site.play()
    expect(status != 0 and len(results) == BOARDS, "all are tried", text)
    for host, result in results.items():
        expected = "back_in_recovery" if host == name(5) else "done"
        expect(result["reason"] == expected and result["changed"], f"{host}: {expected}", result)
    good = results[name(6)]
    expect(good["before"]["recovery"] and not good["after"]["recovery"] and good["after"]["firmware"] == FIRMWARE,
           "facts before and after", good)
    groups = site.inventory()
    expect(sorted(groups[f"version_{VERSION.replace('.', '_')}"]["hosts"]) == [name(n) for n in (1, 2, 3, 4, 6)],
           "the inventory knows who has the version", groups)
    old = site.inventory("old.kvtool.yml")
    expect(old["cameras"]["hosts"] == [name(5)], "an inventory of those that match", old)


def test_only_the_failed_one_is_left(site):
    sessions = {number: site.board(number, "status").stdout.splitlines()[0] for number in (1, 2, 3, 4, 6)}
    status, text, results = site.play()
    expect(status == 0 and len(results) == BOARDS, "the second run is clean", text)
    changed = [host for host, result in results.items() if result["changed"]]
    expect(changed == [name(5)], "only the one that failed is upgraded", results)
    expect(results[name(1)]["reason"] == "already_there", "the others have the version", results[name(1)])
    for number, before in sessions.items():
        expect(site.board(number, "status").stdout.splitlines()[0] == before, f"board {number} did not restart")


def main():
    with tempfile.TemporaryDirectory(prefix="kv-ansible-") as folder:
        work = pathlib.Path(folder)
        # Ansible wants a locale of UTF-8. kvtool keeps its locks in a folder of this test.
        os.environ.update({"LC_ALL": "C.UTF-8", "XDG_RUNTIME_DIR": str(work / "run")})
        (work / "run").mkdir()
        install_collection(work)
        test_doubtful_inventory(work)
        make_package(work)
        with running_site(work) as site:
            for test in (test_check_mode, test_absent_camera, test_recovery_with_the_wanted_version,
                         test_failing_canary, test_one_of_six_fails, test_only_the_failed_one_is_left):
                test(site)
                print(f"{test.__name__}: passed", flush=True)


if __name__ == "__main__":
    main()
