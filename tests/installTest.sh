#!/usr/bin/env bash
# installTest.sh BUILD CC CXX
#
# What a user of the installed library meets: a header that needs another one first, a name that is
# declared but not exported (or the other way round), files that are missing, a library that cannot
# be linked as its own description says.
set -euo pipefail
build=$1 cc=$2 cxx=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/usr
fail() {
    echo "FAILED: $*" >&2
    exit 1
}

cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(dirname "$(find "$prefix" -name librtc.a)")
for file in sbin/bypass_cmd share/man/man8/bypass_cmd.8 share/man/man3/librtc.3; do
    [ -s "$prefix/$file" ] || fail "$file is not installed"
done
[ "$("$prefix/sbin/bypass_cmd" -h | head -1)" = usage: ] || fail "the installed tool"

echo "each header alone, and all of them in the umbrella"
for header in "$prefix"/include/librtc/*.h; do
    name=$(basename "$header")
    printf '#include <librtc/%s>\n' "$name" >"$work/alone.c"
    for compiler in "$cc -x c -std=c11" "$cxx -x c++ -std=c++20"; do
        $compiler -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" "$work/alone.c" ||
            fail "$name alone ($compiler)"
    done
    grep -qF "$name" "$prefix/share/man/man3/librtc.3" || fail "$name is not in librtc(3)"
    [ "$name" = orvaneLibrtc.h ] || [ "$name" = orvanePlatformRcu.h ] ||
        grep -q "\"$name\"" "$prefix/include/librtc/orvaneLibrtc.h" || fail "$name: no umbrella"
done

echo "exported names are the declared ones"
nm -D --defined-only "$lib/librtc.so" | awk '$2 != "A" { sub("@.*", "", $3); print $3 }' |
    sort >"$work/exported"
# Declarations only: comments away, then what stands before an opening parenthesis or after extern.
sed -e 's,/\*.*\*/,,' -e '/\/\*/,/\*\//d' -e '/^#/d' "$prefix"/include/librtc/*.h |
    grep -v -e typedef -e '^static' -e '^ ' -e '^extern .*pthread' | grep -oE '\b(OV_[A-Za-z0-9]+|rtc_[a-z_0-9]+) ?\(|extern int \w+' |
    grep -vE 'OV_PRINTF_LIKE|OV_PUBLIC|OV_LOG_SITE|OV_EXTERN|OV_ASSERT_AT|OV_RCU' | sed -E 's/extern int //; s/ ?\(//' |
    sort -u >"$work/declared"
diff "$work/declared" "$work/exported" || fail "declared (<) and exported (>) differ"
[[ $(readelf -d "$lib/librtc.so") == *"soname: [librtc.so.5]"* ]] || fail "soname"
readelf -d "$prefix/sbin/bypass_cmd" | grep NEEDED | grep -vqE 'libc\.so|ld-linux' &&
    fail "bypass_cmd loads more than libc and its loader"

echo "a C program by pkg-config, a C++ program by CMake"
cat >"$work/user.c" <<'EOF'
#include <librtc/orvaneLibrtc.h>
#include <stdio.h>
int main(void)
{
    char Text[16];
    uint32_t Ip = 0;
    u8 Mask = 0;
    char Subnet[] = "10.0.0.1/24";
    if (OV_AgentFileLogCtor("/dev/stdout") != 0 || OV_RTCExecCmd("echo hello", Text, 16) != 6 ||
        OV_RTCParseIpSubnet(Subnet, sizeof(Subnet), &Ip, &Mask) != 0 || Mask != 24) {
        return 1;
    }
    OV_LOG_INFO("%d %s", g_BypassFeedDogEnable, Text);
    OV_AgentLogDtor();
    return 0;
}
EOF
export PKG_CONFIG_PATH=$lib/pkgconfig
[ "$(pkg-config --modversion librtc)" = 5.0.0.64 ] || fail "version"
read -ra flags <<<"$(pkg-config --cflags --libs librtc)"
"$cc" -std=c11 -Wall -Wextra -Werror "$work/user.c" "${flags[@]}" -o "$work/shared"
[[ $(LD_LIBRARY_PATH=$lib "$work/shared") == *"]1 hello"* ]] || fail "the shared library"
for example in "$(dirname "$0")"/../examples/*.cpp; do
    "$cxx" -std=c++20 "$example" "${flags[@]}" -o "$work/example"
done
sed -n '/example$/,/end of the example$/p' "$prefix/share/man/man3/librtc.3" |
    sed -e '/^\./d' -e 's/\\-/-/g' -e 's/\\e/\\/g' >"$work/page.c"
"$cc" -std=c11 -Wall -Wextra -Werror "$work/page.c" "${flags[@]}" -o "$work/example"

cat >"$work/open.c" <<'EOF'
#include <dlfcn.h>
int main(int argc, char *argv[])
{
    void *library = argc > 1 ? dlopen(argv[1], RTLD_NOW) : 0;
    int (*start)(void) = library ? (int (*)(void))dlsym(library, "OV_RTCGenlMonitorInit") : 0;
    int (*stop)(void) = library ? (int (*)(void))dlsym(library, "OV_RTCGenlMonitorUninit") : 0;
    return !start || !stop || start() != 0 || stop() != 0 || dlclose(library) != 0;
}
EOF
"$cc" "$work/open.c" -o "$work/open"
"$work/open" "$lib/librtc.so" || fail "opened, used and closed at run time"

mkdir "$work/user"
cp "$work/user.c" "$work/user/user.cpp"
cat >"$work/user/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.25)
project(user CXX)
find_package(librtc 5.0 REQUIRED CONFIG)
foreach(form rtc rtc-static)
    add_executable(user-${form} user.cpp)
    target_link_libraries(user-${form} PRIVATE librtc::${form})
endforeach()
EOF
cmake -G Ninja -S "$work/user" -B "$work/user/build" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/user/build" >/dev/null
for form in rtc rtc-static; do
    [[ $("$work/user/build/user-$form") == *"]1 hello"* ]] || fail "the CMake target $form"
done
echo "installed, and used three ways"
