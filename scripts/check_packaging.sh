#!/bin/bash
# Checks packaging/ as far as possible without the distributions. make and a Kconfig parser read the recipes, with
# stand-ins for the parts that the distribution provides. The recipes' install steps run on the build in build/release.
# systemd checks the unit if it is installed. The scripts run in a sandbox.
set -euo pipefail

cd "$(dirname "$0")/.."
top=$PWD
work=$(mktemp -d "${TMPDIR:-/tmp}/kv-packaging-XXXXXX")
trap 'rm -rf "$work"' EXIT

die() {
    echo "check_packaging: $*" >&2
    exit 1
}
expect() { # WHAT DIR FILE...: fails unless DIR holds exactly these files
    local what=$1 dir=$2
    shift 2
    diff <(printf '%s\n' "$@" | sort) <(cd "$dir" && find . -type f -printf '%P\n' | sort) ||
        die "$what installs the wrong files (<: expected, >: installed)"
}

# There are three components. The one for the device is the device program alone.
install_component() { # COMPONENT
    DESTDIR=$work/$1 cmake --install build/release --prefix /usr --component "$1" \
        >"$work/log" 2>&1 || die "$(cat "$work/log")"
}
# With KV_INIT, component device adds the start files, adapted to the prefix, and the scripts that they run.
for init in busybox systemd none; do
    cmake -DKV_INIT="$init" build/release >"$work/log" || die "$(cat "$work/log")"
    DESTDIR=$work/$init cmake --install build/release --prefix /opt --component device >"$work/log" ||
        die "$(cat "$work/log")"
done
expect "INIT=busybox" "$work/busybox" opt/sbin/upgradeMain opt/sbin/upgrade_prepare.sh \
    opt/sbin/upgrade_keep_log.sh etc/init.d/S50upgrademain
expect "INIT=systemd" "$work/systemd" opt/sbin/upgradeMain opt/sbin/upgrade_prepare.sh \
    opt/sbin/upgrade_keep_log.sh opt/lib/systemd/system/upgrademain.service \
    opt/lib/systemd/system/upgrademain-log.service opt/lib/systemd/system.conf.d/upgrademain.conf
grep -qx PROGRAM=/opt/sbin/upgradeMain "$work/busybox/etc/init.d/S50upgrademain" ||
    die "S50upgrademain ignores the prefix"
grep -qx KEEPER=/opt/sbin/upgrade_keep_log.sh "$work/busybox/etc/init.d/S50upgrademain" ||
    die "S50upgrademain ignores the prefix of its log keeper"
grep -qx ExecStart=/opt/sbin/upgradeMain "$work/systemd/opt/lib/systemd/system/upgrademain.service" ||
    die "upgrademain.service ignores the prefix"
rm -r "$work/systemd"
for component in device tools doc; do
    install_component "$component"
done
expect "component device" "$work/device" usr/sbin/upgradeMain
expect "component tools" "$work/tools" usr/bin/kvtool usr/bin/vboard usr/libexec/upgrademain/cameraMain \
    usr/share/man/man1/kvtool.1 usr/share/man/man1/vboard.1 \
    usr/share/bash-completion/completions/kvtool usr/share/bash-completion/completions/vboard \
    usr/share/zsh/site-functions/_kvtool usr/share/zsh/site-functions/_vboard
! said=$(install_component unknown 2>&1) || die "an unknown component is not an error"
[[ $said == *"device, doc, tools"* ]] || die "the error for an unknown component does not name the valid ones: $said"
for file in man/man8/upgradeMain.8 doc/upgradeMain/docs/porting.md \
    upgrademain/scripts/startapp.sh; do
    [ -f "$work/doc/usr/share/$file" ] || die "component doc lacks share/$file"
done

