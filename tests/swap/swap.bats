# The swap: two moves, each with its rollback, then the test launch that
# puts the old bundle back when the new one will not open.

load swap_helpers

@test "a live bundle that cannot be moved aside stays and is reopened" {
    app Velmora osascript
    run_swap FAKE_MV_FAIL=1
    outcome fail 1.0.0
    logged "mv live->old failed"
    launched 1.0.0
}
@test "an automatic run does not reopen an app that was closed" { run_swap AUTO=1 FAKE_MV_FAIL=1; outcome fail 1.0.0; launched ""; }
@test "a new bundle that cannot be moved into place brings the old one back" {
    run_swap FAKE_MV_FAIL=2
    outcome fail 1.0.0
    logged "mv new->live failed — restoring old"
    logged "mv new->live failed"
    launched 1.0.0
}
@test "when the restoring move fails too the old bundle is kept beside" {
    run_swap FAKE_MV_FAIL="2 3"
    outcome fail none
    [ "$(installed "$DST.old")" = 1.0.0 ]
    launched ""
}
@test "a new bundle that will not open is rolled back to the live one, not to a leftover" {
    bundle "$DST.old" 0.8.0
    bundle "$DST.new" 0.9.0
    run_swap FAKE_OPEN_FAIL_VERSION=2.0.0
    outcome fail 1.0.0
    logged "open failed — rolling back"
    logged "open failed — rolled back"
    launched 1.0.0
}

# fresh [NAME=VALUE...]: a first installation, into a folder not there yet.
fresh() { run_swap DST_APP="$SB/Fresh Apps/Velmora.app" "$@"; }
@test "a first installation moves the staged copy into place" {
    fresh
    outcome ok 2.0.0 "$DST_APP"
    [ "$(calls mv)" = "$DST_APP.new $DST_APP" ]
    launched 2.0.0
}
@test "a first installation whose move fails leaves nothing" { fresh FAKE_MV_FAIL=1; outcome fail none "$DST_APP"; logged "mv new->live failed"; launched ""; }
@test "a first installation that will not open is removed" { fresh FAKE_OPEN_FAIL_VERSION=2.0.0; outcome fail none "$DST_APP"; launched ""; }

@test "a translocated app is installed to the standard place" {
    run_swap DST_APP="$SB/private/var/folders/zz/T/AppTranslocation/6F1C-44A2/d/Velmora.app"
    outcome ok 2.0.0 "$CANONICAL_APP"
    [ "$(installed "$DST")" = 1.0.0 ]
    logged "dst is Gatekeeper translocation — installing to $CANONICAL_APP"
}
