#!/usr/bin/env bash
# Installs what is missing, builds the benchmarks, runs them, and prints one table.
#
#     ./bench.sh [--json] [--quick] [--filter REGEX]
#
# The registry is measured beside the floor of bare system calls in several passes; in each, the two
# follow each other at once, so that whatever else the machine does meanwhile hits both, and their
# ratio is that of one moment. The peers that people might use instead follow, repeatedly and in
# random order. --json prints the table as one JSON document, --quick measures less, --filter
# only the benchmarks whose names match (subject/operation/entries, as in registry/find/100; those of
# peers go on with /real_time).
# scripts/bench-table.py says what the table means, scripts/bench-curves.py draws curves of its JSON.
set -euo pipefail
cd "$(dirname "$0")"

table=(scripts/bench-table.py) flags=() passes=5 time=0.05
while [ $# -gt 0 ]; do
    case $1 in
        --json) table+=(--json) ;;
        --quick) passes=3 time=0.01 ;;
        --filter) flags+=("--benchmark_filter=${2:?--filter needs an expression}") && shift ;;
        *) echo "usage: $0 [--json] [--quick] [--filter REGEX]" >&2 && exit 2 ;;
    esac
    shift
done
flags+=("--benchmark_min_time=$time")

scripts/install-packages.sh build benchmarks peers
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
if ! { cmake --preset bench && cmake --build --preset bench; } >"$results/build" 2>&1; then
    cat "$results/build" >&2
    exit 1
fi

# In private namespaces, the benchmarks meet neither the registry of whoever runs them nor their own
# shared folder, and all that they and their servers leave behind goes with the namespaces.
# Sharing takes a group that entries may be given to; only root can join one here.
identity=() groups=(setpriv --groups root)
[ "$(id -u)" -eq 0 ] || identity=(--map-root-user) groups=(env)
# shellcheck disable=SC2016
isolated=(unshare "${identity[@]}" --mount --ipc --propagation private bash -c '
    mount -t tmpfs -o mode=1777 tmpfs /dev/shm
    mount -t tmpfs -o mode=0755 tmpfs /mnt
    find build/bench/benchmarks -type f -executable -exec cp -t /mnt {} +
    cp build/bench/*/lib*.so* /mnt/
    mkdir -m 1777 /mnt/tmp
    mount -t tmpfs -o mode=0755 tmpfs /home && mkdir -m 1777 /home/Shared
    TMPDIR=/mnt/tmp LD_LIBRARY_PATH=/mnt exec "$@"
' bench "${groups[@]}")

# measure RESULT PROGRAM ARGUMENT...
measure() {
    local result=$results/$1.json log=$results/$1.log
    "${isolated[@]}" "/mnt/$2" "${flags[@]}" --benchmark_format=json "${@:3}" \
        >"$result" 2>"$log" || { cat "$log" && echo "$2 has failed"; } >&2
}

for ((pass = 1; pass <= passes; pass++)); do
    echo "Pass $pass of $passes" >&2
    measure "registry-$pass" registry_benchmark
    measure "record-$pass" record_benchmark
done
echo "Peers" >&2
measure peers peers_benchmark \
    "--benchmark_repetitions=$passes" --benchmark_enable_random_interleaving=true
"${table[@]}" "$results"/registry-*.json "$results"/record-*.json "$results"/peers.json