# Buildroot.
recipe=packaging/buildroot
export BR2_EXTERNAL_UPGRADEMAIN_PATH=$top/$recipe
scripts/check_kconfig.py $recipe/Config.in || die "Buildroot's Config.in"
cat >"$work/buildroot.mk" <<'END'
qstrip = $(strip $(subst ",,$(1)))
cmake-package =
INSTALL = install
BR2_CMAKE = cmake
BR2_PACKAGE_UPGRADEMAIN_SOURCE = "$(TOP)"
BR2_PACKAGE_UPGRADEMAIN_EXAMPLES = y
BR2_PACKAGE_UPGRADEMAIN_SIGNED = $(SIGNED)
BR2_PACKAGE_UPGRADEMAIN_TRUSTED_KEY = "$(KEY)"
BR_BUILDING = y
include $(BR2_EXTERNAL_UPGRADEMAIN_PATH)/external.mk
UPGRADEMAIN_BUILDDIR = $(TOP)/build/release
options:
	@echo $(UPGRADEMAIN_CONF_OPTS)
dependencies:
	@echo $(UPGRADEMAIN_DEPENDENCIES)
$(UPGRADEMAIN_SITE)/%:
	@$(UPGRADEMAIN_$*)
END
buildroot() { # TARGET-DIR GOAL [VARIABLE=VALUE...]
    make -s -f "$work/buildroot.mk" --warn-undefined-variables TOP="$top" TARGET_DIR="$work/$1" SIGNED= KEY= "${@:2}" \
        >"$work/log" 2>&1 || die "Buildroot's recipe: $(cat "$work/log")"
    grep -q warning "$work/log" && die "Buildroot's recipe: $(cat "$work/log")"
    cat "$work/log"
}
buildroot target "$top/INSTALL_TARGET_CMDS" >/dev/null
expect "Buildroot's recipe" "$work/target" usr/sbin/upgradeMain usr/sbin/upgrade_prepare.sh root/wifi_connect.sh \
    usr/bin/wifi_reset.sh usr/bin/startapp.sh
buildroot sysv "$top/INSTALL_INIT_SYSV" >/dev/null
expect "Buildroot's recipe for busybox init" "$work/sysv" etc/init.d/S50upgrademain \
    usr/sbin/upgrade_keep_log.sh
buildroot systemd "$top/INSTALL_INIT_SYSTEMD" >/dev/null
expect "Buildroot's recipe for systemd" "$work/systemd" usr/lib/systemd/system/upgrademain.service \
    usr/lib/systemd/system/upgrademain-log.service usr/sbin/upgrade_keep_log.sh \
    usr/lib/systemd/system.conf.d/upgrademain.conf

# OpenWrt.
mkdir "$work/openwrt" "$work/include"
cat >"$work/rules.mk" <<'END'
INSTALL_DIR = install -d -m0755
INSTALL_BIN = install -m0755
PKG_BUILD_DIR = $(WORK)/openwrt/build
PKG_INSTALL_DIR = $(WORK)/device
qstrip = $(strip $(subst ",,$(1)))
END
# shellcheck disable=SC2016 # for make
printf '%s\n' 'define BuildPackage' '$(if $(Package/$(1)),,$(error Package/$(1) is empty))' 'endef' \
    'options:' '	@echo $(CMAKE_OPTIONS)' \
    'config:' '	$(info $(Package/upgrademain/config))' \
    'version:' '	@echo $(PKG_VERSION)' 'prepare:' '	$(Build/Prepare)' \
    'install:' '	$(call Package/upgrademain/install,$(WORK)/openwrt/target)' >"$work/include/package.mk"
: >"$work/include/cmake.mk"
openwrt() { # GOAL [VARIABLE=VALUE...]
    make -s -C packaging/openwrt/upgrademain --no-print-directory WORK="$work" TOPDIR="$work" \
        INCLUDE_DIR="$work/include" "$@" 2>&1 || die "OpenWrt's recipe fails at $1"
}
mkdir "$work/source"
git ls-files -z --cached --others --exclude-standard | tar -C "$top" --null --files-from=- -cf - |
    tar -C "$work/source" -xf -
mkdir "$work/source/build"
UPGRADEMAIN_SRC=$work/source openwrt prepare
[ -f "$work/openwrt/build/CMakeLists.txt" ] || die "OpenWrt's recipe copies no sources"
[ ! -e "$work/openwrt/build/build" ] || die "OpenWrt's recipe copies build folders"
[[ $(openwrt version) =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || die "OpenWrt's recipe finds no version"
openwrt install
expect "OpenWrt's recipe" "$work/openwrt/target" usr/sbin/upgradeMain usr/sbin/upgrade_prepare.sh root/wifi_connect.sh \
    usr/bin/wifi_reset.sh usr/bin/startapp.sh etc/init.d/upgrademain

# Both recipes configure the tree, copied as OpenWrt copies it, with options that the tree knows.
# A recipe that fails ends the script here; within the comparison it would not.
options=$(buildroot - options)
[ "$options" = "$(openwrt options)" ] || die "the recipes configure the program in different ways"
# shellcheck disable=SC2046 # one word per option
cmake -G Ninja -S "$work/openwrt/build" -B "$work/configured" $(openwrt options) >"$work/log" 2>&1 ||
    die "the recipes' options do not configure: $(cat "$work/log")"
! grep -q 'not used by the project' "$work/log" ||
    die "the recipes set unknown options: $(cat "$work/log")"

# With a trusted key both pass it on. Without a file both fail: nobody may get a program that installs anything.
key=$work/camera.pub
signed=$(buildroot - options SIGNED=y KEY="$key")
[[ " $signed " == *" -DKV_TRUSTED_KEY=$key "* ]] || die "Buildroot's recipe loses the trusted key: $signed"
[[ $(buildroot - dependencies SIGNED=y KEY="$key") == *libsodium* ]] ||
    die "Buildroot's recipe does not build libsodium"
[ "$signed" = "$(openwrt options CONFIG_UPGRADEMAIN_SIGNED=y CONFIG_UPGRADEMAIN_TRUSTED_KEY="\"$key\"")" ] ||
    die "OpenWrt's recipe loses the trusted key"
! (buildroot - options SIGNED=y) >/dev/null 2>&1 || die "Buildroot's recipe accepts SIGNED without a file of keys"
! (openwrt options CONFIG_UPGRADEMAIN_SIGNED=y) >/dev/null 2>&1 ||
    die "OpenWrt's recipe accepts SIGNED without a file of keys"
{ printf 'config PACKAGE_upgrademain\n\tbool\n' && openwrt config; } >"$work/openwrt.in"
parse='import kconfiglib, sys; sys.exit(bool(kconfiglib.Kconfig(sys.argv[1]).warnings))'
KCONFIG_WARN_UNDEF=y /usr/bin/python3 -c "$parse" "$work/openwrt.in" ||
    die "the parser warns about OpenWrt's menu"

# The fragment has each command of busybox that the scripts run on a board.
scripts=$(sed -E 's/(^|[[:space:]])#.*//' packaging/scripts/*.sh packaging/init/S50upgrademain)
for command in $(busybox --list | grep -v '\['); do
    name=${command^^}
    if grep -qE "(^|[;|&({!]|then|do|else) *$command( |$)" <<<"$scripts"; then
        grep -qx "CONFIG_${name//-/_}=y" $recipe/package/upgrademain/busybox.fragment ||
            die "busybox.fragment lacks $command"
    fi
done

# With the same options, compile and link it against musl, OpenWrt's C library.
if command -v arm-linux-gnueabihf-g++ >/dev/null &&
    [ -d "${KV_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/upgrademain}/musl-sysroot" ]; then
    # shellcheck disable=SC2046 # one word per option
    cmake -G Ninja -S "$work/openwrt/build" -B "$work/musl" -DCMAKE_TOOLCHAIN_FILE="$top/cmake/armhf-musl.cmake" \
        $(openwrt options) >"$work/log" 2>&1 ||
        die "the recipes' options do not configure with musl: $(cat "$work/log")"
    cmake --build "$work/musl" >"$work/log" 2>&1 ||
        die "the recipes' options do not build with musl: $(cat "$work/log")"
else
    echo "check_packaging: no libraries for musl (make arm makes them); the recipes' options were not built with it"
fi

# systemd.
if command -v systemd-analyze >/dev/null; then
    mkdir -p "$work/root/usr/sbin" "$work/root/etc/systemd/system"
    cp "$work/target/usr/sbin/"* "$work/systemd/usr/sbin/"* "$work/root/usr/sbin/"
    for unit in upgrademain upgrademain-log; do
        sed "s:=\(-\?\)/usr/sbin:=\1$work/root/usr/sbin:" "packaging/systemd/$unit.service" \
            >"$work/root/etc/systemd/system/$unit.service"
        found=$(systemd-analyze verify --man=no "$work/root/etc/systemd/system/$unit.service" 2>&1 |
            grep upgrademain || true)
        [ -z "$found" ] || die "the unit $unit: $found"
    done
else
    echo "check_packaging: systemd-analyze is not installed; the unit was not checked"
fi

tests/support/packaging_scripts.sh "$top/packaging"
echo "check_packaging: clean"
