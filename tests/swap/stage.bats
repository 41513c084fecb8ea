# Before anything installed is touched: the staged copy, its version and its
# architecture. A refusal leaves the running 1.0.0 as it was.

load swap_helpers

refused() {  # LOG-MESSAGE [NAME=VALUE...]
    app Velmora osascript
    run_swap "${@:2}"
    outcome fail 1.0.0
    logged "$1"
    [ "$(running Velmora)" = osascript ]
}

@test "a parent folder that cannot be made is refused" {
    echo "a file" > "$SB/blocked"
    refused "mkdir parent failed ($SB/blocked/Apps)" DST_APP="$SB/blocked/Apps/Velmora.app"
}
@test "a copy that reports an error is refused" {
    refused "stage copy failed or no executable in new bundle — live app untouched" FAKE_DITTO_FAIL=1
}
@test "a package without an executable app is refused" {
    chmod 644 "$SRC_APP/Contents/MacOS/Velmora"
    refused "stage copy failed or no executable in new bundle — live app untouched"
}
@test "without ditto the bundle is staged with cp -R" { rm "$FAKE_STATE/bin/ditto"; run_swap; outcome ok 2.0.0; }

@test "a package of another version is refused" { refused "version mismatch: expected 2.0.1, package holds 2.0.0 — abort" EXPECT_VER=2.0.1; }
@test "a staged copy whose version cannot be read is installed" {
    bundle "$SRC_APP" ""
    run_swap
    outcome ok ""
    [ "$(calls PlistBuddy)" = "-c Print :CFBundleShortVersionString $DST.new/Contents/Info.plist" ]
}
@test "an empty expected version skips the check" { bundle "$SRC_APP" 9.9.9; run_swap EXPECT_VER=; outcome ok 9.9.9; }

# arch MACHINE LIPO FILE VERDICT: the package's executable as "lipo -archs"
# and "file -b" describe it.
arch() {
    set -- "$@" "EXPECT_ARCH=$1" "FAKE_LIPO_ARCHS=$2" "FAKE_FILE_DESC=$3"
    if [ "$4" = refused ]; then
        refused "architecture mismatch: need $1, package is ${2:-$3} - abort" "${@:5}"
    else
        run_swap "${@:5}"
        outcome ok 2.0.0
    fi
}
@test "Apple silicon installs an Intel package, which it runs translated" { arch arm64 x86_64 "" installs; }
@test "Apple silicon installs a 32-bit Intel package as well" { arch arm64 i386 "" installs; }
@test "Apple silicon installs an arm64 package" { arch arm64 arm64 "" installs; }
@test "an Intel Mac refuses an arm64 package" { arch x86_64 arm64 "" refused; }
@test "an Intel Mac installs a universal package" { arch x86_64 "x86_64 arm64" "" installs; }
@test "without lipo the description from file is refused" { arch x86_64 "" "Mach-O 64-bit executable arm64" refused; }
@test "without lipo the description from file is accepted" { arch x86_64 "" "Mach-O universal binary [x86_64] [arm64]" installs; }
@test "an architecture nobody can detect does not block the update" {
    arch x86_64 "" "" installs
    logged "architecture undetectable - continuing"
}
@test "an empty machine architecture skips the check" { arch "" arm64 "" installs; [ -z "$(calls lipo)" ]; }
