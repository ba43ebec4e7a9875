#!/usr/bin/env bash
# Shows sharing between three users: demo-sharing.sh EXAMPLES-FOLDER, as root.
#
# It runs in private namespaces, with users and groups that exist only there: anna and ben are
# friends, carl is not. Nothing on the machine changes.
set -euo pipefail
examples=$(realpath "$1")

if [ "${DEMO_SHARING_ISOLATED:-}" != yes ]; then
    if ! unshare --mount --ipc mount -t tmpfs tmpfs /mnt 2>/dev/null; then
        echo "Left out: this system does not allow private namespaces"
        exit 0
    fi
    DEMO_SHARING_ISOLATED=yes exec unshare --mount --ipc --propagation private "$0" "$examples"
fi

# The programs are kept in sight of all users while the folders around them may be hidden.
stage=/mnt
mount -t tmpfs -o mode=0755 tmpfs "$stage"
cp "$examples/service" "$examples/client" "$stage/"
cp -P "$examples"/../*/lib*.so* "$stage/"
export LD_LIBRARY_PATH=$stage

# Puts lines before those that a file has, for everything that runs here.
cover() { { cat && cat "$1"; } >"$stage/${1##*/}" && mount --bind "$stage/${1##*/}" "$1"; }
cover /etc/passwd <<'USERS'
anna:x:60801:60801::/home/anna:/bin/sh
ben:x:60802:60802::/home/ben:/bin/sh
carl:x:60803:60803::/home/carl:/bin/sh
USERS
cover /etc/group <<'GROUPS'
anna:x:60801:
ben:x:60802:
carl:x:60803:
friends:x:60804:anna,ben
GROUPS
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
mount -t tmpfs -o mode=0755 tmpfs /home
install -d -m 1777 /home/Shared /home/sockets

step() { printf '\n-- %s\n' "$*"; }
as() { setpriv --reuid "$1" --regid "$1" --init-groups -- "${@:2}"; }

step "anna publishes a service and shares it with the group friends."
exec 3< <(exec setpriv --reuid anna --regid anna --init-groups -- \
              "$stage/service" /home/sockets/anna.sock friends)
service=$!
trap 'kill -KILL "$service" 2>/dev/null || true' EXIT
read -r line <&3
echo "$line"

step "ben, a friend, finds it and gets an answer."
as ben "$stage/client" --from-groups

step "carl, who is none, finds nothing, and may not even look into the group's folder."
as carl "$stage/client" --from-groups || true
as carl ls /home/Shared/Corvantis/qvEndpointRegistry/* 2>&1 || true

step "anna's service is killed. The next look, ben's, finds nothing and clears up after it."
kill -KILL "$service"
wait "$service" 2>/dev/null || true
left() { find /home/Shared -name "qvER*" | wc -l; }
echo "left in the group's folder: $(left) files"
as ben "$stage/client" --from-groups || true
echo "left in the group's folder: $(left) files"
