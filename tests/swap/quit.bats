# Quitting the running app: asked politely, given 20 s, then SIGTERM and 15 s
# more, never SIGKILL (teardown checks). Whether the new app is opened
# depends on the mode and on whether the app ran.

load swap_helpers

# quit NAME HOW WORD SECONDS [NAME=VALUE...]: an interactive run with the app running as NAME.
quit() {
    app "$1" "$2"
    run_swap "${@:5}"
    [ "$(naps 1)" -eq "$4" ]
    [ "$(calls osascript)" = "-e tell application id \"$VELMORA_BUNDLE_ID\" to quit
-e tell application \"Velmora\" to quit" ]
    if [ "$3" = ok ]; then outcome ok 2.0.0; launched 2.0.0; else outcome fail 1.0.0; launched ""; fi
}

@test "an app that quits when asked gets no signal and no wait" {
    app VelmoraUpdater never
    quit Velmora osascript ok 0
    [ -z "$(calls pkill)$(calls killall)$(calls ioreg)" ]
    [ "$(calls xattr)" = "-dr com.apple.quarantine $DST" ]
    [[ "$(awk '{ print $2 }' "$FAKE_LOG" | paste -sd' ')" == *"xattr open" ]]
    logged "=== macOS update 2.0.0: dst=$DST legacy=none auto=0 ==="
    logged "swap ok -> $DST (2.0.0)"
}
@test "an app that takes three seconds to quit is waited for" { quit Velmora "never 3" ok 3; [ -z "$(calls pkill)" ]; }
@test "an app that only obeys SIGTERM is terminated after twenty seconds" {
    quit QVelmoraApp term ok 20 FAKE_OSASCRIPT_RC=1
    [ "$(calls pkill | paste -sd' ')" = "-x Velmora -x QVelmoraApp" ]
    [ "$(calls killall)" = "-TERM Velmora QVelmoraApp" ]
}
@test "an app that will not quit stays running and nothing is swapped" {
    quit Velmora never fail 35
    logged "app would not quit — abort, live app untouched"
    [ "$(running Velmora)" = never ]
}

# relaunch AUTO [NAME=VALUE...]: a run while the app is not running.
relaunch() { run_swap "AUTO=$1" "${@:2}"; outcome ok 2.0.0; [ -z "$(calls osascript)$(calls ioreg)" ]; }
@test "an interactive run opens the new app even when it was not running" { relaunch 0; launched 2.0.0; }
@test "an automatic run with the app closed swaps at once and opens nothing" {
    relaunch 1 FAKE_OPEN_FAIL_VERSION=2.0.0
    [ -z "$(calls open)" ]
    logged "=== macOS update 2.0.0: dst=$DST legacy=none auto=1 ==="
}
