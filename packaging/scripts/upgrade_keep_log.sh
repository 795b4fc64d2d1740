#!/bin/sh
# upgrade_keep_log.sh start OUTPUT | stop: keeps the last 64 KiB that the supervisor printed in this boot and in each of
# the three boots before it. `kvtool ladder --log FOLDER/boot-*` reads them.
#
# Called by     the start script, before and after the supervisor. `start` prints the file to which the supervisor must
#               append its output (trace and console), and returns at once. It fails if it cannot make such a file; the
#               output then goes to OUTPUT. Otherwise OUTPUT gets a copy. Under systemd a unit calls `prepare`, which
#               makes the file, and `run`, which does not return.
# Variables     KEEP_LOG     the folder
#               KEEP_KIND    "flash" (the default): few writes, within KEEP_BUDGET. "ram": the folder is in memory
#                            that survives a reset, and every line is written within two seconds
#               KEEP_BUDGET  for flash: bytes a day, 1048576
#               KEEP_EVERY   for flash: seconds between two saves while nothing happens, 21600
#               KEEP_RAM     where to mount the RAM disk for the output, /tmp/upgrade_log
# Must not      ever hold up the supervisor. That is why the output goes to a file and not to a pipe: a file has no
#               reader that can stall or die. The file is in its own RAM disk of 256 KiB. If the keeper does not empty
#               the file, the RAM disk fills up, and further lines are lost; the supervisor does not wait for it, and
#               gets no signal.
#
# Needs busybox with ash, cat, cp, grep, head, mkdir, mount, mv, rm, sleep, sync, tail, wc.

folder=${KEEP_LOG:-}
kind=${KEEP_KIND:-flash}
budget=${KEEP_BUDGET:-1048576}
every=${KEEP_EVERY:-21600}
ram=${KEEP_RAM:-/tmp/upgrade_log}
marker=/param/var/miniserver_reboot

keep=65536       # bytes of a boot
boots=3          # before this one
part=32768       # a file of the log is closed once it is this large
overhead=256     # bytes that the file system is assumed to write with each save
alarm_pause=15   # seconds between two saves for an alarm
first_save=60    # seconds after the start, so that every boot leaves something
# Lines after which a reset is near, and lines that tell of trouble.
urgent='# startapp\.sh|# touch |# reboot|stop feeding|MINI ProtocolInit'
alarm='offline$|ERROR|FAILED|ASSERT|hard reset count|upgrate mtd'

feed=$ram/feed
old=$ram/old # what the feed held before it was emptied
# Half of the budget can be in reserve; the other half comes back within a day.
capacity=$((budget / 2))

size() { wc -c <"$1" 2>/dev/null || echo 0; }
uptime() { read -r up _ </proc/uptime && echo "${up%%.*}"; }

prepare() {
    mkdir -p "$ram" || return 1
    grep -q " $ram tmpfs " /proc/mounts || mount -t tmpfs -o size=256k,mode=700 upgrade_log "$ram" || return 1
    : >>"$feed" && : >>"$old" || return 1
    if [ -e "$marker" ]; then echo "marker exists"; else echo "no marker"; fi >"$ram/marker"
}

# The bytes FROM to TO (exclusive) of all output since the boot. The feed begins at byte $base; $old ends there.
slice() { # FROM TO
    if [ "$1" -lt "$base" ]; then
        skip=$(($1 - base + $(size "$old")))
        [ $skip -ge 0 ] || skip=0
        tail -c +$((skip + 1)) "$old"
        set -- "$base" "$2"
    fi
    tail -c +$(($1 - base + 1)) "$feed" | head -c $(($2 - $1))
}

# Positions survive the end of this script, not the boot.
remember() { echo "$base $saved $passed $files $boot" >"$ram/state"; }

# Puts a part of the day's budget back for the time that has passed. All numbers stay below 2^31.
refill() {
    now=$(uptime)
    # A day has 86400 s; 1024 * 85 is a little more, so a day gives back at most the capacity.
    while [ $((now - filled)) -ge 85 ] && [ "$tokens" -lt $capacity ]; do
        tokens=$((tokens + capacity / 1024))
        filled=$((filled + 85))
    done
    if [ "$tokens" -ge $capacity ]; then
        tokens=$capacity
        filled=$now
    fi
}

