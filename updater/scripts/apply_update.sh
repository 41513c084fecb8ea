LOG="${TMPDIR:-/tmp}/velmora_update.log"
STATUS="${STATUS:-${TMPDIR:-/tmp}/velmora_update.status}"
CANONICAL_APP="${CANONICAL_APP:-/Applications/Velmora.app}"
SELF="$0"

log() { echo "[$(date '+%Y-%m-%d %H:%M:%S')] $*" 2>/dev/null >> "$LOG"; }
cleanup() { rm -rf "$NEW_APP" "$SRC_ROOT" 2>/dev/null; rm -f "$SELF" 2>/dev/null; }
fail() { log "$@"; echo fail > "$STATUS"; cleanup; exit 1; }
app_running() { pgrep -x Velmora >/dev/null 2>&1 || pgrep -x QVelmoraApp >/dev/null 2>&1; }
idle_sec() {
  local s
  s="$(ioreg -c IOHIDSystem 2>/dev/null | awk '/HIDIdleTime/ { printf "%.0f", $NF / 1000000000; exit }')"
  case "$s" in
    ''|*[!0-9]*) echo 0 ;;
    *) echo "$s" ;;
  esac
}

case "$DST_APP" in
  */AppTranslocation/*)
    log "dst is Gatekeeper translocation — installing to $CANONICAL_APP"
    DST_APP="$CANONICAL_APP"
    ;;
esac

DST_PARENT="$(dirname "$DST_APP")"
NEW_APP="${DST_APP}.new"
OLD_APP="${DST_APP}.old"

log "=== macOS update ${EXPECT_VER}: dst=$DST_APP legacy=${LEGACY_APP:-none} auto=$AUTO ==="

if [ "$AUTO" = "1" ]; then
  for _ in $(seq 1 30); do
    pgrep -x "$UPDATER_NAME" >/dev/null 2>&1 || break
    sleep 1
  done
fi

# 1) Stage while the app is still up — no downtime for the slow copy.
mkdir -p "$DST_PARENT" || fail "mkdir parent failed ($DST_PARENT)"
rm -rf "$NEW_APP" "$OLD_APP"
{
  if command -v ditto >/dev/null 2>&1; then
    ditto "$SRC_APP" "$NEW_APP"
  else
    cp -R "$SRC_APP" "$NEW_APP"
  fi && [ -x "$NEW_APP/Contents/MacOS/Velmora" ]
} || fail "stage copy failed or no executable in new bundle — live app untouched"

if [ -n "$EXPECT_VER" ]; then
  GOT_VER="$(/usr/libexec/PlistBuddy -c 'Print :CFBundleShortVersionString' "$NEW_APP/Contents/Info.plist" 2>/dev/null)"
  if [ -n "$GOT_VER" ] && [ "$GOT_VER" != "$EXPECT_VER" ]; then
    fail "version mismatch: expected $EXPECT_VER, package holds $GOT_VER — abort"
  fi
fi

# An Intel Mac that installs an arm64 bundle (or the reverse) is left with an
# app that cannot launch and no old bundle to fall back to, because the swap
# has already happened. So read the slices from the staged executable and
# refuse a mismatch before anything destructive runs. Detection failing is
# not a mismatch: if neither lipo nor file is usable, the update goes through
# rather than blocking every user on a missing tool.
if [ -n "$EXPECT_ARCH" ]; then
  GOT_ARCHS="$(lipo -archs "$NEW_APP/Contents/MacOS/Velmora" 2>/dev/null)"
  [ -n "$GOT_ARCHS" ] || GOT_ARCHS="$(file -b "$NEW_APP/Contents/MacOS/Velmora" 2>/dev/null)"
  ok_arch=0
  if [ -z "$GOT_ARCHS" ]; then
    log "architecture undetectable - continuing"
    ok_arch=1
  elif [[ "$GOT_ARCHS" == *"$EXPECT_ARCH"* ]]; then
    ok_arch=1
  fi
  if [[ "$EXPECT_ARCH" == *arm* ]] && [[ "$GOT_ARCHS" == *x86_64* || "$GOT_ARCHS" == *i386* ]]; then
    ok_arch=1
  fi
  [ "$ok_arch" = "1" ] || fail "architecture mismatch: need $EXPECT_ARCH, package is $GOT_ARCHS - abort"
fi

if app_running; then WAS_RUNNING=1; else WAS_RUNNING=0; fi
if [ "$WAS_RUNNING" = "1" ] || [ "$AUTO" != "1" ]; then RELAUNCH=1; else RELAUNCH=0; fi

# 2) Never yank the app out from under someone who is using it.
if [ "$AUTO" = "1" ] && [ "$WAS_RUNNING" = "1" ]; then
  waited=0
  while [ "$waited" -lt "$MAX_WAIT" ]; do
    [ "$(idle_sec)" -ge "$MIN_IDLE" ] && break
    sleep 30
    waited=$((waited + 30))
  done
  if [ "$(idle_sec)" -lt "$MIN_IDLE" ]; then
    log "user active for ${MAX_WAIT}s — deferring to the next check"
    echo defer > "$STATUS"
    cleanup
    exit 0
  fi
fi

# Polite quit first; SIGTERM only as a fallback; never SIGKILL.
if app_running; then
  osascript -e "tell application id \"@VELMORA_BUNDLE_ID@\" to quit" >/dev/null 2>&1
  osascript -e 'tell application "Velmora" to quit' >/dev/null 2>&1
  for _ in $(seq 1 20); do
    app_running || break
    sleep 1
  done
  if app_running; then
    pkill -x Velmora 2>/dev/null
    pkill -x QVelmoraApp 2>/dev/null
    killall -TERM Velmora QVelmoraApp 2>/dev/null
    for _ in $(seq 1 15); do
      app_running || break
      sleep 1
    done
  fi
  app_running && fail "app would not quit — abort, live app untouched"
fi

# 3) Swap.
if [ -d "$DST_APP" ]; then
  if ! mv "$DST_APP" "$OLD_APP"; then
    [ "$RELAUNCH" = "1" ] && open "$DST_APP" >/dev/null 2>&1
    fail "mv live->old failed"
  fi
fi
if ! mv "$NEW_APP" "$DST_APP"; then
  log "mv new->live failed — restoring old"
  [ -d "$OLD_APP" ] && mv "$OLD_APP" "$DST_APP"
  [ "$RELAUNCH" = "1" ] && [ -d "$DST_APP" ] && open "$DST_APP" >/dev/null 2>&1
  fail "mv new->live failed"
fi

xattr -dr com.apple.quarantine "$DST_APP" 2>/dev/null

# 4) A bundle that will not launch is worse than the old one.
if [ "$RELAUNCH" = "1" ] && ! open "$DST_APP" >/dev/null 2>&1; then
  log "open failed — rolling back"
  rm -rf "$DST_APP"
  if [ -d "$OLD_APP" ]; then
    mv "$OLD_APP" "$DST_APP"
    open "$DST_APP" >/dev/null 2>&1
  fi
  fail "open failed — rolled back"
fi

if [ -n "$LEGACY_APP" ] && [ "$LEGACY_APP" != "$DST_APP" ] && [ -d "$LEGACY_APP" ]; then
  rm -rf "$LEGACY_APP" && log "removed version-stamped bundle $LEGACY_APP"
fi

log "swap ok -> $DST_APP ($EXPECT_VER)"
rm -rf "$OLD_APP" 2>/dev/null
echo ok > "$STATUS"
cleanup
exit 0
