# shellcheck shell=bash disable=SC2154,SC2034
# Sourced by the scripts that configure a test build (test, sanitize,
# bench/run). Sets velmora_deploy_args to the cmake arguments of a build
# that talks to a local release service on a free port, with a throw-away
# service key. Needs $root to be the source tree.
#
# The key lives outside both the source and the build tree, so the check
# that the build never holds the plain key means something.
velmora_key_dir=${XDG_CACHE_HOME:-$HOME/.cache}/velmora-updater
velmora_key_file=$velmora_key_dir/${velmora_key_name:-test-service.key}
if [ ! -s "$velmora_key_file" ]; then
    mkdir -p "$velmora_key_dir"
    (umask 077; head -c 4096 /dev/urandom | tr -dc 'A-Za-z0-9._-' | head -c 169 > "$velmora_key_file")
fi
velmora_port=$("$root/scripts/free-port")
velmora_deploy_args=(
    "-DVELMORA_RELEASE_BASE_URL=https://127.0.0.1:$velmora_port"
    "-DVELMORA_SERVICE_KEY_FILE=$velmora_key_file"
)
