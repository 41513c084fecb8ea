# Quitting the running app: politely, then SIGTERM, never SIGKILL.

load swap_helpers

@test "an app that ignores every request is left running and nothing is swapped" {
    app_process Velmora never
    run_swap
    assert_outcome fail 1.0.0
    assert_logged "app would not quit ${DASH} abort, live app untouched"
    [ -f "$FAKE_STATE/proc/Velmora" ]
    [ "$(calls osascript | wc -l)" -eq 2 ]
    [ "$(calls pkill)" = "-x Velmora
-x QVelmoraApp" ]
    [ "$(calls killall)" = "-TERM Velmora QVelmoraApp" ]
    [ "$(calls sleep | grep -c '^1$')" -eq 35 ]
    [ -z "$(calls mv)" ]
    [ -z "$(calls open)" ]
    [ -z "$(calls kill)" ]
}

@test "an app that only obeys SIGTERM is terminated after twenty seconds of asking" {
    app_process QVelmoraApp term
    export FAKE_OSASCRIPT_RC=1
    run_swap
    assert_outcome ok 2.0.0
    [ "$(calls sleep | grep -c '^1$')" -eq 20 ]
    [ ! -f "$FAKE_STATE/proc/QVelmoraApp" ]
    [ "$(launched_versions)" = "2.0.0 " ]
}

@test "an app that quits when asked gets no signal" {
    app_process Velmora osascript
    run_swap
    assert_outcome ok 2.0.0
    [ -z "$(calls pkill)" ]
    [ -z "$(calls killall)" ]
}

@test "an app that takes a few seconds to quit is waited for" {
    app_process Velmora never 3
    run_swap
    assert_outcome ok 2.0.0
    [ "$(calls sleep | tr '\n' ' ')" = "1 1 1 " ]
    [ -z "$(calls pkill)" ]
}

@test "an idle user's app that will not quit is left as it was" {
    H_AUTO=1
    app_process Velmora never
    export FAKE_HID_IDLE_NS=900000000000
    run_swap
    assert_outcome fail 1.0.0
    assert_logged "app would not quit ${DASH} abort, live app untouched"
}
