#!/bin/bash
# Runs one family of black-box scenarios (a .bats file) against the built
# VelmoraUpdater: in private mount, network and process namespaces it brings
# up loopback, starts the local release service on the port the build was
# configured for, makes the service's test CA trusted and the fake
# PlistBuddy visible at /usr/libexec, and hands over to bats. Everything it
# starts lives in the process namespace and ends with it.
#
# Environment (set by tests/blackbox/CMakeLists.txt):
#   VELMORA_UPDATER            the built executable
#   VELMORA_RELEASE_BASE_URL   the service origin compiled into it
#   VELMORA_SERVICE_KEY_FILE   the key compiled into it (empty: skip)
#   VELMORA_BUNDLE_ID          the bundle identifier the swap script quits
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
bats_file=${1:?usage: run-blackbox.sh FILE.bats}

skip() {
    echo "SKIPPED: $*"
    exit 77
}

[ -n "${VELMORA_SERVICE_KEY_FILE:-}" ] ||
    skip "this build has no VELMORA_SERVICE_KEY_FILE, so no local service can accept its key; configure with -DVELMORA_SERVICE_KEY_FILE=FILE and -DVELMORA_RELEASE_BASE_URL=https://127.0.0.1:PORT (scripts/test does)"
[[ "${VELMORA_RELEASE_BASE_URL:-}" =~ ^https://127\.0\.0\.1:([0-9]+)$ ]] ||
    skip "this build talks to ${VELMORA_RELEASE_BASE_URL:-nothing}, not to a local service at https://127.0.0.1:PORT"
port=${BASH_REMATCH[1]}
[ -x "${VELMORA_UPDATER:-}" ] || { echo "run-blackbox: no updater executable at '${VELMORA_UPDATER:-}'" >&2; exit 1; }
[ -r "$VELMORA_SERVICE_KEY_FILE" ] || { echo "run-blackbox: cannot read $VELMORA_SERVICE_KEY_FILE" >&2; exit 1; }

if [ "${VELMORA_BLACKBOX_NAMESPACES:-}" != 1 ]; then
    export VELMORA_BLACKBOX_NAMESPACES=1
    # A network namespace of our own gives every family its own loopback, so
    # families run in parallel on the one port the build knows; a process
    # namespace keeps pgrep from seeing another family's updater or app.
    userns=()
    [ "$(id -u)" -eq 0 ] || userns=(--map-root-user)
    unshare "${userns[@]}" --mount --net --pid --fork true 2>/dev/null ||
        skip "cannot create private namespaces here (run as root, or allow unprivileged user namespaces)"
    exec unshare "${userns[@]}" --mount --net --pid --fork --mount-proc --propagation private "$0" "$@"
fi

ip link set lo up
work=$(mktemp -d "${TMPDIR:-/tmp}/velmora-blackbox.XXXXXX")
cleanup() {
    "$root/scripts/release-service" stop --prefix "$work/service" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

"$root/scripts/release-service" start --prefix "$work/service" --port "$port" \
    --key-file "$VELMORA_SERVICE_KEY_FILE" --content "$work/service/www" > "$work/service.env"
VELMORA_PRIVATE_MOUNTS=1 "$root/tests/fakes/mount-overlays" "$work/service/tls/ca.pem" "$work"

export BLACKBOX_ROOT=$root
export BLACKBOX_SERVICE=$work/service
export BLACKBOX_CONTENT=$work/service/www
export BLACKBOX_PORT=$port
export VELMORA_BUNDLE_ID=${VELMORA_BUNDLE_ID:-com.velmoralabs.velmora}
bats "$bats_file"
