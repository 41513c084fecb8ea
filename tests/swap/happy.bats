# Successful swaps: which bundle ends up installed and what is relaunched.

load swap_helpers

@test "interactive run quits the running app politely, swaps and relaunches the new version" {
    app_process Velmora osascript
    app_process VelmoraUpdater never
    run_swap
    assert_outcome ok 2.0.0
    [ "$(launched_versions)" = "2.0.0 " ]
    [ "$(calls osascript)" = "-e tell application id \"$VELMORA_BUNDLE_ID\" to quit
-e tell application \"Velmora\" to quit" ]
    [ "$(calls xattr)" = "-dr com.apple.quarantine $DST" ]
    # The updater keeps running in interactive mode; the script must not wait for it.
    [ -z "$(calls pgrep | grep VelmoraUpdater)" ]
    [ -z "$(calls sleep)" ]
    assert_logged "=== macOS update 2.0.0: dst=$DST legacy=none auto=0 ==="
    assert_logged "swap ok -> $DST (2.0.0)"
}

@test "interactive run opens the new version even when the app was not running" {
    run_swap
    assert_outcome ok 2.0.0
    [ "$(launched_versions)" = "2.0.0 " ]
    [ -z "$(calls osascript)" ]
}

@test "automatic run with the app closed swaps at once and opens nothing" {
    H_AUTO=1
    run_swap
    assert_outcome ok 2.0.0
    [ -z "$(calls open)" ]
    [ -z "$(calls ioreg)" ]
    [ -z "$(calls osascript)" ]
    assert_logged "=== macOS update 2.0.0: dst=$DST legacy=none auto=1 ==="
}

@test "automatic run relaunches an app that was running, also under its Qt process name" {
    H_AUTO=1
    app_process QVelmoraApp osascript
    export FAKE_HID_IDLE_NS=600000000000
    run_swap
    assert_outcome ok 2.0.0
    [ "$(launched_versions)" = "2.0.0 " ]
}

@test "a translocated destination installs to the standard place and creates its parent" {
    H_DST="/private/var/folders/zz/T/AppTranslocation/6F1C-44A2/d/Velmora.app"
    FINAL_DST="$H_CANONICAL"
    OLD_VERSION=none
    run_swap
    assert_outcome ok 2.0.0
    assert_logged "dst is Gatekeeper translocation ${DASH} installing to $H_CANONICAL"
    assert_logged "=== macOS update 2.0.0: dst=$H_CANONICAL legacy=none auto=0 ==="
    [ "$(installed_version "$DST")" = 1.0.0 ]
}

@test "first installation moves the staged copy into a new folder without a live bundle to set aside" {
    H_DST="$SB/Fresh Apps/Velmora.app"
    FINAL_DST="$H_DST"
    OLD_VERSION=none
    run_swap
    assert_outcome ok 2.0.0
    [ "$(calls mv)" = "$H_DST.new $H_DST" ]
    [ "$(launched_versions)" = "2.0.0 " ]
}

@test "without ditto the bundle is staged with cp -R" {
    rm "$SB/bin/ditto"
    run_swap
    assert_outcome ok 2.0.0
    [ -x "$DST/Contents/MacOS/Velmora" ]
}

@test "the status file falls back to the temporary folder when the header leaves it empty" {
    H_STATUS=""
    run_swap
    assert_outcome ok 2.0.0
}
