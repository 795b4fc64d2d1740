#!/bin/sh
# in_sandbox.sh PROGRAM [ARG...]: runs a test program where it can do no harm and sees a device's paths.
#
# The program gets its own user, mount, network and PID namespaces, and a private /tmp, /root,
# /etc/resolv.conf and drop_caches file. Loopback is up. The device's commands are stand-ins in
# /tmp/stubs (first on PATH) that append their command line to /tmp/commands.log; a test may
# overwrite a stand-in. PROGRAM's folder is visible as /mnt.
set -eu
exec 9<"$1"
KV_SANDBOX_BIN=$(dirname "$1")
export KV_SANDBOX_BIN
# The caller's temporary folder does not exist in the sandbox.
unset TMPDIR
shift
# shellcheck disable=SC2016 # expanded by the inner shell
exec unshare --user --map-root-user --mount --net --pid --fork --kill-child --mount-proc -- sh -eu -c '
    mount --bind "$KV_SANDBOX_BIN" /mnt
    mount -t tmpfs tmpfs /tmp
    mount -t tmpfs tmpfs /root
    ip link set lo up
    : >/tmp/resolv.conf
    mount --bind /tmp/resolv.conf "$(readlink -f /etc/resolv.conf)"
    : >/tmp/drop_caches
    mount --bind /tmp/drop_caches /proc/sys/vm/drop_caches
    mkdir /tmp/stubs
    for name in reboot killall udhcpc ifconfig startapp.sh wifi_reset.sh; do
        printf "#!/bin/sh\necho \"%s \$*\" >>/tmp/commands.log\n" "$name" >"/tmp/stubs/$name"
        chmod +x "/tmp/stubs/$name"
    done
    cp /tmp/stubs/reboot /root/wifi_connect.sh
    sed -i "s/reboot/wifi_connect.sh/" /root/wifi_connect.sh
    PATH=/tmp/stubs:/usr/sbin:/usr/bin:/sbin:/bin
    export PATH
    cd /tmp
    exec /proc/self/fd/9 "$@"' sh "$@"
