#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The build as firmware build systems drive it, with GoogleTest hidden:
# configured with the arguments of Buildroot's pkg-cmake (static, systemd),
# OpenWrt's cmake.mk (shared, procd) and Yocto's cmake.bbclass (shared,
# systemd), each installed into a DESTDIR their way. OpenWrt and Yocto share
# a tree: only their link flags differ, so the second relinks. Left out:
# compilers, sysroot, package-registry switches, switches of other
# projects (BUILD_DOCS, BUILD_EXAMPLES...) and directories this build does
# not use or whose value is its default (Yocto's bindir, includedir...),
# which change nothing here. Then the layouts, the procd script's instance,
# and a program built against the static and the shared install through
# pkg-config and find_package.   firmware.sh SOURCE WORK
# One "firmware: FAIL WHAT" line per failed check; the exit status is
# their number.
set -u
src=$1 work=$2
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 1
fails=0
fail() { echo "firmware: FAIL $*"; fails=$((fails + 1)); }
# Their flags come from their toolchains, the same here for all (Release
# adds only -DNDEBUG under OpenWrt and Yocto), and so does CMAKE_SYSTEM_NAME:
# a cross build.
export CFLAGS=-Os CXXFLAGS=-Os
cm() { cmake -S "$src" -B "$1" --no-warn-unused-cli -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
    -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr "${@:2}" >>log 2>&1; }
mk() { make -j2 "$@" >>log 2>&1; }
cm static -DCMAKE_COLOR_MAKEFILE=OFF -DBUILD_TESTING=OFF -DBUILD_SHARED_LIBS=OFF -DALD_INIT_SYSTEM=systemd \
    -DALD_SYSTEMD_UNIT_DIR=/usr/lib/systemd/system && mk -C static &&
    mk -C static DESTDIR="$work/buildroot" install/fast || fail "Buildroot's build"
cm shared -DCMAKE_SYSTEM_VERSION=1 -DCMAKE_SYSTEM_PROCESSOR="$(uname -m)" -DCMAKE_C_FLAGS_RELEASE=-DNDEBUG \
    -DCMAKE_CXX_FLAGS_RELEASE=-DNDEBUG -DCMAKE_SHARED_LINKER_FLAGS=-Wl,-Bsymbolic-functions -DCMAKE_STRIP=: \
    -DCMAKE_SKIP_RPATH=TRUE -DALD_INIT_SYSTEM=procd && DESTDIR="$work/openwrt" mk -C shared install ||
    fail "OpenWrt's build"
cm shared -UCMAKE_SHARED_LINKER_FLAGS -UCMAKE_STRIP -UCMAKE_SKIP_RPATH -DCMAKE_INSTALL_SYSCONFDIR=/etc \
    -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_INSTALL_SO_NO_EXE=0 -DCMAKE_NO_SYSTEM_FROM_IMPORTED=1 -Wno-dev \
    -DALD_INIT_SYSTEM=systemd -DALD_SYSTEMD_UNIT_DIR=/lib/systemd/system &&
    DESTDIR="$work/yocto" cmake --build shared --target install >>log 2>&1 || fail "Yocto's build"
[ $fails = 0 ] || { tail -30 log; exit "$fails"; }

# has ROOT PATH...: each PATH is installed, each !PATH is not.
has() { for f in "${@:2}"; do case $f in !*) [ ! -e "$1/${f#!}" ] || fail "$1: ${f#!} installed" ;;
    *) [ -e "$1/$f" ] || fail "$1: no $f" ;; esac; done; }
dev=(usr/include/ald/settings.h usr/lib/pkgconfig/aldutils.pc usr/lib/cmake/aldutils/aldutils-config.cmake)
has buildroot usr/sbin/aldsorvelupdd usr/bin/aldsettings usr/lib/libaldutils.a '!usr/lib/libaldutils.so' \
    "${dev[@]}" usr/lib/systemd/system/aldsorvelupdd.service usr/share/aldsorvelupdd/procd/aldsorvelupdd '!usr/etc'
has openwrt usr/sbin/aldsorvelupdd usr/lib/libaldutils.so.0 '!usr/lib/libaldutils.a' "${dev[@]}" \
    etc/init.d/aldsorvelupdd etc/config/aldsorvelupdd '!usr/lib/systemd' '!usr/etc'
has yocto usr/bin/aldsettings lib/systemd/system/aldsorvelupdd.service '!etc/init.d' '!usr/etc'
readelf -d buildroot/usr/sbin/aldsorvelupdd | grep -q libaldutils && fail "the static build's daemon needs libaldutils"
nm -D --defined-only yocto/usr/lib/libaldutils.so.0 | grep -q fmt && fail "the shared library exports {fmt}"
grep -qx ExecStart=/usr/sbin/aldsorvelupdd yocto/lib/systemd/system/aldsorvelupdd.service || fail "the unit's daemon"

# The procd script's instance with procd's shell functions stubbed, run as
# procd runs it: forked from procd, whose umask is not the script's.
config_load() { :; } && procd_open_instance() { :; } && procd_close_instance() { :; }
config_get() { eval "$1=\${level:-$4}"; }
procd_set_param() { [ "$1" != command ] || cmd=("${@:2}"); [ "$1" != error ] || error=$2; }
# shellcheck source=/dev/null
. openwrt/etc/init.d/aldsorvelupdd
export LD_LIBRARY_PATH=$work/openwrt/usr/lib ALD_ROOT=$work/ald-root PROG=$work/openwrt$PROG
level=x error= && start_service && [ -n "$error" ] || fail "procd: no error for a log level the daemon refuses"
level=-1 error= && start_service && [ -z "$error" ] || fail "procd: $error"
(umask 077 && exec "${cmd[@]}") >/dev/null 2>&1 &
sleep 0.5 && grep -q '^Umask:.0022$' /proc/$!/status || fail "procd: the daemon's umask is not 022"
kill $! && wait $! || { fail "procd: the daemon did not stop with 0"; pkill -f "^$PROG "; }
unset LD_LIBRARY_PATH

# A program against each install, through pkg-config as Buildroot and Yocto
# point it at their sysroot, and through find_package.
printf '#include <ald/network.h>\n#include <ald/settings.h>\n// network.cpp, which needs libmnl, linked in
int main(int c, char**) { return c > 1 ? ald::netMgmt::init(0) : !ald::setMgmt::valid_key("/a"); }\n' >use.cpp
printf 'cmake_minimum_required(VERSION 3.18)\nproject(use CXX)\nfind_package(aldutils 0.1 REQUIRED)
add_executable(use use.cpp)\ntarget_link_libraries(use PRIVATE aldutils::aldutils)\n' >CMakeLists.txt
for root in buildroot yocto; do
    static=() && [ $root = yocto ] || static=(--static)
    flags=$(PKG_CONFIG_SYSROOT_DIR=$work/$root PKG_CONFIG_LIBDIR=$root/usr/lib/pkgconfig:$(pkg-config --variable \
        pc_path pkg-config) pkg-config "${static[@]}" --cflags --libs aldutils) &&
        c++ -std=c++17 use.cpp -o "pc-$root" $flags >>log 2>&1 && LD_LIBRARY_PATH=$root/usr/lib "./pc-$root" ||
        fail "$root: a program through pkg-config"
    cmake -S . -B "cm-$root" -DCMAKE_PREFIX_PATH="$work/$root/usr" >>log 2>&1 && mk -C "cm-$root" &&
        "cm-$root/use" || fail "$root: a program through find_package"
done
[ $fails = 0 ] || tail -30 log
exit "$fails"