# The numbers of the boots in the folder, oldest first.
numbers() {
    before=
    for file in "$folder"/boot-[0-9]*-[0-9]*.log; do
        number=${file##*/boot-}
        number=${number%%-*}
        [ ! -e "$file" ] || [ "$number" = "$before" ] || echo "$number"
        before=$number
    done
}

# The first save of a boot: its number, and room for it.
begin_boot() {
    mkdir -p "$folder" || return 1
    last=$(numbers | tail -n 1)
    last=${last:-000000}
    boot=$((1$last - 999999))
    boot=$(printf %06d "$boot")
    extra=$(($(numbers | wc -l) - boots))
    for number in $(numbers | head -n $((extra > 0 ? extra : 0))); do
        rm -f "$folder/boot-$number-"*
    done
    files=1
    echo "# upgrade_keep_log.sh: boot $boot, $(cat "$ram/marker")" >"$folder/boot-$boot-001.log"
}

# Removes the oldest files of this boot that are not needed for its last 64 KiB.
drop_old_parts() {
    sum=0
    number=$files
    while [ "$number" -gt 0 ]; do
        name=$folder/boot-$boot-$(printf %03d "$number").log
        [ -e "$name" ] || break
        [ $sum -lt $keep ] || rm -f "$name"
        sum=$((sum + $(size "$name")))
        number=$((number - 1))
    done
}

# Appends what is not saved yet: the last 64 KiB of it at most, and on flash no more than half of what is left of the
# budget beyond RESERVE bytes.
save() { # RESERVE
    want=$((total - saved))
    [ $want -gt 0 ] || return 0
    [ $want -le $keep ] || want=$keep
    if [ "$kind" = flash ]; then
        refill
        # At most half, so that something is left for the reset after this one.
        most=$(((tokens - overhead - $1) / 2))
        if [ $most -lt $want ]; then
            [ $most -ge 512 ] || return 0
            want=$most
        fi
    fi
    [ -n "$boot" ] || begin_boot || return 0
    file=$folder/boot-$boot-$(printf %03d "$files").log
    if [ "$(size "$file")" -ge $part ]; then
        files=$((files + 1))
        file=$folder/boot-$boot-$(printf %03d "$files").log
    fi
    if [ "$kind" = flash ]; then
        # Before the bytes are written: a reset in between must not make them free.
        tokens=$((tokens - want - overhead))
        echo "$tokens" >"$folder/budget.new" && mv "$folder/budget.new" "$folder/budget" || return 0
    fi
    slice $((total - want)) "$total" >>"$file" || return 0
    saved=$total
    saved_at=$(uptime)
    drop_old_parts
    [ "$kind" != flash ] || sync
    remember
}

# Decides whether to save, by what the new lines say.
consider() {
    if [ "$kind" != flash ]; then
        save 0
        return
    fi
    since=$(($(uptime) - saved_at))
    if [ "$total" -gt "$checked" ]; then
        # A line may have been cut by the last look.
        from=$((checked - 200))
        [ $from -ge "$base" ] || from=$base
        slice "$from" "$total" >"$ram/new"
        checked=$total
        if grep -qE "$urgent" "$ram/new"; then
            save 0
            return
        fi
        if grep -qE "$alarm" "$ram/new"; then
            alarmed=1
        fi
    fi
    if [ "$alarmed" = 1 ] && [ "$since" -ge $alarm_pause ]; then
        alarmed=0
        save $((capacity / 4))
    elif [ "$since" -ge "$every" ] || { [ -z "$boot" ] && [ "$since" -ge $first_save ]; }; then
        save $((capacity / 2))
    fi
}

is_passing() { [ -n "$passing" ] && kill -0 "$passing" 2>/dev/null; }

# Copies new output to OUTPUT. A console that blocks holds up this copy only.
pass_on() {
    [ "$passed" -lt "$total" ] || return 0
    [ -n "$1" ] && [ "$1" != /dev/null ] || return 0
    is_passing && return 0
    { slice "$passed" "$total" >>"$1"; } 2>/dev/null &
    passing=$!
    passed=$total
}

# Empties the feed. The supervisor appends to it, so its next line goes to the beginning. A line that comes between the
# comparison and the emptying is lost; the counter in the trace shows the gap.
empty() {
    gone=$(size "$feed")
    if cp "$feed" "$old.new"; then
        while gone=$(size "$old.new") && [ "$gone" != "$(size "$feed")" ]; do
            cp "$feed" "$old.new" || break
        done
        mv "$old.new" "$old"
    else
        # The RAM disk is full, because this script did not run for a long time.
        rm -f "$old.new"
        : >"$old"
    fi
    : >"$feed"
    base=$((base + gone))
    remember
}

run() { # OUTPUT
    prepare || return 1
    base=0 saved=0 passed=0 files=0 boot='' checked=0 alarmed=0 passing=''
    saved_at=$(uptime)
    filled=$saved_at
    tokens=$(cat "$folder/budget" 2>/dev/null)
    case $tokens in '' | *[!0-9]*) tokens=$capacity ;; esac
    [ ! -s "$ram/state" ] || read -r base saved passed files boot <"$ram/state"
    checked=$base
    total=$((base + $(size "$feed")))
    ending=0
    trap ending=1 TERM
    while [ $ending = 0 ]; do
        total=$((base + $(size "$feed")))
        consider
        # The copy to the console reads the feed. Wait for it, but not for a console that blocks.
        held=$((total - base))
        if [ $held -ge $((keep + keep / 4)) ] || { [ $held -ge $keep ] && ! is_passing; }; then
            empty
            total=$((base + $(size "$feed")))
        fi
        pass_on "$1"
        sleep 1
    done
    total=$((base + $(size "$feed")))
    save 0
}

# Runs the keeper until `stop`, and again if it ends. Ends an earlier one: two would save every line twice.
start() { # OUTPUT
    prepare || return 1
    earlier=$(cat "$ram/run.pid" 2>/dev/null)
    stop
    (
        tries=30
        while [ -n "$earlier" ] && [ $tries -gt 0 ] && kill -0 "$earlier" 2>/dev/null; do
            sleep 1
            tries=$((tries - 1))
        done
        while :; do
            "$0" run "$1" &
            echo $! >"$ram/run.pid"
            wait $!
            sleep 5
        done
    ) </dev/null >/dev/null 2>&1 &
    echo $! >"$ram/start.pid"
    echo "$feed"
}

stop() {
    for name in start run; do
        pid=$(cat "$ram/$name.pid" 2>/dev/null) && kill -TERM "$pid" 2>/dev/null
        # The number may be another process's when this runs again.
        rm -f "$ram/$name.pid"
    done
    return 0
}

[ -n "$folder" ] || {
    echo "upgrade_keep_log.sh: KEEP_LOG names no folder" >&2
    exit 2
}
case $kind in
    flash | ram) ;;
    *)
        echo "upgrade_keep_log.sh: KEEP_KIND is neither flash nor ram: $kind" >&2
        exit 2
        ;;
esac
case "${1:-}" in
    start | run) "$1" "${2:-}" ;;
    prepare) prepare ;;
    stop) stop ;;
    *)
        echo "usage: $0 start OUTPUT | stop | prepare | run OUTPUT" >&2
        exit 2
        ;;
esac
