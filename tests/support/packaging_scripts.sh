#!/bin/sh
# packaging_scripts.sh FOLDER: tests the scripts of packaging/ (FOLDER) under busybox's shell, in their own namespaces,
# with stand-ins for programs, devices and commands. Each script must do what its head comment promises.
set -eu
KV_PACKAGING=$1
export KV_PACKAGING
# shellcheck disable=SC2016 # expanded by the inner shell
exec unshare --user --map-root-user --mount --net --pid --fork --kill-child --mount-proc -- sh -eu -c '
    mount --bind "$KV_PACKAGING" /mnt
    for folder in /tmp /opt /var /run /etc/default /sys/class; do
        mount -t tmpfs tmpfs "$folder"
    done
    : >/tmp/null
    mount --bind /dev/null /tmp/null
    mount -t tmpfs -o mode=755 tmpfs /dev
    : >/dev/null
    mount --bind /tmp/null /dev/null
    : >/dev/console
    mkdir -p /tmp/stubs /var/run /opt/app/bin /sys/class/gpio
    exec sh -eu' <<'INNER'
die() { echo "packaging_scripts: $*" >&2; exit 1; }
busy() { timeout 30 busybox sh "$@"; }
# A background program has its name only after the shell that started it has called exec.
await() { tries=1200; until "$@"; do tries=$((tries - 1)); [ $tries -gt 0 ] || return 1; sleep 0.05; done; }
is_called() { [ "$(name_of "$1")" = "$2" ]; }
has_application() { pidof -x cameraMain >/tmp/application; }
name_of() { cat "/proc/$1/comm" 2>/dev/null || true; }

# Start script: starts the supervisor once and under the right name, stops it with SIGTERM, and reports its status.
printf '%s\n' '#!/bin/sh' 'trap "echo ended >>/tmp/ended; exit 0" TERM' ': >/tmp/ready' 'while :; do sleep 0.1; done' \
    >/tmp/upgradeMain
printf '#!/bin/sh\necho prepared >>/tmp/prepared\nexit 1\n' >/tmp/prepare
chmod +x /tmp/upgradeMain /tmp/prepare
printf 'PROGRAM=/tmp/upgradeMain\nPREPARE=/tmp/prepare\nOUTPUT=/tmp/output\n' >/etc/default/upgrademain
init=/mnt/init/S50upgrademain
! busy $init status >/dev/null || die "status reports a supervisor that does not run"
busy $init start 2>/dev/null || die "start fails"
pid=$(cat /var/run/upgradeMain.pid)
await test -e /tmp/ready || die "the supervisor does not run"
is_called "$pid" upgradeMain || die "the supervisor is called $(name_of "$pid")"
[ "$(readlink "/proc/$pid/cwd")" = / ] || die "the supervisor does not start in /"
[ "$(readlink "/proc/$pid/fd/0")" = /dev/null ] || die "the supervisor reads the console"
busy $init start >/dev/null || die "second start fails"
[ "$(cat /var/run/upgradeMain.pid)" = "$pid" ] || die "a second supervisor was started"
[ "$(wc -l </tmp/prepared)" = 1 ] || die "the board is not prepared exactly once"
busy $init status >/dev/null || die "status does not report a running supervisor"
busy $init stop || die "stop fails"
[ "$(cat /tmp/ended)" = ended ] || die "the supervisor got no SIGTERM"
[ -z "$(name_of "$pid")" ] || die "stop returned before the supervisor had ended"
echo $$ >/var/run/upgradeMain.pid
busy $init stop >/dev/null || die "stop fails when the PID file names another process"

# Log keeper: the output goes to its RAM disk. On flash it stays within its budget, across boots too. It keeps the
# present boot and three before it. Neither its end nor a console that blocks holds up the program
# that prints.
keeper=/mnt/scripts/upgrade_keep_log.sh
kept() { cat /tmp/kept/boot-*"$1"*.log 2>/dev/null; }
is_kept() { kept "$1" | grep -q "$2"; }
new_boot() { ! grep -q " /tmp/keep_ram " /proc/mounts || await umount /tmp/keep_ram || die "the RAM disk is in use"; }
# One write, so the keeper sees all of it at once.
print() { # LINES TEXT [LAST-LINE]
    { seq -f "%05.0f $2" "$1" && [ -z "${3:-}" ] || echo "$3"; } >/tmp/lines
    cat /tmp/lines >>/tmp/keep_ram/feed
}
end_keeper() {
    pid=$(cat /tmp/keep_ram/run.pid)
    busy $keeper stop
    await test ! -e "/proc/$pid" || die "the keeper does not end"
}
export KEEP_LOG=/tmp/kept KEEP_RAM=/tmp/keep_ram KEEP_BUDGET=131072
mkfifo /tmp/console
written=0
for boot in 1 2 3 4 5; do
    new_boot
    [ "$(busy $keeper start /tmp/console)" = /tmp/keep_ram/feed ] || die "the keeper does not start"
    print 2000 "boot $boot: Process [cameraMain] offline" "# startapp.sh"
    await is_kept "00000$boot-" startapp.sh || die "boot $boot: the keeper saves nothing"
    if [ $boot = 1 ]; then
        # More than 80 KiB, so the keeper empties its feed after it has saved.
        await test ! -s /tmp/keep_ram/feed || die "the keeper does not empty its feed"
        print 0 "" "Start to stop feeding the dog!"
        await is_kept 000001- "stop feeding" || die "the keeper does not save a short text before a reset"
    fi
    end_keeper
    written=$((written + $(kept "00000$boot-" | wc -c)))
