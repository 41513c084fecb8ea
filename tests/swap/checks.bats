# Refusals before anything installed is touched: staging, version, architecture.

load swap_helpers

@test "a parent folder that cannot be made fails with the live app untouched" {
    echo "not a folder" > "$SB/blocked"
    H_DST="$SB/blocked/Apps/Velmora.app"
    FINAL_DST="$H_DST"
    OLD_VERSION=none
    run_swap
    assert_outcome fail none
    assert_logged "mkdir parent failed ($SB/blocked/Apps)"
}

@test "a failed copy fails with the live app untouched" {
    export FAKE_DITTO_FAIL=1
    app_process Velmora osascript
    run_swap
    assert_outcome fail 1.0.0
    assert_logged "stage copy failed or no executable in new bundle ${DASH} live app untouched"
    [ -z "$(calls osascript)" ]
}

@test "a package without an executable app is refused" {
    chmod 644 "$SRC/Contents/MacOS/Velmora"
    run_swap
    assert_outcome fail 1.0.0
    assert_logged "stage copy failed or no executable in new bundle ${DASH} live app untouched"
}

@test "a package of another version is refused" {
    H_VER=2.0.1
    run_swap
    assert_outcome fail 1.0.0
    assert_logged "version mismatch: expected 2.0.1, package holds 2.0.0 ${DASH} abort"
    [ -z "$(calls open)" ]
}

@test "a slow version read is still waited for and checked" {
    H_VER=3.0.0
    export FAKE_PLISTBUDDY_HANG=1
    run_swap
    assert_outcome fail 1.0.0
    assert_logged "version mismatch: expected 3.0.0, package holds 2.0.0 ${DASH} abort"
}

@test "a version that cannot be read does not block the update" {
    make_bundle "$SRC" ""
    NEW_VERSION=""
    run_swap
    assert_outcome ok ""
    [ "$(calls PlistBuddy)" = "-c Print :CFBundleShortVersionString $DST.new/Contents/Info.plist" ]
}

@test "a failing PlistBuddy does not block the update" {
    export FAKE_PLISTBUDDY_FAIL=1
    run_swap
    assert_outcome ok 2.0.0
}

@test "an empty expected version skips the version check" {
    H_VER=""
    make_bundle "$SRC" 9.9.9
    NEW_VERSION=9.9.9
    run_swap
    assert_outcome ok 9.9.9
    [ -z "$(calls PlistBuddy)" ]
}

# arch_case MACHINE LIPO-OUTPUT FILE-OUTPUT EXPECTED-STATUS
arch_case() {
    H_ARCH=$1
    export FAKE_LIPO_ARCHS=$2 FAKE_FILE_DESC=$3
    run_swap
    if [ "$4" = ok ]; then
        assert_outcome ok 2.0.0
    else
        assert_outcome fail 1.0.0
        assert_logged "architecture mismatch: need $1, package is ${2:-$3} - abort"
    fi
}

@test "Apple silicon accepts an Intel package, which it runs translated" {
    arch_case arm64 x86_64 "" ok
}

@test "Apple silicon accepts an arm64 package" {
    arch_case arm64 arm64 "" ok
    [ -z "$(calls file)" ]
}

@test "Apple silicon accepts a universal package" {
    arch_case arm64 "x86_64 arm64" "" ok
}

@test "Apple silicon accepts even a 32-bit Intel package" {
    arch_case arm64 i386 "" ok
}

@test "an Intel machine refuses an arm64-only package" {
    arch_case x86_64 arm64 "" fail
}

@test "an Intel machine accepts a universal package" {
    arch_case x86_64 "x86_64 arm64" "" ok
}

@test "without lipo the description from file decides" {
    arch_case x86_64 "" "Mach-O 64-bit executable arm64" fail
    [ "$(calls file)" = "-b $DST.new/Contents/MacOS/Velmora" ]
}

@test "a file description naming the machine's architecture passes" {
    arch_case x86_64 "" "Mach-O universal binary with 2 architectures: [x86_64:Mach-O 64-bit executable x86_64] [arm64]" ok
}

@test "an architecture that cannot be detected does not block the update" {
    arch_case x86_64 "" "" ok
    assert_logged "architecture undetectable - continuing"
}

@test "an empty machine architecture skips the check" {
    arch_case "" arm64 "" ok
    [ -z "$(calls lipo)" ]
}
