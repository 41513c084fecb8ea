# Background runs (--auto): nothing shown; the updater starts the swap script
# and quits, and the script swaps, waiting for an idle user if the app runs.

load blackbox_helpers

@test "--auto with the app closed swaps at once and opens nothing" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    run_updater --auto
    updated 2.0.0 new
    [ -z "$(calls open)$(calls osascript)$(calls ioreg)" ]
}

@test "--auto with the app running quits it politely once the user is idle, then relaunches it" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    echo osascript > "$FAKE_STATE/proc/Velmora"
    export FAKE_IOREG_IDLE_NS=600000000000
    run_updater --auto
    updated 2.0.0 new
    [ "$(calls ioreg | sort -u)" = "-c IOHIDSystem" ]
    [ "$(calls osascript | head -n 1)" = "-e tell application id \"$VELMORA_BUNDLE_ID\" to quit" ]
    [ ! -e "$FAKE_STATE/proc/Velmora" ]
    [ -z "$(calls pkill)$(calls killall)" ]
    [ "$(cat "$FAKE_STATE/launched")" = 2.0.0 ]
}
