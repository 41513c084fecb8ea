# The relaunch check: a new bundle that will not open is rolled back.

load swap_helpers

@test "a new bundle that will not open is replaced by the old one, which is reopened" {
    app_process Velmora osascript
    export FAKE_OPEN_BROKEN_VERSION=2.0.0
    run_swap
    assert_outcome fail 1.0.0
    [ "$(log_messages | tail -n 2)" = "open failed ${DASH} rolling back
open failed ${DASH} rolled back" ]
    [ "$(launched_versions)" = "1.0.0 " ]
    [ ! -e "$DST.old" ]
}

@test "a first installation that will not open is removed and nothing takes its place" {
    H_DST="$SB/Fresh Apps/Velmora.app"
    FINAL_DST="$H_DST"
    OLD_VERSION=none
    export FAKE_OPEN_BROKEN_VERSION=2.0.0
    run_swap
    assert_outcome fail none
    assert_logged "open failed ${DASH} rolled back"
    [ ! -e "$H_DST" ]
    [ -z "$(launched_versions)" ]
}

@test "the quarantine flag is cleared before the new bundle is opened" {
    run_swap
    assert_outcome ok 2.0.0
    xattr_line=$(grep -n '/xattr ' "$FAKE_LOG" | cut -d: -f1)
    open_line=$(grep -n '/open ' "$FAKE_LOG" | cut -d: -f1)
    [ "$xattr_line" -lt "$open_line" ]
}

@test "an automatic run with the app closed never test-launches, so a broken bundle stays" {
    H_AUTO=1
    export FAKE_OPEN_BROKEN_VERSION=2.0.0
    run_swap
    assert_outcome ok 2.0.0
    [ -z "$(calls open)" ]
}
