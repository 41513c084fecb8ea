# Sourced by the fake macOS tools. A scenario's world lives under FAKE_STATE:
# "clock" holds virtual seconds that only the fake sleep advances, and each
# file in "proc/" is a running process, holding "quit=osascript", "quit=term"
# or "quit=never" and optionally "exit_at=SECONDS" on the virtual clock.
record() { echo "$(date '+%s.%N') $0 $*" >> "$FAKE_LOG"; }
clock() { cat "$FAKE_STATE/clock" 2>/dev/null || echo 0; }

alive() {
    local file="$FAKE_STATE/proc/$1" exit_at
    [ -f "$file" ] || return 1
    exit_at=$(sed -n 's/^exit_at=//p' "$file")
    [ -z "$exit_at" ] || [ "$(clock)" -lt "$exit_at" ]
}

# deliver NAME SIGNAL: what a signal does to a simulated process.
deliver() {
    alive "$1" || return 1
    case "$2" in
        KILL|9) rm -f "$FAKE_STATE/proc/$1" ;;
        TERM|15) grep -qx 'quit=term' "$FAKE_STATE/proc/$1" && rm -f "$FAKE_STATE/proc/$1" ;;
    esac
    return 0
}

bundle_version() {
    tr -d '\n' < "$1/Contents/Info.plist" 2>/dev/null |
        sed -n 's:.*<key>CFBundleShortVersionString</key>[[:space:]]*<string>\([^<]*\)</string>.*:\1:p'
}
