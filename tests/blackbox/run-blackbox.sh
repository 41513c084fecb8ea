#!/bin/bash
# Runs one family of black-box scenarios (a .bats file) against the built
# VelmoraUpdater: in network and process namespaces of its own it brings up
# loopback and starts the local release service on the port the build talks
# to, then runs bats through private-mounts, which trusts the service's CA
# and shows the fake PlistBuddy. Whatever it starts ends with the namespace.
# Environment, set by CMakeLists.txt here: VELMORA_UPDATER (the executable),
# VELMORA_RELEASE_BASE_URL, VELMORA_SERVICE_KEY_FILE (both built into it) and
# VELMORA_BUNDLE_ID.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
skip() { echo "SKIPPED: $*"; exit 77; }

[ -n "${VELMORA_SERVICE_KEY_FILE:-}" ] || skip "this build has no service key, so no local service can accept it (see scripts/configure)"
[[ "${VELMORA_RELEASE_BASE_URL:-}" =~ ^https://127\.0\.0\.1:([0-9]+)$ ]] ||
    skip "this build talks to ${VELMORA_RELEASE_BASE_URL:-nothing}, not to a local service"
port=${BASH_REMATCH[1]}

if [ "${VELMORA_BLACKBOX_NAMESPACES:-}" != 1 ]; then
    # Its own loopback lets families run in parallel on the one port.
    userns=()
    [ "$(id -u)" -eq 0 ] || userns=(--map-root-user)
    unshare "${userns[@]}" --net --pid --fork --mount-proc true 2>/dev/null || skip "cannot create namespaces here"
    VELMORA_BLACKBOX_NAMESPACES=1 exec unshare "${userns[@]}" --net --pid --fork --mount-proc "$0" "$@"
fi

ip link set lo up
work=$(mktemp -d "${TMPDIR:-/tmp}/velmora-blackbox.XXXXXX")
trap '"$root/scripts/release-service" stop --prefix "$work/service" >/dev/null 2>&1; rm -rf "$work"' EXIT
"$root/scripts/release-service" start --prefix "$work/service" --port "$port" \
    --key-file "$VELMORA_SERVICE_KEY_FILE" > /dev/null
export BLACKBOX_ROOT=$root BLACKBOX_SERVICE=$work/service BLACKBOX_PORT=$port
"$root/tests/fakes/private-mounts" --ca "$work/service/tls/ca.pem" --work "$work" bats "$1"
