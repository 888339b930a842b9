#!/bin/sh
# Makes sure that the build tools are there: need.sh [gtest] [client] [benchmark] [lint] [fuzz] [coverage] [trace] [docs] [chart]
# Installs the missing Debian packages where it may; elsewhere names what is missing and fails.
set -u

missing=

have_cxx20() {
    echo 'int main() { return 0; }' | "${CXX:-c++}" -std=c++20 -x c++ -fsyntax-only - 2>/dev/null
}

have_header() {
    echo "#include <$1>" | "${CXX:-c++}" -std=c++20 -x c++ -fsyntax-only - 2>/dev/null
}

have_fuzzer() {
    echo 'extern "C" int LLVMFuzzerTestOneInput(const char *, unsigned long) { return 0; }' |
        clang++ -fsanitize=fuzzer,address -x c++ - -o /dev/null 2>/dev/null
}

need() { # need PACKAGE COMMAND...
    package=$1
    shift
    "$@" >/dev/null 2>&1 || missing="$missing $package"
}

check() {
    missing=
    need cmake command -v cmake
    need g++ have_cxx20
    need gcc command -v "${CC:-cc}"
    for extra in "$@"; do
        case $extra in
        gtest) need libgtest-dev have_header gtest/gtest.h ;;
        benchmark)
            need libbenchmark-dev have_header benchmark/benchmark.h
            need liblz4-dev have_header lz4.h
            need libzstd-dev have_header zstd.h
            ;;
        fuzz) need clang have_fuzzer ;;
        client) need pkg-config command -v pkg-config ;;
        coverage)
            need clang command -v clang++
            need llvm command -v llvm-cov
            ;;
        docs) need doxygen command -v doxygen ;;
        trace) need gdb command -v gdb && need binutils command -v readelf ;;
        chart) need python3 command -v python3 ;;
        lint) need clang-format command -v clang-format && need clang-tidy command -v clang-tidy ;;
        *) echo "need.sh: what is $extra?" >&2; exit 2 ;;
        esac
    done
    [ -z "$missing" ]
}

check "$@" && exit 0
if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
    echo "installing:$missing"
    # shellcheck disable=SC2086 # a list of packages
    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing >/dev/null
    check "$@" && exit 0
fi
echo "Missing build tools, by their Debian names:$missing" >&2
exit 1
