#!/bin/sh
# check_install.sh SOURCE BUILD: installs a build into a prefix of its own, moves that, and makes clients in C and C++
# against it: by find_package, by pkg-config, and against the sources as a part of the client's build.
set -eu
source=$1
build=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

run() { # run WHAT PROGRAM...
    what=$1
    shift
    for program in "$@"; do
        [ "$("$program" | tr '\n' ' ')" = "1 3 5 " ] || { echo "$what: $program is wrong"; exit 1; }
    done
}

clients() { # clients WHAT CMAKE_OPTION...: by CMake, with both libraries
    what=$1
    shift
    cmake -S "$source/tests/client" -B "$scratch/$what" -DCMAKE_BUILD_TYPE=Debug "$@" >"$scratch/log" 2>&1 &&
        cmake --build "$scratch/$what" -j 2 >>"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
    run "$what" "$scratch/$what"/client_*_kel "$scratch/$what"/client_*_kel_static
}

cmake --install "$build" --prefix "$scratch/first" >/dev/null
mv "$scratch/first" "$scratch/prefix"
clients find_package -DCMAKE_PREFIX_PATH="$scratch/prefix"

PKG_CONFIG_PATH=$(dirname "$(find "$scratch/prefix" -name kel.pc)")
export PKG_CONFIG_PATH
libdir=$(pkg-config --variable=libdir kel)
printf '#include <kel.h>\nint main(void) { kel_nop(NULL, 0); return 0; }\n' >"$scratch/dropped.c"
sed 's/kel_nop.*0);/kel_thread_fini(NULL);/' "$scratch/dropped.c" >"$scratch/dropped_too.c"
strict="-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Werror"
for compilers in "cc c++ -Wuseless-cast" "clang clang++"; do
    # shellcheck disable=SC2086
    set -- $compilers
    command -v "$2" >/dev/null || continue
    # shellcheck disable=SC2046,SC2086 # lists of flags
    "$1" $strict -o "$scratch/by_pc_c" "$source/tests/client/client_c.c" $(pkg-config --cflags --libs kel)
    # shellcheck disable=SC2046,SC2086
    "$2" -std=c++20 $strict -Wold-style-cast ${3:-} -o "$scratch/by_pc_cpp" "$source/tests/client/client_cpp.cpp" \
        $(pkg-config --cflags --libs kel)
    LD_LIBRARY_PATH=$libdir run pkg-config "$scratch/by_pc_c" "$scratch/by_pc_cpp"
    # What a call answers may be dropped in C alone.
    for source_file in "$scratch"/dropped*.c; do
        # shellcheck disable=SC2046,SC2086
        "$1" $strict -fsyntax-only $(pkg-config --cflags kel) "$source_file"
        # shellcheck disable=SC2046,SC2086
        ! "$2" -std=c++20 $strict -fsyntax-only -x c++ $(pkg-config --cflags kel) "$source_file" 2>/dev/null || exit 1
    done
done

clients sources -DKEL_SOURCE="$source" -DKEL_VECTOR=OFF
built=$(cmake --build "$scratch/sources" --target help | grep -cE ' (test_|kel_bench|flights)' || true)
[ "$built" = 0 ] || { echo "a build inside a client's has targets of the project's own"; exit 1; }
