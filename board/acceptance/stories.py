"""The tests on the boards. The stories run side by side, each on its own board."""

import calendar
import math
import re
import time

import figures
import nor
from channel import Failure

ACCEPTED = r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) \[.*__KV_Protocol_OnAccept$"
IN_2040 = calendar.timegm((2040, 2, 29, 12, 0, 0))
REBOOT_MARKER = "/param/var/miniserver_reboot"
DEBUG_MARKER = "/param/miniserver.debug"
WATCHDOG_SECONDS = 30
WATCHDOG_SLACK = 5


def life_story(board, report, firmware):
    """Empty flash, recovery, upgrade, normal operation, and a hanging program."""
    _recover(board, report)
    with report.step(board, "kvtool discover and kvtool info, from the host over the radio") as details:
        mac = board.machine.run("cat /sys/class/net/wlan0/address").strip()
        if mac.upper() not in board.discover().upper():
            raise Failure(f"kvtool discover does not show {mac}")
        details.append(f"found {mac}")
        details.append(re.search(r"firmware +(\S+)", board.info())[0])
        board.see("__KV_KorvanProtocolClose", 10)  # the figures are for an idle program
    _live_in_2040(board, report)
    _upgrade(board, report, firmware)
    _show_figures(board, report, "normal")
    _starve(board, report)


def _recover(board, report):
    with report.step(board, "no application in flash: recovery joins the service network over the radio") as details:
        board.power_on()
        board.boot_into_recovery()
        details.append(f"address by DHCP: {board.join_network()}")


def _show_figures(board, report, mode):
    with report.step(board, f"figures in {mode} mode, {board.program} program") as details:
        details += figures.report(board.machine)


def _live_in_2040(board, report):
    """The rest of the platform has 32-bit times, so the clock is set back afterwards."""
    machine = board.machine
    with report.step(board, "the clock is set to 2040: kvtool info, the log's dates") as details:
        before, begin = int(machine.run("date +%s")), time.monotonic()
        machine.run(f"set_clock {IN_2040}")
        since = board.machine.console.position()
        board.info()
        logged = board.see(ACCEPTED, 10)[1]
        if not 0 <= calendar.timegm(time.strptime(logged, "%Y-%m-%d %H:%M:%S")) - IN_2040 < 60:
            raise Failure(f"the log has {logged}")
        details.append(f"logged at {logged}")
        board.see("__KV_KorvanProtocolClose", 10)  # the figures are for an idle program
    _show_figures(board, report, "recovery")
    with report.step(board, "the pings of these seconds succeeded; the clock is set back"):
        board.never_saw("NetWork ping failed", since)
        # The kernel refuses a time below its uptime, and this clock began at 0. So round up, and add 1 for the part of
        # a second that date cut off.
        machine.run(f"set_clock {before + 1 + math.ceil(time.monotonic() - begin)}")


def _upgrade(board, report, firmware):
    with report.step(board, "kvtool upgrade: boot loader, kernel, rootfs, app; reset; read back") as details:
        board.machine.run(f"touch {REBOOT_MARKER}")
        details += board.upgrade_to(firmware)
    with report.step(board, "new application runs from flash, heartbeats arrive, reboot marker removed") as details:
        board.machine.wait_boot()
        board.see("app file exist!", 10)
        board.see(f"^# rm {REBOOT_MARKER}$", 20)
        board.see("Process cameraMain online", 20)
        board.machine.run(f"test ! -e {REBOOT_MARKER}")
        details.append(board.machine.run("grep /opt/app /proc/mounts").strip())


def _starve(board, report):
    machine = board.machine
    with report.step(board, "SIGSTOP: the hardware watchdog resets the board") as details:
        machine.run(f"touch {DEBUG_MARKER}; sync")
        resets, begin = machine.reset_count(), board.since
        machine.run(f"kill -STOP {figures.SUPERVISOR}")
        stopped = time.monotonic()
        took = machine.wait_reset(resets + 1, 2 * WATCHDOG_SECONDS) - stopped
        # Less than the time-out, because the last feed was before the stop, and a busy PC notices the stop late. A
        # reset by anything else has the time 0.
        if not WATCHDOG_SECONDS / 2 < took:
            raise Failure(f"the watchdog reset the board {took:.1f} s after the program was stopped")
        board.never_saw("feeding the dog", begin)
        board.never_saw("reboot", begin)
        details.append(f"the watchdog reset the board {took:.1f} s after the program was stopped")
    with report.step(board, "the debug marker survived the reset: recovery once, marker gone, application installed"):
        _recover_by_marker(board)


def _recover_by_marker(board):
    board.machine.wait_boot()
    board.see(f"^# rm {DEBUG_MARKER}$", 10)
    board.see("LoopPoolInit Init Success!", 10)
    board.machine.run(f"test ! -e {DEBUG_MARKER} && test -x /opt/app/bin/cameraMain")


def accident_story(board, report, firmware):
    """The access point disappears; the power fails in the middle of an upgrade."""
    _recover(board, report)
    _lose_access_point(board, report)
    _cut_power(board, report, firmware)


def _lose_access_point(board, report):
    with report.step(board, "access point gone: six pings missed, soft reset, connecting again"):
        board.machine.run("access_point.sh stop")
        board.see("NetWork ping failed cnt:1 ", 30)
        board.see("NetWork ping failed cnt:6 ", 90)
        board.see("^# wifi_reset.sh soft$", 10)
        board.see("^# /root/wifi_connect.sh sta", 20)
    with report.step(board, "access point back: guarded again, answers again"):
        board.machine.run("access_point.sh start")
        board.see("into wifi guard", 120)
        board.info()


def _cut_power(board, report, firmware):
    with report.step(board, "power cut while the application's partition is being written"):
        board.send_package(firmware.package)
        board.see("name: app, start", 120)
        board.see("Write 64 Kibyte @ [0-9a-f]+ -- [3-6][0-9] %", 60)
        board.power_off()
    with report.step(board, "power back: recovery again") as details:
        board.power_on()
        board.boot_into_recovery()
        details.append(f"address by DHCP: {board.join_network()}")
    with report.step(board, "an upgrade repairs it") as details:
        details += board.upgrade_to(firmware)
        board.boot_into_application()


def button_story(board, report, firmware):
    """A camera as it leaves the factory: the watchdog is disarmed, the button is held."""
    with report.step(board, "application programmed into flash beforehand: normal mode"):
        nor.write(board.flash, "app", firmware.images["app"].read_bytes())
        board.power_on()
        board.boot_into_application()
    disarmed = _disarm(board, report)
    _hold_button(board, report, disarmed)
    _show_figures(board, report, "normal")
    with report.step(board, "the debug marker and a reboot: recovery, joined"):
        resets = board.machine.reset_count()
        # Wait a second before the reboot, so that the bench line can answer.
        board.machine.run(f"touch {DEBUG_MARKER}; (sleep 1; reboot) &")
        board.machine.wait_reset(resets + 1, 30)
        _recover_by_marker(board)
        board.join_network()
    _show_figures(board, report, "recovery")


def _disarm(board, report):
    """Returns the time at which the watchdog was disarmed."""
    with report.step(board, "SIGUSR1 disarms the watchdog"):
        board.machine.run(f"kill -USR1 {figures.SUPERVISOR}")
        board.see("Watchdog Stop successful", 5)
        board.machine.run(f"! grep -q WDT /proc/{figures.SUPERVISOR}/task/*/comm")  # the feeder is gone
    return time.monotonic()


def _hold_button(board, report, disarmed):
    machine = board.machine
    resets = machine.reset_count()
    with report.step(board, "application silent, button held for five samples: nothing"):
        machine.run("touch /param/kept /param/var/of_user /param/wpa_supplicant.conf /param/x.debug")
        machine.run("mkdir -p /run/board && echo silent >/run/board/app")
        board.see("HardwareResetProc thread Start is OK", 20)
        machine.press_button(True)
        board.see("hard reset count = 5$", 20)
        machine.press_button(False)
        machine.run("sleep 3")  # long enough for two samples of the released button
    with report.step(board, "held for ten: factory reset; until then no reset for longer than the watchdog's time-out"):
        begin = board.since
        # The tenth sample must not come before an armed watchdog would have reset the board.
        time.sleep(max(0.0, disarmed + WATCHDOG_SECONDS + WATCHDOG_SLACK - 9 - time.monotonic()))
        machine.press_button(True)
        board.see("hard reset count = 1$", 5)  # the first press no longer counts
        board.see("hard reset count = 10$", 20)
        if machine.reset_count() != resets or time.monotonic() - disarmed < WATCHDOG_SECONDS:
            raise Failure("after the watchdog was disarmed, the board was reset or not observed for long enough")
        machine.wait_reset(resets + 1, 30)
        board.never_saw("feeding the dog", begin)
    with report.step(board, "afterwards: settings gone, the rest of /param kept, application alive"):
        board.boot_into_application()
        machine.run("test -e /param/kept")
        machine.run("test -z \"$(ls /param/var)\" && test ! -e /param/wpa_supplicant.conf && test ! -e /param/x.debug")
