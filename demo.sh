#!/usr/bin/env bash
# Shows the main job: a service publishes its socket, a client finds it, a second service of the
# same key is refused, and a killed one is gone at the next look. As root, also how users share.
set -euo pipefail
cd "$(dirname "$0")"

scripts/install-packages.sh build
log=$(mktemp)
if ! { cmake --preset default -DQVENDPOINTREGISTRY_BUILD_TESTS=OFF -B build/demo &&
       cmake --build build/demo --target service client; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
rm -f "$log"
examples=build/demo/examples

folder=$(mktemp -d)
cleanUp() {
    kill -KILL "${service:-}" 2>/dev/null || true
    rm -rf "$folder"
}
trap cleanUp EXIT

# What the registry holds of the service, dead or alive.
left() { find /dev/shm -name "qvER*p${service}v0*" -user "$(id -u)" 2>/dev/null | wc -l; }
step() { printf '\n-- %s\n' "$*"; }

step "A service opens a socket and publishes it."
exec 3< <(exec "$examples/service" "$folder/first.sock")
service=$!
read -r line <&3
echo "$line"

step "A client finds it by group tag and key, connects, and gets an answer."
"$examples/client"

step "A second service of the same key is refused."
"$examples/service" "$folder/second.sock" || true

step "The service is killed; it could not tidy up."
kill -KILL "$service"
wait "$service" 2>/dev/null || true
echo "left in /dev/shm: $(left) files"

step "The next look finds nothing, and leaves nothing behind."
"$examples/client" || true
echo "left in /dev/shm: $(left) files"

if [ "$(id -u)" -eq 0 ]; then
    scripts/demo-sharing.sh "$examples"
else
    step "Left out: sharing between three users takes root, to be them."
fi
