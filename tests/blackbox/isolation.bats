# A run is not disturbed by what surrounds it: a swap script of an earlier
# run still waiting for an idle user, a second updater, or shell start-up
# code in the environment.

load blackbox_helpers

# until CONDITION: waits up to 60 s for a shell condition to hold.
until_true() {
    for _ in $(seq 600); do
        eval "$1" && return 0
        sleep 0.1
    done
    echo "never came true: $1"; return 1
}

script_waits_for_idle() { [ "$(calls sleep | tail -n 1)" = 30 ]; }

# overlap FIRST SECOND: an automatic run offered FIRST parks its swap script
# in the idle wait (the app runs, the user is busy); meanwhile an
# interactive run is offered SECOND. Then the user goes idle.
overlap() {
    install_app 1.0.0 old
    publish_app "$1" first
    echo osascript > "$FAKE_STATE/proc/Velmora"
    export FAKE_IOREG_ACTIVE_UNTIL=600
    : > "$FAKE_STATE/hold"
    updater --auto > "$SB/first.out" 2>&1
    until_true script_waits_for_idle
    publish_app "$2" second --replace
    updater > "$SB/second.out" 2>&1 &
    # The second run asks for the release, then refuses before it downloads
    # anything; its window stays until the user closes it, which ends the run.
    until_true "[ \"\$(grep -cF -- '$QUERY' '$BLACKBOX_SERVICE/access.log')\" = 2 ]"
    sleep 1
    not_requested "GET \"$PACKAGE\""
    [ "$(grep -c '^EXPECT_VER=' "$TEMP/velmora_apply_update.sh")" = 1 ]
    grep -qxF "EXPECT_VER='$1'" "$TEMP/velmora_apply_update.sh"
    pkill -TERM -x VelmoraUpdater
    rm "$FAKE_STATE/hold"
    until_true "[ ! -e '$TEMP/velmora_apply_update.sh' ]"

    installed "$1" first
    [ "$(cat "$STATUS_FILE")" = ok ]
    [ "$(grep -c '=== macOS update' "$TEMP/velmora_update.log")" = 1 ]
    [ "$(calls mv | grep -cxF "$DST $DST.old")" = 1 ]
    ! grep -i 'syntax error\|unexpected' "$SB/first.out" "$SB/second.out" "$TEMP/velmora_update.log"
    [ -z "$(ls -d "$TEMP/VelmoraUpdate.zip" "$TEMP/VelmoraExtract/Velmora.app" "$DST.new" "$DST.old" 2>/dev/null)" ]
    until_true "! pgrep -f 'velmora_apply_update|VelmoraUpdater' > /dev/null"
}

@test "a second run leaves a waiting swap script alone (longer version text second)" {
    overlap 2.0.0 2.10.100
}

@test "a second run leaves a waiting swap script alone (shorter version text second)" {
    overlap 2.10.100 2.0.0
}

@test "a second updater quits at once while the first still runs" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    service switch throttle on
    updater > "$SB/first.out" 2>&1 &
    until_true "grep -qF '$QUERY' '$BLACKBOX_SERVICE/access.log'"
    run_updater --force
    [ "$(took)" -lt 5 ]
    [ "$(grep -cF "$QUERY" "$BLACKBOX_SERVICE/access.log")" = 1 ]
    pkill -TERM -x VelmoraUpdater
    until_true "! pgrep -x VelmoraUpdater > /dev/null"
}

@test "shell start-up code in the environment never runs inside the swap" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    # The fake tools are bash scripts too: only the swap script may not run it.
    echo "[ \"\${0##*/}\" != velmora_apply_update.sh ] || touch '$SB/bash_env_ran'" > "$SB/startup.sh"
    (
        # shellcheck disable=SC2317 # what a hijacked bash would call
        mv() { echo "hijacked mv" >&2; return 1; }
        export -f mv
        export BASH_ENV=$SB/startup.sh ENV=$SB/startup.sh CDPATH=/ GLOBIGNORE='*'
        run_updater --auto
    )
    updated 2.0.0 new
    [ ! -e "$SB/bash_env_ran" ]
}
