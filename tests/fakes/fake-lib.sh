# shellcheck shell=bash
# The world the fake macOS tools share, sourced by every fake and by the
# suites that set it up. FAKE_LOG gets one line per call, "SECONDS TOOL ARGS".
# FAKE_STATE is the scenario's folder:
#   bin/       the fakes, linked (with fake-lib.sh beside it): a scenario
#              removes a link for a Mac without that tool
#   clock      virtual seconds; only the fake sleep advances them
#   proc/NAME  a running process named NAME: how it ends ("osascript" when
#              asked to quit, "term" on SIGTERM, "never"), then optionally
#              the virtual second at which it exits by itself
#   launched   the version of every bundle that open started, one a line
# The fakes answer from FAKE_<TOOL>_<WHAT> variables, described in each.

record() { [ -z "${FAKE_LOG:-}" ] || echo "$EPOCHREALTIME ${0##*/} $*" >> "$FAKE_LOG"; }
clock() { cat "$FAKE_STATE/clock" 2>/dev/null || echo 0; }

# running NAME: prints how the process NAME ends; fails unless it runs.
running() {
    local how exit_at
    { read -r how exit_at < "$FAKE_STATE/proc/$1"; } 2>/dev/null || return 1
    [ -z "$exit_at" ] || [ "$(clock)" -lt "$exit_at" ] || return 1
    echo "$how"
}

# signal NAME SIGNAL: fails unless NAME runs; SIGKILL ends any process.
signal() {
    local how
    how=$(running "$1") || return 1
    case "$2" in
        KILL|9) rm -f "$FAKE_STATE/proc/$1" ;;
        TERM|15) [ "$how" != term ] || rm -f "$FAKE_STATE/proc/$1" ;;
    esac
    return 0
}

bundle_version() {
    tr -d '\n' < "$1/Contents/Info.plist" 2>/dev/null |
        sed -n 's:.*<key>CFBundleShortVersionString</key>[[:space:]]*<string>\([^<]*\)</string>.*:\1:p'
}

# fake_world DIR: a fresh, empty world; exports FAKE_STATE and FAKE_LOG.
fake_world() {
    local fakes
    fakes=$(cd "${BASH_SOURCE[0]%/*}" && pwd)
    export FAKE_STATE=$1 FAKE_LOG=$1/calls.log
    mkdir -p "$1/bin" "$1/proc"
    ln -s "$fakes/fake-lib.sh" "$1/"
    ln -s "$fakes"/bin/* "$1/bin/"
    echo 0 > "$1/clock"
    : > "$FAKE_LOG"
}

# calls TOOL: the arguments of every call of TOOL so far, one call a line.
calls() { awk -v tool="$1" '$2 == tool { sub(/^[^ ]* [^ ]* ?/, ""); print }' "$FAKE_LOG"; }

# fake_mounts [CA_PEM WORK_DIR]: overlays the fake PlistBuddy on /usr/libexec
# and, given a CA, makes it trusted in /etc/ssl/certs, its overlay folder made
# in WORK_DIR. Qt reads neither SSL_CERT_FILE nor SSL_CERT_DIR: its OpenSSL
# backend looks certificates up by subject hash in /etc/ssl/certs and
# otherwise reads ca-certificates.crt, so the overlay carries both. Mounts
# only in a namespace other than VELMORA_MOUNTS_LEFT, the one that the caller
# left with "unshare -m": the machine's own folders are never changed.
fake_mounts() {
    local fakes certs hash n=0
    if [ -z "${VELMORA_MOUNTS_LEFT:-}" ] || [ "$(readlink /proc/self/ns/mnt)" = "$VELMORA_MOUNTS_LEFT" ]; then
        echo "fake_mounts: refusing to mount outside a private mount namespace" >&2
        return 1
    fi
    fakes=$(cd "${BASH_SOURCE[0]%/*}" && pwd)
    mount -t overlay overlay -o "lowerdir=$fakes/libexec:/usr/libexec" /usr/libexec || return
    [ -n "${1:-}" ] || return 0
    certs=$2/trusted-certs
    rm -rf "$certs" && mkdir -p "$certs" && cp "$1" "$certs/velmora-test-ca.pem" || return
    hash=$(openssl x509 -noout -subject_hash -in "$1") || return
    while [ -e "/etc/ssl/certs/$hash.$n" ]; do n=$((n + 1)); done
    ln -s velmora-test-ca.pem "$certs/$hash.$n"
    cat /etc/ssl/certs/ca-certificates.crt "$1" > "$certs/ca-certificates.crt" 2>/dev/null || cp "$1" "$certs/ca-certificates.crt"
    mount -t overlay overlay -o "lowerdir=$certs:/etc/ssl/certs" /etc/ssl/certs
}
