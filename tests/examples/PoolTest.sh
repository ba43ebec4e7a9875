#!/usr/bin/env bash
# Has the pool of the examples find its workers, lose one to a kill and one to its end.
#
#     PoolTest.sh EXAMPLES-FOLDER
set -euo pipefail
examples=$1

work=$(mktemp -d)
mkfifo "$work/jobs" "$work/one" "$work/two"
trap 'jobs -p | xargs -r kill 2>/dev/null || true; rm -rf "$work"' EXIT

# expect FILE TEXT: waits until the file has such a line.
expect() {
    for ((i = 0; i < 24000; i++)); do
        grep -qF -- "$2" "$1" 2>/dev/null && return
        read -rt 0.01 <> <(:) || true
    done
    printf 'No line "%s" came, but:\n' "$2" >&2
    cat "$1" >&2
    exit 1
}

"$examples/pool" <"$work/jobs" >"$work/pool" &
pool=$!
exec 7>"$work/jobs"
echo "job 1" >&7
expect "$work/pool" "nobody for job 1"

"$examples/worker" /run/one <"$work/one" >"$work/out" &
one=$!
exec 8>"$work/one"
expect "$work/pool" "worker $one at /run/one has come"
"$examples/worker" /run/two <"$work/two" >"$work/out" &
two=$!
exec 9>"$work/two"
expect "$work/pool" "worker $two at /run/two has come"

echo "job 2" >&7
expect "$work/pool" "job 2 is for worker"
kill -KILL "$one"
expect "$work/pool" "worker $one has gone"
echo "job 3" >&7
expect "$work/pool" "job 3 is for worker $two"
exec 9>&-
expect "$work/pool" "worker $two has gone"
echo "job 4" >&7
expect "$work/pool" "nobody for job 4"

exec 7>&-
wait "$pool"
echo "The pool knew its workers."
