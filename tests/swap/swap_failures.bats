# The two moves of the swap failing, and the rollback that follows.

load swap_helpers

@test "a live bundle that cannot be moved aside stays and is reopened" {
    app_process Velmora osascript
    export FAKE_MV_FAIL_CALLS=1
    run_swap
    assert_outcome fail 1.0.0
    assert_logged "mv live->old failed"
    [ "$(launched_versions)" = "1.0.0 " ]
}

@test "an automatic run that cannot move the closed app aside does not open it" {
    H_AUTO=1
    export FAKE_MV_FAIL_CALLS=1
    run_swap
    assert_outcome fail 1.0.0
    [ -z "$(calls open)" ]
}

@test "a new bundle that cannot be moved into place brings the old one back" {
    export FAKE_MV_FAIL_CALLS=2
    run_swap
    assert_outcome fail 1.0.0
    [ "$(log_messages | tail -n 2)" = "mv new->live failed ${DASH} restoring old
mv new->live failed" ]
    [ "$(calls mv | tail -n 1)" = "$DST.old $DST" ]
    [ "$(launched_versions)" = "1.0.0 " ]
    [ ! -e "$DST.old" ]
}

@test "when even the restoring move fails the old bundle is kept beside the destination" {
    export FAKE_MV_FAIL_CALLS="2 3"
    RESTORE_FAILS=1
    run_swap
    assert_outcome fail none
    [ "$(installed_version "$DST.old")" = 1.0.0 ]
    [ -z "$(calls open)" ]
}

@test "a first installation whose move fails leaves nothing behind and opens nothing" {
    H_DST="$SB/Fresh Apps/Velmora.app"
    FINAL_DST="$H_DST"
    OLD_VERSION=none
    export FAKE_MV_FAIL_CALLS=1
    run_swap
    assert_outcome fail none
    assert_logged "mv new->live failed"
    [ -z "$(calls open)" ]
}
