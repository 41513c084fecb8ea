# shellcheck shell=bash disable=SC2034,SC2154  # header variables are read as ${!name}; bats sets status
# Every scenario runs the swap script, written as the hand-over writes it, on
# a fake Mac under $SB (a path with a space and a quote, as a user's folder
# may have): Velmora.app 1.0.0 installed at $DST, the package's Velmora.app
# 2.0.0 extracted, the fake tools first on PATH, TMPDIR inside. A scenario
# sets the running processes (app), runs the script with the header
# variables (named as in the script) and fakes' answers (FAKE_*) it changes,
# then asserts what a user would find. teardown checks what holds after
# every run: one status word and a line feed; the script, the staged copy
# and the extraction removed; no old bundle kept after success; never
# SIGKILL; every log line stamped with its time.
# shellcheck source=SCRIPTDIR/../fakes/fake-lib.sh
. "$BATS_TEST_DIRNAME/../fakes/fake-lib.sh"
: "${SWAP_BODY:=$BATS_TEST_DIRNAME/../../updater/scripts/apply_update.sh}"
: "${VELMORA_BUNDLE_ID:=com.velmoralabs.velmora}"

setup() {
    SB="$BATS_TEST_TMPDIR/Mac of O'Neil"
    fake_world "$SB/world"
    mkdir -p "$SB/tmp"
    export FAKE_LIPO_ARCHS=arm64
    DST=$SB/Applications/Velmora.app STATUS_FILE=$SB/tmp/velmora_update.status LOG_FILE=$SB/tmp/velmora_update.log
    UPDATER_NAME=VelmoraUpdater SRC_ROOT=$SB/extract/VelmoraUpdate DST_APP=$DST LEGACY_APP=''
    SRC_APP=$SRC_ROOT/Velmora.app EXPECT_VER=2.0.0 EXPECT_ARCH=arm64 AUTO=0 MIN_IDLE=300 MAX_WAIT=21600
    STATUS=$STATUS_FILE CANONICAL_APP=$SB/Canonical/Velmora.app
    bundle "$DST" 1.0.0
    bundle "$SRC_APP" 2.0.0
}

bundle() {  # PATH VERSION (empty: the property list has none)
    mkdir -p "$1/Contents/MacOS"
    printf '#!/bin/sh\n' > "$1/Contents/MacOS/Velmora"
    chmod 755 "$1/Contents/MacOS/Velmora"
    echo "<plist><dict>${2:+<key>CFBundleShortVersionString</key><string>$2</string>}</dict></plist>" > "$1/Contents/Info.plist"
}

app() { echo "$2 ${3:-}" > "$FAKE_STATE/proc/$1"; }  # NAME HOW [EXITS_AT]: a running process

run_swap() {  # [NAME=VALUE...]
    local name script=$SB/tmp/velmora_apply_update.sh
    for name; do declare -g "$name"; done
    {
        printf '#!/bin/bash\nset +e\n'
        for name in UPDATER_NAME SRC_APP DST_APP LEGACY_APP SRC_ROOT EXPECT_VER EXPECT_ARCH AUTO MIN_IDLE MAX_WAIT STATUS CANONICAL_APP; do
            printf '%s=%q\n' "$name" "${!name}"
        done
        # The hand-over adds the body as Latin-1 text: its dashes reach the log encoded twice.
        sed "s/@VELMORA_BUNDLE_ID@/$VELMORA_BUNDLE_ID/" "$SWAP_BODY" | iconv -f LATIN1 -t UTF-8
    } > "$script"
    run env "$@" PATH="$FAKE_STATE/bin:$PATH" TMPDIR="$SB/tmp" /bin/bash "$script"
}

installed() {  # PATH: the version of a usable bundle there, or "none"
    if [ -x "$1/Contents/MacOS/Velmora" ]; then bundle_version "$1"; else echo none; fi
}

# outcome WORD VERSION [PATH]: the status word with its exit status, and the
# version installed at PATH (default $DST).
outcome() {
    local word version rc=0
    word=$(cat "$STATUS_FILE" 2>/dev/null) version=$(installed "${3:-$DST}")
    [ "$1" != fail ] || rc=1
    [ "$word $status $version" = "$1 $rc $2" ] ||
        { echo "status word, exit, installed: $word $status $version; expected $1 $rc $2"; cat "$LOG_FILE"; return 1; }
}

logged() {  # MESSAGE: a line of the swap log, without its time stamp
    cut -d' ' -f3- "$LOG_FILE" | grep -qxF -- "$(printf '%s' "$1" | iconv -f LATIN1 -t UTF-8)" ||
        { echo "not logged: $1"; cat "$LOG_FILE"; return 1; }
}

launched() { [ "$(paste -sd' ' "$FAKE_STATE/launched" 2>/dev/null)" = "$1" ]; }  # VERSIONS opened, in order
naps() { calls sleep | grep -cx "$1"; }  # SECONDS: how many sleeps of that length

teardown() {
    local word one_word=$'^(ok|fail|defer)\nx$'
    word=$(cat "$STATUS_FILE"; echo x)
    [[ "$word" =~ $one_word ]] || { echo "no single status word"; return 1; }
    [ ! -e "$SB/tmp/velmora_apply_update.sh" ] || { echo "the script outlived its run"; return 1; }
    [ ! -e "$SRC_ROOT" ] || { echo "the extraction outlived the run"; return 1; }
    [ -z "$(find "$SB" -name '*.app.new')" ] || { echo "a staged copy outlived the run"; return 1; }
    [ "$word" != $'ok\nx' ] || [ -z "$(find "$SB" -name '*.app.old')" ] || { echo "old bundle kept after success"; return 1; }
    ! grep -E '^[^ ]+ (pkill|killall) (.* )?-(9|KILL|SIGKILL)( |$)' "$FAKE_LOG" || { echo "SIGKILL sent"; return 1; }
    ! grep -vE '^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\] ' "$LOG_FILE" || { echo "log line without time"; return 1; }
}
