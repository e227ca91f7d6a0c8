# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Stripped sizes of the daemon and the peers, x86-64 and armhf, with every
# library they need beyond the C and C++ runtimes. Sourced by bench/run.sh.

# The C and C++ runtimes that every C++ program needs; not counted.
runtime_lib() {
    case $1 in
    libc.so.* | libstdc++.so.* | libm.so.* | libgcc_s.so.* | ld-linux*) return 0 ;;
    *) return 1 ;;
    esac
}

# stripped_size STRIP FILE: bytes of FILE after strip --strip-all.
stripped_size() {
    local tmp
    tmp=$(mktemp /tmp/ald-bench-strip.XXXXXX)
    "$1" --strip-all -o "$tmp" "$2"
    stat -c %s "$tmp"
    rm -f "$tmp"
}

needed() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }

# find_lib NAME DIR...: the first DIR/NAME.
find_lib() {
    local name=$1 dir
    shift
    for dir; do
        [ -e "$dir/$name" ] && { readlink -f "$dir/$name"; return 0; }
    done
    return 1
}

# libs_of STRIP FILE DIR...: "name=bytes" for every library that FILE needs,
# directly or through another library, beyond the runtimes. With
# LIBS_RUNTIME=1: the runtime libraries instead, libc and the loader aside.
libs_of() {
    local strip=$1 file=$2 rt=${LIBS_RUNTIME:-0}
    shift 2
    local -a queue=("$file") seen=()
    local out="" f lib path s
    while [ ${#queue[@]} -gt 0 ]; do
        f=${queue[0]}
        queue=("${queue[@]:1}")
        for lib in $(needed "$f"); do
            case $lib in libc.so.* | ld-linux*) continue ;; esac
            for s in "${seen[@]:-}"; do [ "$s" = "$lib" ] && continue 2; done
            seen+=("$lib")
            if path=$(find_lib "$lib" "$@"); then
                queue+=("$path")
                if runtime_lib "$lib"; then
                    [ "$rt" = 1 ] && out+="$lib=$(stripped_size "$strip" "$path") "
                else
                    [ "$rt" = 1 ] || out+="$lib=$(stripped_size "$strip" "$path") "
                fi
            elif [ "$rt" = 1 ] || ! runtime_lib "$lib"; then
                out+="$lib=? "
            fi
        done
    done
    echo "${out% }"
}

sizes() {
    local armhf_built=$1
    local x86_dirs=("$build/stage/lib" /lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu)
    kv size.x86.ours "$(stripped_size strip "$build/stage/sbin/aldsorvelupdd")"
    kv size.x86.ours_lib "$(stripped_size strip "$(readlink -f "$build/stage/lib/libaldutils.so.0")")"
    kv libs.x86.ours "$(libs_of strip "$build/stage/sbin/aldsorvelupdd" "${x86_dirs[@]}")"
    kv size.x86.runsv "$(stripped_size strip "$(command -v runsv)")"
    kv libs.x86.runsv "$(libs_of strip "$(command -v runsv)" "${x86_dirs[@]}")"
    kv size.x86.s6 "$(stripped_size strip "$(command -v s6-supervise)")"
    kv libs.x86.s6 "$(libs_of strip "$(command -v s6-supervise)" "${x86_dirs[@]}")"

    local astrip=arm-linux-gnueabihf-strip
    if [ "$armhf_built" = 1 ]; then
        local arm_dirs=("$build_arm/stage/lib" /usr/lib/arm-linux-gnueabihf /lib/arm-linux-gnueabihf)
        kv size.arm.ours "$(stripped_size $astrip "$build_arm/stage/sbin/aldsorvelupdd")"
        kv size.arm.ours_lib "$(stripped_size $astrip "$(readlink -f "$build_arm/stage/lib/libaldutils.so.0")")"
        kv libs.arm.ours "$(libs_of $astrip "$build_arm/stage/sbin/aldsorvelupdd" "${arm_dirs[@]}")"
        kv rt.arm.ours "$(LIBS_RUNTIME=1 libs_of $astrip "$build_arm/stage/sbin/aldsorvelupdd" "${arm_dirs[@]}")"
        # Evidence for the size target: the largest functions and the sections.
        arm-linux-gnueabihf-nm --size-sort -C -S "$build_arm/stage/sbin/aldsorvelupdd" 2>/dev/null |
            tail -25 >"$results/armhf-daemon-nm.txt" || true
        arm-linux-gnueabihf-size -A "$build_arm/stage/sbin/aldsorvelupdd" >"$results/armhf-daemon-sections.txt"
        arm-linux-gnueabihf-readelf --dyn-syms -W "$build_arm/stage/sbin/aldsorvelupdd" \
            >"$results/armhf-daemon-dynsyms.txt"
        arm-linux-gnueabihf-readelf -lW "$build_arm/stage/sbin/aldsorvelupdd" >"$results/armhf-daemon-segments.txt"
    fi

    # The peers' armhf builds as Debian ships them, fetched once.
    local peers=$build_arm/peers
    if [ ! -f "$peers/.complete" ]; then
        rm -rf "$peers"
        mkdir -p "$peers/debs" "$peers/root"
        local skarnet
        skarnet=$(apt-cache depends s6:armhf 2>/dev/null | awk '/Depends: libskarnet/ {print $2; exit}')
        if (cd "$peers/debs" && apt-get download -q runit:armhf s6:armhf ${skarnet:+"$skarnet"} >/dev/null 2>&1); then
            for deb in "$peers"/debs/*.deb; do dpkg-deb -x "$deb" "$peers/root"; done
            touch "$peers/.complete"
        else
            note "could not fetch the peers' armhf packages: their armhf sizes are not measured"
        fi
    fi
    if [ -f "$peers/.complete" ]; then
        local arm_peer_dirs=("$peers/root/usr/lib/arm-linux-gnueabihf" "$peers/root/lib/arm-linux-gnueabihf"
            /usr/lib/arm-linux-gnueabihf /lib/arm-linux-gnueabihf)
        local f
        f=$(find "$peers/root" -name runsv -type f | head -1)
        kv size.arm.runsv "$(stripped_size $astrip "$f")"
        kv libs.arm.runsv "$(libs_of $astrip "$f" "${arm_peer_dirs[@]}")"
        kv rt.arm.runsv "$(LIBS_RUNTIME=1 libs_of $astrip "$f" "${arm_peer_dirs[@]}")"
        f=$(find "$peers/root" -name s6-supervise -type f | head -1)
        kv size.arm.s6 "$(stripped_size $astrip "$f")"
        kv libs.arm.s6 "$(libs_of $astrip "$f" "${arm_peer_dirs[@]}")"
        kv rt.arm.s6 "$(LIBS_RUNTIME=1 libs_of $astrip "$f" "${arm_peer_dirs[@]}")"
    fi
}

