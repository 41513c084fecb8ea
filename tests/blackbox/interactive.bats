# Interactive runs: the window path that downloads, verifies, hands over and
# ends by itself once the update is installed, and the run that finds
# nothing to install.

load blackbox_helpers

@test "an interactive run replaces 1.0.0 by the published 2.0.0 and relaunches it" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    run_updater
    updated 2.0.0 new
    [ "$(calls xattr)" = "-dr com.apple.quarantine $DST" ]
    [ "$(cat "$FAKE_STATE/launched")" = 2.0.0 ]
}

@test "--force reinstalls the published release over the same version" {
    install_app 2.0.0 damaged
    publish_app 2.0.0 repaired
    run_updater --force
    updated 2.0.0 repaired
}

@test "an up-to-date installation ends at once without asking for a package" {
    install_app 2.0.0 current
    publish_app 2.0.0 published
    run_updater
    [ "$(took)" -lt 30 ]
    requested "https $QUERY 200 "
    not_requested /packages/
    quiet
    installed 2.0.0 current
    [ ! -e "$STATUS_FILE" ]
}
