# Automatic runs wait for the updater to leave, then for the user to be idle
# for five minutes, napping 30 s at a time for at most six hours.

load swap_helpers

@test "the copy starts only after the updater has exited" {
    app VelmoraUpdater never 5
    run_swap AUTO=1
    outcome ok 2.0.0
    [ "$(naps 1)" -eq 5 ]
    [ "$(awk '$2 == "ditto" { print NR }' "$FAKE_LOG")" -gt "$(awk '$2 == "sleep" { n = NR } END { print n }' "$FAKE_LOG")" ]
}
@test "an updater that does not exit is waited for thirty seconds" { app VelmoraUpdater never; run_swap AUTO=1; outcome ok 2.0.0; [ "$(naps 1)" -eq 30 ]; }

# idle IOREG-ANSWER WORD NAPS: an automatic run while the app is running.
idle() {
    app Velmora osascript
    run_swap AUTO=1 "$1"
    [ "$(naps 30)" -eq "$3" ]
    if [ "$2" = ok ]; then
        outcome ok 2.0.0
        launched 2.0.0
    else
        outcome defer 1.0.0
        logged "user active for 21600s — deferring to the next check"
        [ "$(running Velmora)" = osascript ]
    fi
}
@test "an idle user gets the update at once" { idle FAKE_IOREG_IDLE_NS=300000000001 ok 0; }
@test "idle time is rounded to the nearest second" { idle FAKE_IOREG_IDLE_NS=299600000000 ok 0; }
@test "the update waits until the user has been idle for five minutes" { idle FAKE_IOREG_ACTIVE_UNTIL=3600 ok 130; }
@test "a user who turns idle just as the six hours end gets the update" { idle FAKE_IOREG_ACTIVE_UNTIL=21300 ok 720; }
@test "a user active for six hours keeps the app and the update is deferred" { idle FAKE_IOREG_IDLE_NS=299400000000 defer 720; }
@test "without HID data the user counts as active" { idle FAKE_IOREG_IDLE_NS= defer 720; }
