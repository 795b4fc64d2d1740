#!/bin/bash
# Fills the sysroot of the ARM build on musl: Debian's musl for armhf, the kernel's headers, and the device program's
# three libraries. Debian builds those for glibc only, so the script builds them from Debian's source packages, into
# usr/local. That takes about a minute. Prints the sysroot's folder. A filled sysroot needs no network.
# The exit status is 2 if a library does not build, and another one if something cannot be fetched.
set -euo pipefail
shopt -s inherit_errexit

scripts=$(cd "$(dirname "$0")" && pwd)
eval "$("$scripts/armhf_packages.sh" env)"
sysroot=$KV_CACHE/musl-sysroot
log=$KV_CACHE/musl-build.log
triplet=arm-linux-gnueabihf
libraries=(libevent libmd liboping)

# musl and the kernel's headers, without folders for the architecture.
install_musl() { # ROOT
    local packages=$work/packages
    "$scripts/armhf_packages.sh" unpack "$packages" musl-dev linux-libc-dev
    mkdir -p "$1/usr/lib"
    cp -r "$packages/usr/include" "$1/usr/"
    cp -r "$1/usr/include/$triplet/." "$1/usr/include/arm-linux-musleabihf/." "$1/usr/include/"
    rm -r "$1/usr/include/$triplet" "$1/usr/include/arm-linux-musleabihf"
    cp "$packages"/usr/lib/arm-linux-musleabihf/*.[ao] "$1/usr/lib/"
}

unpack_source() { # NAME DIR
    local folder
    folder=$("$scripts/armhf_packages.sh" source "$1")
    if compgen -G "$folder/*.dsc" >/dev/null; then
        dpkg-source --extract "$folder"/*.dsc "$2"
    else
        mkdir "$2"
        tar -x --strip-components=1 -C "$2" -f "$(find "$folder" -name '*.orig.tar.*' ! -name '*.asc')"
    fi
}

# The compiler is made for glibc. So the build takes only the compiler's own headers and libgcc from it.
configure() { # ROOT OPTION...
    local root=$1
    shift
    [ -x configure ] || autoreconf -fi
    ./configure --host="$triplet" --prefix=/usr/local --disable-shared --enable-static "$@" \
        CC="$triplet-gcc -mmusl -nostdinc -isystem $root/usr/include -isystem $compiler_headers" \
        CFLAGS="-Os -ffunction-sections -fdata-sections -fstack-protector-strong" \
        LDFLAGS="-static -nodefaultlibs -B$root/usr/lib -L$root/usr/lib" \
        LIBS="-Wl,--start-group -lc -lgcc -Wl,--end-group"
}

# The release archive's build files are complete, but Debian's patches make them look outdated.
make_here() { make -j "$(nproc)" ACLOCAL=: AUTOCONF=: AUTOHEADER=: AUTOMAKE=: "$@"; }

build_libevent() { # ROOT
    configure "$1" --disable-openssl --disable-samples --disable-libevent-regress
    make_here include/event2/event-config.h
    make_here libevent_core.la
    make_here DESTDIR="$1" install-data
    install -D -m 644 -t "$1/usr/local/lib" .libs/libevent_core.a
}

build_libmd() { # ROOT
    configure "$1"
    make_here
    make_here DESTDIR="$1" install
}

build_liboping() { # ROOT
    configure "$1" --without-perl-bindings
    make_here -C src liboping.la
    make_here -C src DESTDIR="$1" install-libLTLIBRARIES install-includeHEADERS
}

# What a sysroot is made from. The script makes it again if this has changed since.
contents() {
    "$scripts/armhf_packages.sh" fetch musl-dev linux-libc-dev
    "$scripts/armhf_packages.sh" source "${libraries[@]}" | while read -r folder; do
        find "$folder" -type f -name '*.tar.*' | sort
    done
    "$triplet-gcc" --version | head -n 1
    sha256sum <"$0"
}

fill() { # CONTENTS
    local name
    rm -rf "$sysroot" "$work"
    mkdir -p "$work/root"
    install_musl "$work/root"
    for name in "${libraries[@]}"; do
        echo "musl_sysroot: building $name" >&3
        unpack_source "$name" "$work/$name"
        (cd "$work/$name" && "build_$name" "$work/root")
    done
    echo "$1" >"$work/root/.contents"
    mv "$work/root" "$sysroot"
    rm -rf "$work"
}

compiler_headers=$("$triplet-gcc" -print-file-name=include)
work=$KV_CACHE/musl-build
mkdir -p "$KV_CACHE"
exec 8>"$KV_CACHE/musl-lock"
flock 8
wanted=$(contents)
if [ "$wanted" != "$(cat "$sysroot/.contents" 2>/dev/null)" ]; then
    # Within a condition the shell would go on after a failed command.
    set +e
    (
        set -e
        fill "$wanted"
    ) 3>&2 >"$log" 2>&1
    status=$?
    set -e
    [ $status -eq 0 ] || {
        echo "musl_sysroot: failed; the log is $log" >&2
        exit 2
    }
fi
echo "$sysroot"
