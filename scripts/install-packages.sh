#!/usr/bin/env bash
# Installs the Debian packages of the named groups that are missing: build, tests, benchmarks,
# checks.
# Where nothing is missing, an ordinary user may run it.
set -euo pipefail

declare -A groups=(
    [build]="g++ cmake ninja-build libboost-dev libboost-log-dev"
    [tests]="libgtest-dev libseccomp-dev pkg-config python3 strace valgrind"
    [benchmarks]="libbenchmark-dev"
    [checks]="clang-format clang-tidy git python3"
)

missing=()
for group in "$@"; do
    for package in ${groups[$group]}; do
        status=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null || true)
        [ "$status" = installed ] || missing+=("$package")
    done
done
[ ${#missing[@]} -gt 0 ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "These packages are missing; install them as root: ${missing[*]}" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { apt-get update && apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
