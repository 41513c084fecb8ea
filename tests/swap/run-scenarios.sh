#!/bin/bash
# Runs the swap scenarios (all *.bats here, or the files given) with the fake
# PlistBuddy visible at its absolute macOS path. The overlay is mounted only
# in a private mount namespace; nothing in the machine's /usr/libexec is
# created or changed, and the mount vanishes with the namespace.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

own_ns=$(readlink /proc/self/ns/mnt)
init_ns=$(readlink /proc/1/ns/mnt 2>/dev/null || true)
if [ -z "${VELMORA_SWAP_NAMESPACE:-}" ] && { [ -z "$init_ns" ] || [ "$own_ns" = "$init_ns" ]; }; then
    # Never mount over the machine's own /usr/libexec: isolate first.
    export VELMORA_SWAP_NAMESPACE=1
    exec unshare -m --propagation private "$0" "$@"
fi

mount -t overlay overlay -o "lowerdir=$here/fakes/libexec:/usr/libexec" /usr/libexec
export SWAP_BODY="${SWAP_BODY:-$here/../../updater/scripts/apply_update.sh}"
export VELMORA_BUNDLE_ID="${VELMORA_BUNDLE_ID:-com.velmoralabs.velmora}"
if [ "$#" -eq 0 ]; then
    set -- "$here"/*.bats
fi
exec bats "$@"
