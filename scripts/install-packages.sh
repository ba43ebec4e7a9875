#!/usr/bin/env bash
# Installs the Debian packages of the named groups that are missing: build, tests, benchmarks,
# peers, checks. Starts no service.
# Where nothing is missing, an ordinary user may run it.
set -euo pipefail

declare -A groups=(
    [build]="g++ cmake ninja-build libboost-dev libboost-log-dev"
    [tests]="libgtest-dev libseccomp-dev pkg-config python3 strace valgrind"
    [benchmarks]="libbenchmark-dev"
    [peers]="pkg-config redis-server libhiredis-dev dbus-daemon libsystemd-dev libsqlite3-dev
        liblmdb-dev etcd-server libcurl4-openssl-dev nlohmann-json3-dev python3"
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
cleanUp() { rm -f "$log" ${ownPolicy:+"$ownPolicy"}; }
trap cleanUp EXIT

# Servers are for private use here: their system services start neither now nor with the machine.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
    ownPolicy=$policy
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod +x "$policy"
fi
if ! { apt-get update && apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
for service in etcd:etcd-server redis-server:redis-server; do
    case " ${missing[*]} " in
        *" ${service#*:} "*) update-rc.d "${service%:*}" disable >/dev/null ;;
    esac
done
