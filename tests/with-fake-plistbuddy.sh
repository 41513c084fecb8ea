#!/bin/bash
# Runs a command with the fake PlistBuddy visible at its absolute macOS path.
# The overlay lives only in a private mount namespace, so nothing on the
# machine's own /usr/libexec is created or changed.
set -euo pipefail
if [ "${VELMORA_IN_MOUNT_NAMESPACE:-}" != 1 ]; then
    export VELMORA_IN_MOUNT_NAMESPACE=1
    exec unshare -m --propagation private "$0" "$@"
fi
here=$(cd "$(dirname "$0")" && pwd)
mount -t overlay overlay -o "lowerdir=$here/fixtures/libexec:/usr/libexec" /usr/libexec
exec "$@"
