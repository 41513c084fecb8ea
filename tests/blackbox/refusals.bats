# Releases the updater must not install and a service that refuses the
# query: the installed bundle stays as it was, the process still exits 0.

load blackbox_helpers

refused() {  # SWITCH UPDATER-ARGS...: a run against the service so switched ("": as it is)
    install_app 1.0.0 old
    [ -n "${PACKAGE:-}" ] || publish_app 2.0.0 new
    [ -z "$1" ] || service switch "$1" on
    run_updater "${@:2}"
    untouched
}

@test "a package whose digest differs is refused before extraction" {
    refused corrupt-package --auto
    requested "https GET \"$PACKAGE\" 200 "
    [ ! -e "$TEMP/VelmoraExtract" ]
}

@test "a package redirected from HTTPS to plain HTTP is not followed" {
    refused redirect-http --auto
    requested "https GET \"$PACKAGE\" 302 "
    not_requested "http GET"
}

@test "a package without an application bundle installs nothing" {
    publish_app 2.0.0 new
    # The publisher refuses such a package (here: the SQL form of the record
    # alone); the file server may still serve one.
    zip -q -j - "$BLACKBOX_SERVICE/www/app_versions.sql" > "$BLACKBOX_SERVICE/www/Velmora-2.0.0.zip"
    sed -i "s/\"sha256_macos\([a-z0-9_]*\)\": \"[0-9a-f]*\"/\"sha256_macos\1\": \"$(sha256sum < "$BLACKBOX_SERVICE/www/Velmora-2.0.0.zip" | cut -c1-64)\"/" \
        "$BLACKBOX_SERVICE/www/app_versions.json"
    refused "" --auto
    [ "$(calls ditto)" = "-x -k $TEMP/VelmoraUpdate.zip $TEMP/VelmoraExtract" ]
}

@test "a service that answers 401 ends the run at once without a download" {
    refused deny
    [ "$(took)" -lt 30 ]
    requested "https $QUERY 401 apikey=match authorization=match "
    not_requested /packages/
}

@test "a standard user who cannot change the install folder downloads nothing" {
    install_app 1.0.0 old
    publish_app 2.0.0 new
    standard_user
    run_updater --auto
    requested "https $QUERY 200 "
    not_requested /packages/
    installed 1.0.0 old
    [ -z "$(find "$TEMP" -mindepth 1 ! -name velmora_updater.lock)" ]
}
