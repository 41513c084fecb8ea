# What a run leaves: a legacy bundle removed only after success and never
# when it is the destination; the log and the status file. teardown checks
# that the script, the staged copy and the extraction are gone.

load swap_helpers

# legacy PATH WORD [NAME=VALUE...]: a run with LEGACY_APP set to PATH.
legacy() { [ -e "$1" ] || bundle "$1" 1.0.0; run_swap LEGACY_APP="$1" "${@:3}"; [ "$(cat "$STATUS_FILE")" = "$2" ]; }
@test "a version-stamped bundle is removed after a successful swap" {
    legacy "$SB/Applications/Velmora 1.0.0.app" ok
    [ ! -e "$LEGACY_APP" ]
    logged "removed version-stamped bundle $LEGACY_APP"
    logged "=== macOS update 2.0.0: dst=$DST legacy=$LEGACY_APP auto=0 ==="
}
@test "a version-stamped bundle survives a failed update" { legacy "$SB/Applications/Velmora 1.0.0.app" fail EXPECT_VER=7.0.0; [ -d "$LEGACY_APP" ]; }
@test "a legacy path that is the destination is kept" { legacy "$DST" ok; outcome ok 2.0.0; }
@test "a legacy path that is the rewritten destination is kept" {
    legacy "$CANONICAL_APP" ok DST_APP="$SB/AppTranslocation/x/Velmora.app"
    outcome ok 2.0.0 "$CANONICAL_APP"
}

@test "the log keeps earlier runs and the status word replaces the last one" {
    echo "[2024-01-01 00:00:00] earlier run" > "$LOG_FILE"
    echo ok > "$STATUS_FILE"
    run_swap EXPECT_VER=2.0.1
    outcome fail 1.0.0
    [ "$(head -n 1 "$LOG_FILE")" = "[2024-01-01 00:00:00] earlier run" ]
}
@test "an empty status path falls back to the temporary folder" { run_swap STATUS=; outcome ok 2.0.0; }
