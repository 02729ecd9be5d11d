#!/usr/bin/env bash
# tryPackages.sh PACKAGES CACHE BUILD_ID
#
# What a user of the packages in the folder PACKAGES meets on a fresh Debian 12: a dependency that is
# not named, a file that is missing or stays behind, a library that cannot be linked as its own
# description says, or does not tell BUILD_ID. The folder CACHE keeps the fresh root and what was
# fetched for it. Needs root. Whatever comes out of the packages runs in private mount, process and
# network namespaces, without a network.
set -euo pipefail
toolchain=(gcc g++ make cmake pkg-config)

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# In the fresh root, offline.
apt() {
    DEBIAN_FRONTEND=noninteractive apt-get -y -qq --no-install-recommends "$@" >/tmp/apt.log 2>&1 ||
        { cat /tmp/apt.log >&2 && fail "apt-get $*"; }
}

# All files but the records of apt, dpkg and ldconfig.
files() {
    find / -xdev \( -path /proc -o -path /tmp -o -path /var/log -o -path /var/lib/apt -o \
        -path /var/lib/dpkg -o -path /var/cache \) -prune -o -print | sort
}

try_tool() {
    apt install /packages/bypass-cmd_*.deb
    [ "$(bypass_cmd -h | head -n 1)" = usage: ] || fail "bypass_cmd -h"
    bypass_cmd -b 2 >/dev/null && fail "bypass_cmd -b 2"
    [ -s /usr/share/man/man8/bypass_cmd.8.gz ] || fail "no manual page"
    # shellcheck source=/dev/null
    . /usr/share/bash-completion/completions/bypass_cmd
    COMP_WORDS=(bypass_cmd -b "") COMP_CWORD=2
    _bypass_cmd
    [ "${COMPREPLY[*]}" = "0 1" ] || fail "completion of -b: ${COMPREPLY[*]}"
    COMP_WORDS=(bypass_cmd -) COMP_CWORD=1
    _bypass_cmd
    [ "${COMPREPLY[*]}" = "-b -m -h" ] || fail "completion: ${COMPREPLY[*]}"
    echo "bypass-cmd: tool, manual page, completion"
}

# Names of every library below are used: that of libnl by the routes, that of liburcu by the pool.
write_program() {
    cat >"$1" <<'END'
#include <librtc/orvaneLibrtc.h>
#include <librtc/orvanePlatformRcu.h>
#include <stdarg.h>
#include <stdio.h>

#ifdef __cplusplus
#include <span>
static_assert(__cplusplus >= 202002L, "C++20");
#else
static_assert(__STDC_VERSION__ == 201112L, "C11");
#endif

static void Print(const char *Format, ...)
{
    va_list Arguments;
    va_start(Arguments, Format);
    vprintf(Format, Arguments);
    va_end(Arguments);
}

static int Count(OV_RTC_MONITOR_NOTIFY *Notify, void *Arg)
{
    ++*(int *)Arg;
    return Notify == NULL;
}

int main(void)
{
    int Routes = 0;
    uint32_t Ip = 0;
    u8 Mask = 0;
    char Subnet[] = "10.0.0.1/24";

    OV_RtcVersionDump(Print);
    OV_MemPoolDestroy(OV_MemPoolCreate("user", 4, 64, 1, 0));
    return OV_RTCParseIpSubnet(Subnet, sizeof(Subnet), &Ip, &Mask) != 0 || Mask != 24 ||
           OV_RTCRouteGetAll(Count, &Routes) != 0;
}
END
}

# check PROGRAM WANTED: runs it; WANTED tells whether it loads the shared library.
check() {
    local loads=no line
    line=$("$1") || fail "$1: status $?"
    [[ $line == "OV Librtc version: $version, git: $build, build: "* ]] || fail "$1: $line"
    [[ $(ldd "$1" 2>/dev/null) != *"librtc.so.5 => /"* ]] || loads=yes
    [ "$loads" = "$2" ] || fail "$1: loads librtc.so.5: $loads"
    echo "$1: $line"
}

