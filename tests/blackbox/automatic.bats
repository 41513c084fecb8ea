#!/usr/bin/env bats
# Background runs (--auto): the updater shows nothing, starts the swap script
# and quits at once; the script waits for it to be gone, then swaps.

load blackbox_helpers

setup() { setup_sandbox; }
teardown() { teardown_sandbox; }

@test "--auto with the application not running swaps at once and opens nothing" {
    install_app 1.0.0 old
    publish_app 2.0.0 new

    run_updater --auto
    assert_exit_zero
    wait_for_swap

    assert_query 200
    assert_package_request 200
    assert_installed 2.0.0 new
    assert_status ok
    assert_swap_log "=== macOS update 2.0.0: dst=$DST legacy=none auto=1 ==="
    assert_swap_log "swap ok -> $DST (2.0.0)"
    refute_fake_called "bin/open"
    refute_fake_called "bin/osascript"
    refute_fake_called "bin/ioreg"
    assert_clean_temp
}

@test "--auto with the application running waits for an idle user, quits it politely and relaunches" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    start_running_app
    export FAKE_IDLE_SECONDS=600

    run_updater --auto
    assert_exit_zero
    wait_for_swap

    assert_package_request 200
    assert_installed 2.0.0 new
    assert_status ok
    assert_fake_called "bin/ioreg -c IOHIDSystem"
    assert_fake_called "bin/osascript -e tell application id \"$VELMORA_BUNDLE_ID\" to quit"
    assert_fake_called 'bin/osascript -e tell application "Velmora" to quit'
    # The polite request sufficed: no signal was needed.
    refute_fake_called "bin/pkill"
    refute_fake_called "bin/killall"
    if kill -0 "$RUNNING_APP_PID" 2>/dev/null; then
        echo "the running application was never asked to quit successfully" >&2
        return 1
    fi
    assert_fake_called "bin/open $DST"
    grep -qx "2.0.0 $DST" "$FAKE_STATE/launched"
    assert_clean_temp
}

@test "--auto on a machine without ditto extracts with unzip and stages with a plain copy" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    WITHOUT_DITTO=1

    run_updater --auto
    assert_exit_zero
    wait_for_swap

    assert_installed 2.0.0 new
    assert_status ok
    assert_swap_log "swap ok -> $DST (2.0.0)"
    refute_fake_called "ditto"
    assert_clean_temp
}
