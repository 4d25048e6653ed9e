#!/bin/bash
# tests/dist/manual_test.sh: the manual page renders with man without a warning, has the
# sections a reader looks for, names every command of the table and shows every entry of the
# usage text as the text gives it.
#
#   manual_test.sh <nurel.1> <nurel> <source folder>
set -u
page=$1 nurel=$2 source=$3
. "$(dirname "$0")/lib.sh"

for locale in C.UTF-8 C; do
    for width in 80 60; do
        warnings=$(LC_ALL=$locale MANWIDTH=$width man --warnings -l "$page" 2>&1 >/dev/null)
        check "man --warnings, $locale, $width columns: no warnings" "" "$warnings"
    done
done

text=$(LC_ALL=C.UTF-8 MANWIDTH=80 MAN_KEEP_FORMATTING= man -l "$page" 2>/dev/null | col -bx)
check "first line" "NUREL(1)" "$(printf '%s\n' "$text" | head -1 | awk '{print $1}')"
for section in NAME SYNOPSIS DESCRIPTION OPTIONS COMMANDS "BATCH ACTIONS" OUTPUT "MCP MODE" ENVIRONMENT FILES \
    "EXIT STATUS" EXAMPLES "SEE ALSO"; do
    check "section $section" "$section" "$(printf '%s\n' "$text" | grep -x "$section")"
done
check_contains "environment: NUREL_SOCKET" "$text" "       NUREL_SOCKET"
check_contains "files: the default socket" "$text" \
    "       ~/Library/Application Support/<data name>/agent.sock"
check_contains "files: the bundle's property list" "$text" "       <bundle>/Contents/Info.plist"
check_contains "files: the data name's key" "$text" "NurelDataName"
check_contains "MCP mode: the command a host runs" "$text" "claude mcp add nurel -- nurel mcp"
check_contains "exit status 1" "$text" $'\n       1      Anything else'

# Every command of the table, and only those, heads an entry of COMMANDS.
# An entry's tag is the synopsis, on a line of its own or followed by two spaces and the
# description; "back <tab> | forward <tab>" heads one entry for two commands.
commands=$(printf '%s\n' "$text" | sed -n '/^COMMANDS$/,/^BATCH ACTIONS$/p' |
    grep -E '^       [a-z]+( *$| <| \[| \||  )' | sed -E 's/^ +//; s/  .*$//' |
    awk -F ' [|] ' '{ for (i = 1; i <= NF; i++) { split($i, w, " "); print w[1] } }' | sort)
check "COMMANDS names the commands of the table, guide and mcp" \
    "$(words $(table_commands "$source"))" "$(words $commands)"

# BATCH ACTIONS gives each action a batch can do with its fields, as the tool schemas have them.
check_contains "batch actions: click and its fields" "$text" \
    $'\n       click  ref, x, y, double, button, intent\n'
check_contains "batch actions: the last one" "$text" $'\n       emulate\n              color_scheme, media, width, height\n'

# Each entry of the usage text, synopsis and description, reads the same in the page (white
# space aside: the page fills and wraps lines; wide enough, it breaks no word).
squeeze() { tr -s ' \t\n' '   '; }
page_words=$(LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$page" 2>/dev/null | col -bx | squeeze)
entries=0
while IFS= read -r entry; do
    entries=$((entries + 1))
    [[ $page_words == *"$entry"* ]] || check "the page shows: $entry" "shown" "missing"
done < <(usage_text "$nurel" | tail -n +2 |
    awk '/^  [^ ]/ { if (entry != "") print entry; entry = $0; next } { entry = entry " " $0 }
         END { print entry }' | sed -E 's/ +/ /g; s/^ //')
check "entries of the usage text found" "37" "$entries"

finish
