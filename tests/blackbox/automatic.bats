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

@test "--auto as a standard user installs into a folder the user owns" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    standard_user
    chown -R "$AS_USER" "$APPS"
    run_updater --auto
    updated 2.0.0 new
}

@test "--auto reaches the package through the system proxy" {
    PACKAGE_HOST=packages.velmora.test
    install_app 1.0.0 old
    publish_app 2.0.0 new
    "$BATS_TEST_DIRNAME/connect-proxy" "$SB/proxy.port" "$SB/proxy.log" "$PACKAGE_HOST=127.0.0.1" 3>&- &
    until [ -s "$SB/proxy.port" ]; do sleep 0.1; done
    https_proxy=http://127.0.0.1:$(cat "$SB/proxy.port") run_updater --auto
    kill %1
    updated 2.0.0 new
    [ "$(sort -u "$SB/proxy.log")" = "CONNECT $PACKAGE_HOST:$BLACKBOX_PORT" ]
}
