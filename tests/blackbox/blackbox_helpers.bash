# shellcheck shell=bash
# Each scenario gets an Applications folder for the installed bundle, its own
# temporary folder (TMPDIR: the download, the swap script, its log and its
# status), settings and a fresh world of fakes; the release service is reset.
# Assertions are made from outside: the service's request log, the installed
# bundle, the swap script's status word and log, the fakes' calls.
# shellcheck source=SCRIPTDIR/../fakes/fake-lib.sh
. "$BATS_TEST_DIRNAME/../fakes/fake-lib.sh"
QUERY='GET "/rest/v1/app_versions?select=*&order=created_at.desc&limit=1"'

service() { "$BLACKBOX_ROOT/scripts/release-service" "$1" --prefix "$BLACKBOX_SERVICE" "${@:2}"; }

setup() {
    SB=$BATS_TEST_TMPDIR APPS=$BATS_TEST_TMPDIR/Applications TEMP=$BATS_TEST_TMPDIR/tmp
    DST=$APPS/Velmora.app STATUS_FILE=$TEMP/velmora_update.status
    mkdir -p "$APPS" "$TEMP" "$SB/config"
    mkdir -m 700 "$SB/runtime"
    fake_world "$SB/world"
    export FAKE_LIPO_ARCHS="x86_64 arm64"
    for name in hang-query deny redirect-http corrupt-package throttle; do service switch "$name" off; done
    rm -rf "${BLACKBOX_SERVICE:?}"/www/*
    : > "$BLACKBOX_SERVICE/access.log"
}

sample_app() { "$BLACKBOX_ROOT/scripts/make-sample-app" --bundle-id "$VELMORA_BUNDLE_ID" "$@" > /dev/null; }
install_app() { sample_app --version "$1" --marker "$2" --out "$APPS"; }  # VERSION MARKER
publish_app() {  # VERSION MARKER [PUBLISHER-ARGS...]: the newest release, for every architecture
    sample_app --version "$1" --marker "$2" --out "$SB/release" --zip "$SB/release/Velmora-$1.zip"
    "$BLACKBOX_ROOT/scripts/publish-release" --package "$SB/release/Velmora-$1.zip" --version "$1" \
        --arch arm64,x86_64,universal --out "$BLACKBOX_SERVICE/www" \
        --base-url "https://${PACKAGE_HOST:-127.0.0.1}:$BLACKBOX_PORT/packages" "${@:3}" > /dev/null
    PACKAGE=/packages/Velmora-$1.zip
}

# updater ARGS...: the real executable, for the sandbox's Applications
# folder, with the fakes first on PATH, ended after 150 s at the latest; as
# the user AS_USER when it is set (see standard_user).
updater() {
    PATH="$FAKE_STATE/bin:$PATH" HOME="$SB" XDG_CONFIG_HOME="$SB/config" XDG_RUNTIME_DIR="$SB/runtime" TMPDIR="$TEMP" \
        QT_QPA_PLATFORM=offscreen VELMORA_DEFAULT_LANGUAGE=en timeout -k 5 150 \
        ${AS_USER:+setpriv --reuid="$AS_USER" --regid="$AS_USER" --clear-groups} \
        "$VELMORA_UPDATER" --install-dir "$APPS" "$@" 3>&-
}

# standard_user: the next runs are a user who is not root and owns the
# sandbox (its temporary folder, settings, fakes), but not $APPS.
standard_user() {
    local dir=$SB
    AS_USER=$(id -u nobody)
    chown -R "$AS_USER:$AS_USER" "$SB"
    chown root:root "$APPS"
    while [ "$dir" != "$(dirname "$BATS_RUN_TMPDIR")" ] && [ "$dir" != / ]; do chmod o+x "$dir"; dir=$(dirname "$dir"); done
}

# run_updater ARGS...: the updater must end by itself with status 0; then
# the swap script, which may outlive it, gets 60 s to finish.
run_updater() {
    local start=$SECONDS
    updater "$@" > "$SB/updater.out" 2>&1 ||
        { echo "the updater exited with $? (124: it did not end)"; cat "$SB/updater.out"; return 1; }
    echo $((SECONDS - start)) > "$SB/seconds"
    for _ in $(seq 600); do
        [ -e "$TEMP/velmora_apply_update.sh" ] || return 0
        sleep 0.1
    done
    echo "the swap script did not finish"; return 1
}

took() { cat "$SB/seconds"; }  # how many seconds the last run took
requested() { grep -qF -- "$1" "$BLACKBOX_SERVICE/access.log" || { cat "$BLACKBOX_SERVICE/access.log"; return 1; }; }
not_requested() { ! grep -F -- "$1" "$BLACKBOX_SERVICE/access.log" || return 1; }
installed() {  # VERSION MARKER
    [ "$(/usr/libexec/PlistBuddy -c 'Print :CFBundleShortVersionString' "$DST/Contents/Info.plist") $(cat "$DST/Contents/Resources/build.txt")" = "$1 $2" ]
}

# A run says nothing on its standard error (a Qt warning there is a fault),
# but for the test platform's one limit: offscreen windows cannot be raised.
quiet() { ! grep -vxF 'This plugin does not support raise()' "$SB/updater.out" || return 1; }

updated() {  # VERSION MARKER: the package fetched, installed, reported and cleaned up, quietly
    quiet
    requested "https $QUERY 200 apikey=match authorization=match "
    requested "https GET \"$PACKAGE\" 200 apikey=absent authorization=absent ua=\"Mozilla/5.0 VelmoraUpdater/1.0\""
    installed "$1" "$2" || { cat "$TEMP/velmora_update.log" "$SB/updater.out"; return 1; }
    [ "$(cat "$STATUS_FILE")" = ok ]
    grep -qxF "swap ok -> $DST ($1)" <(cut -d' ' -f3- "$TEMP/velmora_update.log")
    [ -z "$(ls -d "$TEMP/VelmoraUpdate.zip" "$TEMP/VelmoraExtract/Velmora.app" "$DST.new" "$DST.old" 2>/dev/null)" ]
}

untouched() {  # the installed 1.0.0 as it was, nothing handed over, nothing said
    quiet
    installed 1.0.0 old
    [ -z "$(ls "$STATUS_FILE" "$TEMP/velmora_update.log" "$TEMP/VelmoraUpdate.zip" "$DST.new" 2>/dev/null)" ]
}
