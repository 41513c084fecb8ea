# Sourced by the fake macOS tools of the black-box tests and the demo.
# FAKE_LOG receives one line per call: the time, the tool's path and its
# arguments. FAKE_STATE (optional) is the scenario's folder: "running/NAME.pid"
# names a process that plays the running application, "launched" lists the
# bundles that "open" was asked to start.
record() {
    [ -z "${FAKE_LOG:-}" ] || echo "$(date '+%s.%N') $0 $*" >> "$FAKE_LOG"
}

bundle_version() {
    tr -d '\n' < "$1/Contents/Info.plist" 2>/dev/null |
        sed -n 's:.*<key>CFBundleShortVersionString</key>[[:space:]]*<string>\([^<]*\)</string>.*:\1:p'
}

# Sends SIGTERM to the registered stand-in of application NAME, by pid only.
stop_registered() {
    local file="${FAKE_STATE:-/nonexistent}/running/$1.pid" pid
    [ -f "$file" ] || return 1
    pid=$(tr -dc '0-9' < "$file")
    rm -f "$file"
    [ -n "$pid" ] && kill -TERM "$pid" 2>/dev/null
}