try_library() {
    apt install /packages/librtc5_*.deb /packages/librtc-dev_*.deb
    cd /tmp
    local language compile source flags
    for language in C CXX; do
        mkdir $language
        if [ $language = C ]; then
            compile=(gcc -std=c11) source=user.c
        else
            compile=(g++ -std=c++20) source=user.cpp
        fi
        write_program $language/$source
        compile+=(-Wall -Wextra -Werror "$language/$source")

        read -ra flags <<<"$(pkg-config --cflags --libs librtc)"
        "${compile[@]}" "${flags[@]}" -o $language/shared
        read -ra flags <<<"$(pkg-config --static --cflags --libs librtc)"
        "${compile[@]}" "${flags[@]/#-lrtc/-l:librtc.a}" -o $language/static
        check $language/shared yes
        check $language/static no

        cat >$language/CMakeLists.txt <<END
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES $language)
set(CMAKE_C_STANDARD 11)
set(CMAKE_CXX_STANDARD 20)
find_package(librtc 5.0 REQUIRED CONFIG)
foreach(Form rtc rtc-static)
    add_executable(\${Form} $source)
    target_link_libraries(\${Form} PRIVATE librtc::\${Form})
endforeach()
END
        { cmake -S $language -B $language/build && cmake --build $language/build; } \
            >/tmp/cmake.log 2>&1 || { cat /tmp/cmake.log >&2 && fail "find_package, $language"; }
        check $language/build/rtc yes
        check $language/build/rtc-static no
    done
}

inside() {
    version=$(dpkg-deb -f /packages/librtc5_*.deb Version)
    version=${version%-*}
    apt install "${toolchain[@]}"
    files >/tmp/before
    try_tool
    try_library
    cd /
    apt purge bypass-cmd librtc-dev librtc5
    apt autoremove --purge
    files >/tmp/after
    diff /tmp/before /tmp/after || fail "files that stay (>) or went (<)"
    echo "purged: $(wc -l </tmp/after) files, as before"
}

case ${1:-} in
--inside)
    build=$2
    inside
    exit
    ;;
--enter) # in the namespaces
    root=$2
    mount --bind "$3" "$root/packages"
    mount --bind "$4" "$root/var/cache/apt/archives"
    mount -t proc proc "$root/proc"
    cp "$0" "$root/try"
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        chroot "$root" /try --inside "$5"
    ;;
esac

[ $# -eq 3 ] || fail "which packages, which cache, which build?"
[ "$(id -u)" -eq 0 ] || fail "a fresh root needs root"
packages=$(realpath "$1")
mkdir -p "$2"
cache=$(realpath "$2")
fresh=$cache/fresh
if [ ! -d "$fresh" ]; then
    echo "making a fresh Debian 12 in $fresh"
    rm -rf --one-file-system "$fresh.new"
    unshare --mount --propagation private \
        debootstrap --variant=minbase bookworm "$fresh.new" >"$cache/debootstrap.log" 2>&1 ||
        fail "see $cache/debootstrap.log"
    mv "$fresh.new" "$fresh"
fi
# The names alone: nothing of the packages runs while there is a network.
depends=$(for package in librtc5 librtc-dev bypass-cmd; do
    dpkg-deb -f "$packages/$package"_*.deb Depends
done | tr ',' '\n' | sed -E 's/^ *//; s/ .*//' | grep -v '^librtc5$' | sort -u)
chroot "$fresh" apt-get update -qq
# shellcheck disable=SC2086 # one word a package
chroot "$fresh" apt-get install -y -qq --no-install-recommends --download-only \
    "${toolchain[@]}" $depends >/dev/null

root=$(mktemp -d "$cache/root.XXXXXX")
trap 'rm -rf --one-file-system "$root"' EXIT
cp -a "$fresh/." "$root"
rm -rf "$root"/var/cache/apt/archives/*
mkdir "$root/packages"
unshare --mount --pid --fork --kill-child --net --propagation private "$0" --enter "$root" \
    "$packages" "$fresh/var/cache/apt/archives" "$3"
