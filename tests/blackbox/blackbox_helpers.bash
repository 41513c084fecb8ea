# shellcheck shell=bash disable=SC2034  # the globals set here are read by the .bats files
# Shared by the black-box scenarios. Each scenario gets a sandbox: an
# Applications folder with the installed bundle, its own temporary folder
# (TMPDIR, where the updater downloads and the swap script logs), settings
# folder, fake-tool log and state. The release service of run-blackbox.sh is
# reset to a clean state before every scenario.

service() {
    "$BLACKBOX_ROOT/scripts/release-service" "$1" --prefix "$BLACKBOX_SERVICE" "${@:2}"
}

setup_sandbox() {
    SANDBOX=$BATS_TEST_TMPDIR/sandbox
    APPS=$SANDBOX/Applications
    DST=$APPS/Velmora.app
    TEMP=$SANDBOX/tmp
    STATUS_FILE=$TEMP/velmora_update.status
    SWAP_LOG=$TEMP/velmora_update.log
    mkdir -p "$APPS" "$TEMP" "$SANDBOX/config" "$SANDBOX/home" "$SANDBOX/state/running"
    mkdir -m 700 "$SANDBOX/runtime"
    export FAKE_LOG=$SANDBOX/fake.log
    export FAKE_STATE=$SANDBOX/state
    : > "$FAKE_LOG"

    for name in hang-query deny redirect-http corrupt-package throttle; do
        service switch "$name" off
    done
    rm -rf "${BLACKBOX_CONTENT:?}"/*
    : > "$BLACKBOX_SERVICE/access.log"
}

teardown_sandbox() {
    local file pid
    for file in "$FAKE_STATE"/running/*.pid; do
        [ -f "$file" ] || continue
        pid=$(cat "$file")
        kill "$pid" 2>/dev/null || true
    done
}

# install_app VERSION [MARKER]: the bundle the updater finds installed.
install_app() {
    "$BLACKBOX_ROOT/scripts/make-sample-app" --version "$1" --out "$APPS" \
        --bundle-id "$VELMORA_BUNDLE_ID" --marker "${2:-installed}" >/dev/null
}

# publish_app VERSION [MARKER]: packs a bundle and makes it the newest
# release for every architecture.
publish_app() {
    local build=$BATS_TEST_TMPDIR/release-$1
    "$BLACKBOX_ROOT/scripts/make-sample-app" --version "$1" --out "$build" \
        --bundle-id "$VELMORA_BUNDLE_ID" --marker "${2:-published}" \
        --zip "$build/Velmora-$1.zip" >/dev/null
    publish_zip "$build/Velmora-$1.zip" "$1"
}

# publish_zip ZIP VERSION: publishes an arbitrary package.
publish_zip() {
    "$BLACKBOX_ROOT/scripts/publish-release" --package "$1" --version "$2" \
        --arch arm64,x86_64,universal --out "$BLACKBOX_CONTENT" \
        --base-url "https://127.0.0.1:$BLACKBOX_PORT/packages" >/dev/null
    PACKAGE_PATH=/packages/$(basename "$1")
}

# Starts a process named exactly "Velmora" that plays the running
# application; the fake osascript quits it by its pid.
start_running_app() {
    cp "$(command -v sleep)" "$SANDBOX/Velmora"
    "$SANDBOX/Velmora" 600 >/dev/null 2>&1 3>&- &
    echo "$!" > "$FAKE_STATE/running/Velmora.pid"
    RUNNING_APP_PID=$!
}

# run_updater ARGS...: runs the real executable for the sandbox's install
# folder, with the fake macOS tools first on PATH. Sets run_status and
# run_seconds; the output goes to $SANDBOX/updater.out.
run_updater() {
    local fakes=$BLACKBOX_ROOT/tests/fakes start end tools
    tools=$fakes/bin:$fakes/ditto
    # A Mac without ditto: the updater unzips and the swap script copies.
    [ -z "${WITHOUT_DITTO:-}" ] || tools=$fakes/bin
    start=$(date +%s%N)
    set +e
    PATH="$tools:$PATH" \
        HOME="$SANDBOX/home" XDG_CONFIG_HOME="$SANDBOX/config" XDG_RUNTIME_DIR="$SANDBOX/runtime" TMPDIR="$TEMP" \
        QT_QPA_PLATFORM=offscreen VELMORA_DEFAULT_LANGUAGE=en LANGUAGE=en LANG=C.UTF-8 LC_ALL=C.UTF-8 \
        timeout --kill-after=5 150 "$VELMORA_UPDATER" --install-dir "$APPS" "$@" \
        > "$SANDBOX/updater.out" 2>&1 3>&-
    run_status=$?
    set -e
    end=$(date +%s%N)
    run_seconds=$(( (end - start) / 1000000000 ))
}

# The swap script outlives the updater in automatic mode: wait, bounded, for
# its status word and for it to have removed its own file.
wait_for_swap() {
    for _ in $(seq 1 600); do
        if [ -s "$STATUS_FILE" ] && [ ! -e "$TEMP/velmora_apply_update.sh" ]; then
            return 0
        fi
        sleep 0.1
    done
    echo "the swap script reported nothing within 60 s" >&2
    show_diagnostics
    return 1
}

show_diagnostics() {
    {
        echo "--- updater output"; cat "$SANDBOX/updater.out"
        echo "--- service log"; cat "$BLACKBOX_SERVICE/access.log"
        echo "--- swap log"; cat "$SWAP_LOG"
        echo "--- fake tools"; cat "$FAKE_LOG"
        echo "--- temporary folder"; ls -la "$TEMP"
    } >&2 2>/dev/null || true
}

assert_exit_zero() {
    if [ "$run_status" -ne 0 ]; then
        echo "the updater exited with $run_status (124: it did not end by itself)" >&2
        show_diagnostics
        return 1
    fi
}

installed_version() {
    /usr/libexec/PlistBuddy -c 'Print :CFBundleShortVersionString' "$DST/Contents/Info.plist"
}

assert_installed() {
    local version marker
    version=$(installed_version)
    marker=$(cat "$DST/Contents/Resources/build.txt")
    if [ "$version" != "$1" ] || [ "$marker" != "$2" ]; then
        echo "installed: $version ($marker), expected $1 ($2)" >&2
        show_diagnostics
        return 1
    fi
    [ -x "$DST/Contents/MacOS/Velmora" ]
}

assert_status() {
    local word
    word=$(cat "$STATUS_FILE")
    [ "$word" = "$1" ] || { echo "status file says '$word', expected '$1'" >&2; show_diagnostics; return 1; }
}

assert_no_status() {
    [ ! -e "$STATUS_FILE" ] || { echo "unexpected status file: $(cat "$STATUS_FILE")" >&2; return 1; }
}

assert_swap_log() {
    grep -qF -- "$1" "$SWAP_LOG" || { echo "swap log lacks: $1" >&2; show_diagnostics; return 1; }
}

# Nothing that a finished run removes may still be there.
assert_clean_temp() {
    local leftover
    for leftover in "$TEMP/VelmoraUpdate.zip" "$TEMP/velmora_apply_update.sh" \
        "$DST.new" "$DST.old" "$TEMP/VelmoraExtract/Velmora.app"; do
        [ ! -e "$leftover" ] || { echo "left behind: $leftover" >&2; show_diagnostics; return 1; }
    done
}

requests() {
    cat "$BLACKBOX_SERVICE/access.log"
}

# assert_request FRAGMENT: one logged request line contains FRAGMENT.
assert_request() {
    grep -qF -- "$1" "$BLACKBOX_SERVICE/access.log" || {
        echo "the service logged no request matching: $1" >&2
        show_diagnostics
        return 1
    }
}

refute_request() {
    if grep -qF -- "$1" "$BLACKBOX_SERVICE/access.log"; then
        echo "the service logged an unexpected request: $(grep -F -- "$1" "$BLACKBOX_SERVICE/access.log")" >&2
        return 1
    fi
}

QUERY='GET "/rest/v1/app_versions?select=*&order=created_at.desc&limit=1"'

# The release query carries the service key in both headers.
assert_query() {
    assert_request "https $QUERY $1 apikey=match authorization=match "
}

# The package request identifies the updater and carries no key.
assert_package_request() {
    assert_request "https GET \"$PACKAGE_PATH\" $1 apikey=absent authorization=absent ua=\"Mozilla/5.0 VelmoraUpdater/1.0\""
}

assert_fake_called() {
    grep -qF -- "$1" "$FAKE_LOG" || { echo "no fake tool call like: $1" >&2; show_diagnostics; return 1; }
}

refute_fake_called() {
    if grep -qF -- "$1" "$FAKE_LOG"; then
        echo "unexpected fake tool call: $(grep -F -- "$1" "$FAKE_LOG")" >&2
        return 1
    fi
}
