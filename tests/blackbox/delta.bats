# Deltas, with an updater that has a publisher key built in: a delta from
# the installed 1.0.0 is all an update fetches; whatever keeps a delta from
# use sends the run on to the whole package, the reason on standard error
# and nothing shown. Every row ends with 2.0.0 installed exactly as its
# package holds it.

load blackbox_helpers

# delta_run CHANGE [UPDATER-ARGS...]: 1.0.0 installed as its package holds
# it, 2.0.0 published with a delta from it, the row's CHANGE (a command),
# then an automatic run.
delta_run() {
    sample_app --version 1.0.0 --marker old --out "$SB/old" --zip "$SB/Velmora-1.0.0.zip"
    (cd "$APPS" && unzip -q "$SB/Velmora-1.0.0.zip")
    sample_app --version 2.0.0 --marker new --out "$SB/release" --zip "$SB/release/Velmora-2.0.0.zip"
    "$BLACKBOX_ROOT/scripts/publish-release" --package "$SB/release/Velmora-2.0.0.zip" --version 2.0.0 \
        --arch arm64,x86_64,universal --out "$BLACKBOX_SERVICE/www" --sign "$VELMORA_PUBLISHER_KEY" \
        --base-url "https://127.0.0.1:$BLACKBOX_PORT/packages" --delta-from "$SB/Velmora-1.0.0.zip" > /dev/null
    PACKAGE=/packages/Velmora-2.0.0.zip DELTA=/packages/Velmora-2.0.0.zip.from-1.0.0.delta
    "$1"
    run_updater --auto "${@:2}"
    (mkdir "$SB/expected" && cd "$SB/expected" && unzip -q "$SB/release/Velmora-2.0.0.zip")
    [ "$(tree_of "$DST")" = "$(tree_of "$SB/expected/Velmora.app")" ] || { diff <(tree_of "$DST") <(tree_of "$SB/expected/Velmora.app"); return 1; }
    [ "$(cat "$STATUS_FILE")" = ok ]
}

tree_of() {  # every entry: path, type, mode, link target, and a file's digest
    (cd "$1" && find . -printf '%P %y %m %l\n' | sort && find . -type f -exec sha256sum {} + | sort)
}

fell_back() {  # REASON: the package was fetched after the delta path failed for REASON
    requested "GET \"$PACKAGE\" 200 "
    grep -qF "[Downloader] Delta not used, downloading the whole package: $1" "$SB/updater.out" ||
        { cat "$SB/updater.out"; return 1; }
}

www=$BLACKBOX_SERVICE/www
no_delta() { rm "$www"/*.delta; }
no_delta_signature() { rm "$www"/*.delta.minisig; }
package_signature_for_delta() { cp "$www/Velmora-2.0.0.zip.minisig" "$www/Velmora-2.0.0.zip.from-1.0.0.delta.minisig"; }
bundle_edited() { echo edited >> "$DST/Contents/MacOS/Velmora"; }

@test "a delta from the installed version is all the update fetches" {
    delta_run :
    requested "GET \"$DELTA\" 200 "
    requested "GET \"$DELTA.minisig\" 200 "
    not_requested "GET \"$PACKAGE\""
    [ ! -s "$SB/updater.out" ] || { cat "$SB/updater.out"; return 1; }
}
@test "no delta published: the package" { delta_run no_delta; fell_back "Error transferring"; }
@test "a delta without its signature: the package" { delta_run no_delta_signature; fell_back "its signature was refused"; }
@test "the package's signature offered for the delta: the package" {
    delta_run package_signature_for_delta
    fell_back "its signature was refused"
}
@test "an installed bundle the user changed: the package" { delta_run bundle_edited; fell_back ""; }
@test "a forced run takes the package without asking for a delta" {
    delta_run : --force
    requested "GET \"$PACKAGE\" 200 "
    not_requested "GET \"$DELTA"
}
