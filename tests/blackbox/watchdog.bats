#!/usr/bin/env bats
# A release service that accepts the query and never answers: only the
# updater's 60 s check watchdog ends the run.

load blackbox_helpers

setup() { setup_sandbox; }
teardown() { teardown_sandbox; }

@test "a query that is never answered ends after the check watchdog with status 0" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    service switch hang-query on

    run_updater
    assert_exit_zero
    [ "$run_seconds" -ge 59 ]
    [ "$run_seconds" -lt 120 ]

    refute_request '/packages/'
    assert_installed 1.0.0 old
    assert_no_status
    [ ! -e "$TEMP/VelmoraUpdate.zip" ]
}
