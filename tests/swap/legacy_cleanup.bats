# What the script leaves behind: the legacy bundle, leftovers, log and status.

load swap_helpers

@test "a version-stamped legacy bundle is removed after a successful swap" {
    H_LEGACY="$SB/Applications/Velmora 1.0.0.app"
    make_bundle "$H_LEGACY" 1.0.0
    run_swap
    assert_outcome ok 2.0.0
    [ ! -e "$H_LEGACY" ]
    assert_logged "removed version-stamped bundle $H_LEGACY"
    assert_logged "=== macOS update 2.0.0: dst=$DST legacy=$H_LEGACY auto=0 ==="
}

@test "a legacy bundle that is the destination itself is never deleted" {
    H_LEGACY="$DST"
    run_swap
    assert_outcome ok 2.0.0
    refute_logged "removed version-stamped bundle"
}

@test "a legacy path equal to the rewritten destination is kept as the new install" {
    H_DST="/private/var/folders/zz/T/AppTranslocation/6F1C-44A2/d/Velmora.app"
    H_LEGACY="$H_CANONICAL"
    FINAL_DST="$H_CANONICAL"
    OLD_VERSION=none
    run_swap
    assert_outcome ok 2.0.0
    refute_logged "removed version-stamped bundle"
}

@test "a legacy bundle survives a failed update" {
    H_LEGACY="$SB/Applications/Velmora 1.0.0.app"
    make_bundle "$H_LEGACY" 1.0.0
    H_VER=7.0.0
    run_swap
    assert_outcome fail 1.0.0
    [ "$(installed_version "$H_LEGACY")" = 1.0.0 ]
}

@test "leftovers of an earlier run are discarded before staging" {
    make_bundle "$DST.new" 0.9.0
    make_bundle "$DST.old" 0.8.0
    run_swap
    assert_outcome ok 2.0.0
    [ "$(calls ditto)" = "$SRC $DST.new" ]
}

@test "the log keeps earlier runs and the status replaces the earlier word" {
    echo "[2024-01-01 00:00:00] earlier run" > "$LOG_FILE"
    echo ok > "$STATUS_FILE"
    H_VER=2.0.1
    run_swap
    assert_outcome fail 1.0.0
    [ "$(head -n 1 "$LOG_FILE")" = "[2024-01-01 00:00:00] earlier run" ]
    [ "$(log_messages | wc -l)" -eq 3 ]
}

@test "the script, the staged copy and the extraction are removed after a deferral too" {
    H_AUTO=1
    app_process Velmora osascript
    export FAKE_HID_IDLE_NS=0
    run_swap
    assert_outcome defer 1.0.0
    [ ! -e "$SB/extract/VelmoraUpdate" ]
    [ -d "$SB/extract" ]
}
