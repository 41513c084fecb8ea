#!/usr/bin/env bats
# Interactive runs of the shipped updater: the window path that downloads,
# verifies, hands over to the swap script and ends by itself once the
# installation is complete, and the runs that find nothing to install.

load blackbox_helpers

setup() { setup_sandbox; }
teardown() { teardown_sandbox; }

@test "an interactive run replaces 1.0.0 by the published 2.0.0 and relaunches it" {
    install_app 1.0.0 old
    publish_app 2.0.0 new

    run_updater
    assert_exit_zero
    wait_for_swap

    assert_query 200
    assert_package_request 200
    assert_installed 2.0.0 new
    assert_status ok
    assert_swap_log "=== macOS update 2.0.0: dst=$DST legacy=none auto=0 ==="
    assert_swap_log "swap ok -> $DST (2.0.0)"
    assert_fake_called "PlistBuddy -c Print :CFBundleShortVersionString $DST/Contents/Info.plist"
    assert_fake_called "bin/xattr -dr com.apple.quarantine $DST"
    assert_fake_called "bin/open $DST"
    grep -qx "2.0.0 $DST" "$FAKE_STATE/launched"
    assert_clean_temp
}

@test "--force reinstalls the published release over the same version" {
    install_app 2.0.0 damaged
    publish_app 2.0.0 repaired

    run_updater --force
    assert_exit_zero
    wait_for_swap

    assert_query 200
    assert_package_request 200
    assert_installed 2.0.0 repaired
    assert_status ok
    assert_swap_log "swap ok -> $DST (2.0.0)"
    assert_clean_temp
}

@test "an up-to-date installation quits at once without asking for a package" {
    install_app 2.0.0 current
    publish_app 2.0.0 published

    run_updater
    assert_exit_zero
    # Well before the 60 s check watchdog: the answer itself ended the run.
    [ "$run_seconds" -lt 30 ]

    assert_query 200
    refute_request '/packages/'
    assert_installed 2.0.0 current
    assert_no_status
    [ ! -e "$SWAP_LOG" ]
    [ ! -e "$TEMP/VelmoraUpdate.zip" ]
}

@test "--current overrides the bundle's own version in the comparison" {
    install_app 1.0.0 old
    publish_app 2.0.0 new

    run_updater --current 2.0.0
    assert_exit_zero

    assert_query 200
    refute_request '/packages/'
    assert_installed 1.0.0 old
    assert_no_status
}
