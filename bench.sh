#!/usr/bin/env bash
# Installs what is missing, builds the benchmarks and runs them, in private namespaces so that they
# meet neither the registry of whoever runs them nor their own shared folder. Arguments go to the
# program: --benchmark_filter=REGEX, --benchmark_format=json.
set -euo pipefail
cd "$(dirname "$0")"

scripts/install-packages.sh build benchmarks
log=$(mktemp)
if ! { cmake --preset bench && cmake --build --preset bench --target registry_benchmark; } \
        >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
rm -f "$log"

# Sharing takes a group that entries may be given to; only root can join one here.
identity=() groups=(setpriv --groups root)
[ "$(id -u)" -eq 0 ] || identity=(--map-root-user) groups=(env)
# shellcheck disable=SC2016
exec unshare "${identity[@]}" --mount --ipc --propagation private bash -c '
    mount -t tmpfs -o mode=1777 tmpfs /dev/shm
    mount -t tmpfs -o mode=0755 tmpfs /mnt
    cp build/bench/benchmarks/{registry_benchmark,idle_*} build/bench/*/lib*.so* /mnt/
    mount -t tmpfs -o mode=0755 tmpfs /home && mkdir -m 1777 /home/Shared
    LD_LIBRARY_PATH=/mnt exec "$@"
' bench "${groups[@]}" /mnt/registry_benchmark "$@"
