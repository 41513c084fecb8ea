# Automatic mode: waiting for the updater to leave and for the user to be idle.

load swap_helpers

setup_automatic() {
    H_AUTO=1
    app_process Velmora osascript
}

@test "automatic run waits for the updater to exit before copying anything" {
    H_AUTO=1
    app_process VelmoraUpdater never 5
    run_swap
    assert_outcome ok 2.0.0
    [ "$(calls sleep | tr '\n' ' ')" = "1 1 1 1 1 " ]
    # The copy starts only after the last look for the updater.
    last_look=$(grep -n ' -x VelmoraUpdater$' "$FAKE_LOG" | tail -n 1 | cut -d: -f1)
    first_copy=$(grep -n '/ditto ' "$FAKE_LOG" | head -n 1 | cut -d: -f1)
    [ "$last_look" -lt "$first_copy" ]
}

@test "automatic run gives up waiting for the updater after thirty seconds and installs" {
    H_AUTO=1
    app_process VelmoraUpdater never
    run_swap
    assert_outcome ok 2.0.0
    [ "$(calls pgrep | grep -c VelmoraUpdater)" -eq 30 ]
    [ "$(calls sleep | grep -c '^1$')" -eq 30 ]
}

@test "an idle user gets the update at once" {
    setup_automatic
    export FAKE_HID_IDLE_NS=300000000001
    run_swap
    assert_outcome ok 2.0.0
    [ -z "$(calls sleep)" ]
    [ "$(calls ioreg | sort -u)" = "-c IOHIDSystem" ]
}

@test "idle time is rounded to the nearest second" {
    setup_automatic
    export FAKE_HID_IDLE_NS=299600000000
    run_swap
    assert_outcome ok 2.0.0
    [ -z "$(calls sleep)" ]
}

@test "the swap waits in thirty-second naps until the user has been idle for five minutes" {
    setup_automatic
    export FAKE_USER_ACTIVE_UNTIL=3600
    run_swap
    assert_outcome ok 2.0.0
    [ "$(calls sleep | grep -c '^30$')" -eq 130 ]
    [ "$(launched_versions)" = "2.0.0 " ]
}

@test "a user active for six hours defers the update and keeps the app running" {
    setup_automatic
    export FAKE_HID_IDLE_NS=299400000000
    run_swap
    assert_outcome defer 1.0.0
    assert_logged "user active for 21600s ${DASH} deferring to the next check"
    [ "$(calls sleep | grep -c '^30$')" -eq 720 ]
    [ -f "$FAKE_STATE/proc/Velmora" ]
    [ -z "$(calls osascript)" ]
    [ -z "$(calls mv)" ]
}

@test "a user who turns idle just as the six hours end still gets the update" {
    setup_automatic
    export FAKE_USER_ACTIVE_UNTIL=21300
    run_swap
    assert_outcome ok 2.0.0
    [ "$(calls sleep | grep -c '^30$')" -eq 720 ]
}

@test "without HID data the user counts as active and the update is deferred" {
    setup_automatic
    run_swap
    assert_outcome defer 1.0.0
    [ "$(cat "$FAKE_STATE/clock")" -eq 21600 ]
}

@test "an interactive run never waits for idleness" {
    app_process Velmora osascript
    run_swap
    assert_outcome ok 2.0.0
    [ -z "$(calls ioreg)" ]
}
