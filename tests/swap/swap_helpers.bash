# Sandbox, composition and invariants shared by every swap scenario.
#
# Each scenario gets a fake Mac under "$SB": Applications/Velmora.app at
# version 1.0.0 (the installed bundle), extract/VelmoraUpdate/Velmora.app at
# 2.0.0 (the package), fake tools first on PATH and TMPDIR inside the
# sandbox. The sandbox path holds a space, a single quote and a non-ASCII
# letter, as a user's folder may, so every scenario also exercises quoting.

# An em dash of the body as it reaches the script file and the log: the
# hand-over encodes the body's UTF-8 bytes a second time.
DASH=$'\xc3\xa2\xc2\x80\xc2\x94'

make_bundle() {  # PATH VERSION (empty: no short version key)
    mkdir -p "$1/Contents/MacOS" "$1/Contents/Resources"
    printf '#!/bin/sh\nexit 0\n' > "$1/Contents/MacOS/Velmora"
    chmod 755 "$1/Contents/MacOS/Velmora"
    {
        echo '<?xml version="1.0" encoding="UTF-8"?>'
        echo '<plist version="1.0">'
        echo '<dict>'
        printf '\t<key>CFBundleExecutable</key>\n\t<string>Velmora</string>\n'
        [ -z "$2" ] || printf '\t<key>CFBundleShortVersionString</key>\n\t<string>%s</string>\n' "$2"
        echo '</dict>'
        echo '</plist>'
    } > "$1/Contents/Info.plist"
}

# The version of the bundle at PATH, or "none" when nothing usable is there.
installed_version() {
    [ -x "$1/Contents/MacOS/Velmora" ] || { echo none; return; }
    tr -d '\n' < "$1/Contents/Info.plist" |
        sed -n 's:.*<key>CFBundleShortVersionString</key>[[:space:]]*<string>\([^<]*\)</string>.*:\1:p'
}

app_process() {  # NAME BEHAVIOUR [EXIT_AT]
    printf 'quit=%s\n' "$2" > "$FAKE_STATE/proc/$1"
    [ -z "${3:-}" ] || printf 'exit_at=%s\n' "$3" >> "$FAKE_STATE/proc/$1"
}

