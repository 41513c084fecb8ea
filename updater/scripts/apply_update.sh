LOG="${TMPDIR:-/tmp}/velmora_update.log"
exit 0
