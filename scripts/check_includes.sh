#!/bin/sh
# Checks that the server's folders depend one way: every #include "FOLDER/..." in the
# sources must name the including file's own folder or one that the folder table allows it
# to use, and the table itself may only point downwards (a folder names folders on the lines
# above it), so no cycle can form. The build runs this before it compiles the server.
#
#   scripts/check_includes.sh [SRC [TABLE]]
#
# SRC defaults to apps/app_web/src, TABLE to apps/app_web/folders.txt. Prints one line per
# fault and exits 1 when there is any.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
src=${1:-$root/apps/app_web/src}
table=${2:-$root/apps/app_web/folders.txt}

[ -d "$src" ] && [ -r "$table" ] || { echo "check_includes: no $src or $table" >&2; exit 2; }

# Lines "FILE:LINE:TEXT" of every quoted include, then the folders that exist, are fed to one
# awk program after the table.
{
    find "$src" -type f \( -name '*.h' -o -name '*.cpp' \) | LC_ALL=C sort |
        while IFS= read -r file; do
            grep -Hn '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$file" || true
        done
    for dir in "$src"/*/; do
        echo "folder:$(basename "$dir")"
    done
} | awk -v src="$src/" -v table="$table" '
function fail(text) { print "check_includes: " text; faults++ }
BEGIN {
    while ((getline line < table) > 0) {
        ++row
        sub(/#.*/, "", line)
        n = split(line, word, " ")
        if (n == 0)
            continue
        name = word[1]
        if (name in listed)
            fail(table ":" row ": " name " is listed twice")
        for (i = 2; i <= n; ++i) {
            if (!(word[i] in listed))
                fail(table ":" row ": " name " may only use folders listed above it, not " word[i])
            allowed[name, word[i]] = 1
            uses[name] = uses[name] " " word[i]
        }
        listed[name] = 1
    }
    close(table)
}
/^folder:/ {
    name = substr($0, 8)
    if (!(name in listed))
        fail(src name ": folder missing from " table)
    next
}
{
    # FILE:LINE:#include "TARGET"
    file = $0
    sub(/:[0-9]+:.*/, "", file)
    rest = substr($0, length(file) + 2)
    at = rest
    sub(/:.*/, "", at)
    target = rest
    sub(/^[^"]*"/, "", target)
    sub(/".*/, "", target)
    own = substr(file, length(src) + 1)
    sub(/\/.*/, "", own)
    if (index(target, "/") == 0)
        next
    used = target
    sub(/\/.*/, "", used)
    if (used == own)
        next
    if (!(used in listed))
        fail(own "/" substr(file, length(src) + length(own) + 2) ":" at ": includes " target ", which is in no folder of " table)
    else if (!((own, used) in allowed))
        fail(own "/" substr(file, length(src) + length(own) + 2) ":" at ": " own " may not include " target \
             " (" own " may use:" (own in uses ? uses[own] : " nothing") ")")
}
END { exit faults > 0 }
'