setup() {
    SB="$BATS_TEST_TMPDIR/Mac of O'Neil Ünal"
    mkdir -p "$SB/bin" "$SB/tmp" "$SB/state/proc" "$SB/Applications"
    ln -s "$BATS_TEST_DIRNAME"/fakes/bin/* "$SB/bin/"
    echo 0 > "$SB/state/clock"
    export FAKE_LIB="$BATS_TEST_DIRNAME/fakes/fake-lib.sh" FAKE_LOG="$SB/fake.log" FAKE_STATE="$SB/state"
    export FAKE_LIPO_ARCHS=arm64

    DST="$SB/Applications/Velmora.app"
    SRC_ROOT="$SB/extract/VelmoraUpdate"
    SRC="$SRC_ROOT/Velmora.app"
    make_bundle "$DST" 1.0.0
    make_bundle "$SRC" 2.0.0
    OLD_VERSION=1.0.0
    NEW_VERSION=2.0.0

    # The header as the updater writes it; scenarios change what they need.
    H_SRC="$SRC" H_DST="$DST" H_LEGACY="" H_ROOT="$SRC_ROOT" H_VER=2.0.0 H_ARCH=arm64
    H_AUTO=0 H_STATUS="$SB/tmp/velmora_update.status" H_CANONICAL="$SB/Canonical/Velmora.app"
    FINAL_DST="$DST"
    SCRIPT="$SB/tmp/velmora_apply_update.sh"
    STATUS_FILE="$SB/tmp/velmora_update.status"
    LOG_FILE="$SB/tmp/velmora_update.log"
}

shell_quote() { printf "'%s'" "${1//\'/\'\\\'\'}"; }

# Writes the script exactly as the hand-over does and runs it with /bin/bash.
run_swap() {
    {
        printf '#!/bin/bash\nset +e\n'
        printf 'UPDATER_NAME=%s\n' "$(shell_quote VelmoraUpdater)"
        printf 'SRC_APP=%s\n' "$(shell_quote "$H_SRC")"
        printf 'DST_APP=%s\n' "$(shell_quote "$H_DST")"
        printf 'LEGACY_APP=%s\n' "$(shell_quote "$H_LEGACY")"
        printf 'SRC_ROOT=%s\n' "$(shell_quote "$H_ROOT")"
        printf 'EXPECT_VER=%s\n' "$(shell_quote "$H_VER")"
        printf 'EXPECT_ARCH=%s\n' "$(shell_quote "$H_ARCH")"
        printf 'AUTO=%s\nMIN_IDLE=300\nMAX_WAIT=21600\n' "$H_AUTO"
        printf 'STATUS=%s\n' "$(shell_quote "$H_STATUS")"
        printf 'CANONICAL_APP=%s\n' "$(shell_quote "$H_CANONICAL")"
        sed "s/@VELMORA_BUNDLE_ID@/$VELMORA_BUNDLE_ID/g" "$SWAP_BODY" | iconv -f LATIN1 -t UTF-8
    } > "$SCRIPT"
    chmod 755 "$SCRIPT"
    SWAP_RAN=1
    # The exported kill function catches the shell's own kill builtin too.
    run env PATH="$SB/bin:$PATH" TMPDIR="$SB/tmp" \
        'BASH_FUNC_kill%%=() { echo "$(date +%s.%N) kill $*" >> "$FAKE_LOG"; }' \
        /bin/bash "$SCRIPT"
}

# The arguments of every recorded call of TOOL, one call per line.
calls() {
    local prefix="$SB/bin/$1 "
    [ "$1" != PlistBuddy ] || prefix="/usr/libexec/PlistBuddy "
    [ "$1" != kill ] || prefix="kill "
    [ -f "$FAKE_LOG" ] || return 0
    while IFS= read -r line; do
        line=${line#* }
        [[ "$line" == "$prefix"* ]] && printf '%s\n' "${line#"$prefix"}"
    done < "$FAKE_LOG"
    return 0
}

# Log lines without their "[YYYY-MM-DD HH:MM:SS] " prefix; fails on a line
# that lacks it.
log_messages() {
    local re='^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\] (.*)$'
    while IFS= read -r line; do
        [[ "$line" =~ $re ]] || { echo "malformed log line: $line" >&2; return 1; }
        printf '%s\n' "${BASH_REMATCH[1]}"
    done < "$LOG_FILE"
}

assert_logged() {
    log_messages | grep -qxF -- "$1" || {
        echo "expected log line: $1"
        echo "log was:"; cat "$LOG_FILE"
        return 1
    }
}

refute_logged() {  # a fixed substring that must appear on no line
    ! grep -qF -- "$1" "$LOG_FILE" || { echo "unexpected log text: $1"; cat "$LOG_FILE"; return 1; }
}

assert_outcome() {  # STATUS-WORD INSTALLED-VERSION
    local word expected_rc=0
    word=$(cat "$STATUS_FILE" 2>/dev/null)
    [ "$1" != fail ] || expected_rc=1
    [ "$word" = "$1" ] || { echo "status '$word', expected '$1'"; cat "$LOG_FILE"; return 1; }
    [ "$status" -eq "$expected_rc" ] || { echo "exit status $status, expected $expected_rc"; return 1; }
    [ "$(installed_version "$FINAL_DST")" = "$2" ] ||
        { echo "installed: $(installed_version "$FINAL_DST"), expected $2"; cat "$LOG_FILE"; return 1; }
}

launched_versions() { [ ! -f "$FAKE_STATE/launched" ] || tr '\n' ' ' < "$FAKE_STATE/launched"; }

# What must hold after every run, whatever the scenario.
teardown() {
    [ -n "${SWAP_RAN:-}" ] || return 0
    local version content word_re=$'^(ok|fail|defer)\nx$'
    version=$(installed_version "$FINAL_DST")
    if [ -z "${RESTORE_FAILS:-}" ] && [ "$version" != "$OLD_VERSION" ] && [ "$version" != "$NEW_VERSION" ]; then
        echo "invariant: destination holds '$version', neither old nor new"; return 1
    fi
    content="$(cat "$STATUS_FILE" 2>/dev/null; printf x)"
    [[ "$content" =~ $word_re ]] || { echo "invariant: status file is not one word and a line feed"; od -c "$STATUS_FILE"; return 1; }
    [ ! -e "$SCRIPT" ] || { echo "invariant: the script outlived its run"; return 1; }
    [ ! -e "$FINAL_DST.new" ] || { echo "invariant: staged copy left behind"; return 1; }
    [ ! -e "$SRC_ROOT" ] || { echo "invariant: source root left behind"; return 1; }
    if [ "$content" = $'ok\nx' ] && [ -e "$FINAL_DST.old" ]; then
        echo "invariant: old bundle kept after success"; return 1
    fi
    if grep -E ' (pkill|killall|kill)( .*)? (-9|-KILL|-SIGKILL|-s KILL)( |$)' "$FAKE_LOG"; then
        echo "invariant: SIGKILL sent"; return 1
    fi
    return 0
}
