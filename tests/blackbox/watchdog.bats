# A release service that accepts the query and never answers: only the
# updater's 60 s check watchdog ends the run.

load blackbox_helpers

@test "a query that is never answered ends after the check watchdog with status 0" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    service switch hang-query on
    run_updater
    [ "$(took)" -ge 59 ]
    [ "$(took)" -lt 120 ]
    not_requested /packages/
    untouched
}
