#!/usr/bin/env bats
# Releases the updater must not install, and a service that refuses the
# query. The installed bundle is left exactly as it was and the process still
# exits with 0. Background runs (--auto) are used because they end by
# themselves after a failure; an interactive window would wait for the user.

load blackbox_helpers

setup() { setup_sandbox; }
teardown() { teardown_sandbox; }

assert_untouched() {
    assert_installed 1.0.0 old
    assert_no_status
    [ ! -e "$SWAP_LOG" ]
    [ ! -e "$TEMP/velmora_apply_update.sh" ]
    [ ! -e "$TEMP/VelmoraUpdate.zip" ]
    [ ! -e "$DST.new" ]
}

@test "a package whose digest differs is refused before extraction" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    service switch corrupt-package on

    run_updater --auto
    assert_exit_zero

    assert_package_request 200
    assert_untouched
    [ ! -e "$TEMP/VelmoraExtract" ]
    refute_fake_called "ditto -x -k"
}

@test "a package redirected from HTTPS to plain HTTP is not followed" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    service switch redirect-http on

    run_updater --auto
    assert_exit_zero

    assert_package_request 302
    refute_request "http GET"
    assert_untouched
}

@test "a package without an application bundle installs nothing" {
    install_app 1.0.0 old
    mkdir -p "$BATS_TEST_TMPDIR/nobundle/Docs"
    echo "release notes only" > "$BATS_TEST_TMPDIR/nobundle/Docs/README.txt"
    (cd "$BATS_TEST_TMPDIR/nobundle" && zip -q -r "$BATS_TEST_TMPDIR/Velmora-2.0.0.zip" Docs)
    publish_zip "$BATS_TEST_TMPDIR/Velmora-2.0.0.zip" 2.0.0

    run_updater --auto
    assert_exit_zero

    assert_package_request 200
    assert_fake_called "ditto -x -k $TEMP/VelmoraUpdate.zip $TEMP/VelmoraExtract"
    assert_untouched
}

@test "a service that answers 401 ends the run at once without a download" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    service switch deny on

    run_updater
    assert_exit_zero
    [ "$run_seconds" -lt 30 ]

    assert_request "https $QUERY 401 apikey=match authorization=match "
    refute_request '/packages/'
    assert_untouched
}
