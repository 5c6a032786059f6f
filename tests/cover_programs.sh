# Sourced inside a private mount namespace by tests/isolate.sh and scripts/demo.sh: puts the
# programs of folder $1 on top of every real program directory (merged-/usr links are
# skipped), so that a reboot or sync there runs the stand-in. fail() is the caller's.
cover_programs() {
    for d in /bin /sbin /usr/bin /usr/sbin; do
        [ -d "$d" ] && [ ! -L "$d" ] || continue
        mount -t overlay overlay -o "lowerdir=$1:$d" "$d" || fail "cannot put stand-ins over $d"
    done
}