done
[ "$(ls /tmp/kept | sed -n 's/^boot-0*\([0-9]*\)-.*/\1/p' | sort -u | paste -sd ' ')" = "2 3 4 5" ] ||
    die "the keeper has $(ls /tmp/kept)"
kept 000005- | head -n 1 | grep -qx '# upgrade_keep_log.sh: boot 000005, no marker' || die "no line begins the boot"
grep -q 'boot 5: .*offline' /tmp/kept/boot-000005-001.log || die "what came before the restart is missing"
# Without a pause between the boots all of them share half of the budget.
[ "$written" -le 65536 ] || die "the keeper wrote $written bytes"
[ "$written" -ge 32768 ] || die "the keeper wrote only $written bytes"
# The last 64 KiB, without gaps, although the feed is emptied.
new_boot
KEEP_KIND=ram
export KEEP_KIND
: >/tmp/copy
busy $keeper start /tmp/copy >/dev/null
await test -s /tmp/keep_ram/run.pid || die "the keeper does not run"
# The second one takes over.
busy $keeper start /tmp/copy >/dev/null
await test -s /tmp/keep_ram/run.pid || die "the second keeper does not run"
for round in 1 2 3 4; do
    print 1500 "round $round"
    await is_kept 000006- "01500 round $round" || die "round $round is not kept"
    # When its feed is nearly full, the keeper empties it even while a copy still reads it.
    await grep -q "01500 round $round" /tmp/copy || die "round $round is not on the console"
done
kept 000006- >/tmp/all
[ "$(wc -c </tmp/all)" -ge 65536 ] || die "less than 64 KiB are kept"
for round in 1 2 3 4; do seq -f "%05.0f round $round" 1500; done >/tmp/printed
tail -c 65536 /tmp/printed >/tmp/wanted
tail -c 65536 /tmp/all | cmp - /tmp/wanted || die "what is kept is not what was printed"
await cmp -s /tmp/printed /tmp/copy || die "the console has gaps"
# While no keeper runs, printing neither blocks nor ends the process that prints.
kill -9 "$(cat /tmp/keep_ram/start.pid)" "$(cat /tmp/keep_ram/run.pid)"
timeout 60 sh -c 'seq 100000 >>/tmp/keep_ram/feed; echo "$?" >/tmp/printed' 2>/dev/null || die "printing blocks"
[ "$(cat /tmp/printed)" = 1 ] || die "the RAM disk has no limit"
new_boot
if KEEP_KIND="flash # or ram" busy $keeper start /tmp/copy 2>/dev/null; then die "any kind is taken"; fi
unset KEEP_LOG KEEP_RAM KEEP_BUDGET KEEP_KIND

# Preparation: without a button line it does the rest and then fails. With one it sets up everything, even when it runs
# a second time.
export PATH="/tmp/stubs:$PATH"
if busy /mnt/scripts/upgrade_prepare.sh 2>/dev/null; then die "preparation without a button line succeeds"; fi
[ -p /tmp/bin/cmd_link_snd ] && [ -p /tmp/bin/cmd_link_ack ] || die "no console pipes"
mkdir /sys/class/gpio/GPIO26
echo 1 >/sys/class/gpio/GPIO26/value
busy /mnt/scripts/upgrade_prepare.sh || die "preparation fails"
[ "$(cat /sys/class/gpio/GPIO26/direction)" = in ] || die "the button line is not an input"
ping -c 1 -W 2 127.0.0.1 >/dev/null || die "loopback is down"

# Connect script: gives the file to the supplicant, removes a stale control socket, refuses wrong
# use.
printf '#!/bin/sh\necho "$*" >/tmp/called\n' >/tmp/stubs/wpa_supplicant
printf '#!/bin/sh\necho "$0 $*" | sed "s:.*/::" >>/tmp/driver\n' >/tmp/stubs/ifconfig
chmod +x /tmp/stubs/*
mkdir /tmp/wpa_supplicant
: >/tmp/wpa_supplicant/wlan0
printf 'ctrl_interface=/tmp/wpa_supplicant\n' >/tmp/wpa_supplicant.conf
busy /mnt/scripts/wifi_connect.sh sta /tmp/wpa_supplicant.conf || die "wifi_connect.sh fails"
grep -q -- '-B .*-i wlan0 -c /tmp/wpa_supplicant.conf$' /tmp/called || die "the supplicant got: $(cat /tmp/called)"
[ ! -e /tmp/wpa_supplicant/wlan0 ] || die "a stale control socket is left"
if busy /mnt/scripts/wifi_connect.sh ap /tmp/wpa_supplicant.conf 2>/dev/null; then die "wifi_connect.sh ap"; fi

# Driver reset: if the driver is not a module, it only takes the interface down.
busy /mnt/scripts/wifi_reset.sh soft || die "wifi_reset.sh fails"
[ "$(cat /tmp/driver)" = "ifconfig wlan0 down" ] || die "wifi_reset.sh did: $(cat /tmp/driver)"

# Application: starts in the background, after killing an old one that ignores SIGTERM.
printf '#!/bin/sh\ntrap "" TERM\nwhile :; do sleep 0.1; done\n' >/opt/app/bin/cameraMain
chmod +x /opt/app/bin/cameraMain
busy /mnt/scripts/startapp.sh || die "startapp.sh fails or does not return"
await has_application || die "startapp.sh starts nothing"
first=$(cat /tmp/application)
busy /mnt/scripts/startapp.sh || die "startapp.sh fails while an application runs"
await test ! -e "/proc/$first" || die "the old application lives on"
await has_application || die "startapp.sh starts nothing while an application runs"
INNER
