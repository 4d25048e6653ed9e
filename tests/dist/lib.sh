# tests/dist/lib.sh: what the shell tests of tests/dist share. Source it.

failures=0

# check <what> <expected> <actual>
check() {
    if [[ $2 == "$3" ]]; then
        echo "ok: $1"
    else
        echo "FAIL: $1"
        echo "  expected: $2"
        echo "  actual:   $3"
        failures=$((failures + 1))
    fi
}

# check_contains <what> <text> <part>
check_contains() {
    if [[ $2 == *"$3"* ]]; then
        echo "ok: $1"
    else
        echo "FAIL: $1: no '$3' in:"
        printf '%s\n' "$2" | head -20 | sed 's/^/  | /'
        failures=$((failures + 1))
    fi
}

finish() {
    if ((failures)); then
        echo "$failures check(s) failed"
        exit 1
    fi
    echo "all passed"
    exit 0
}

# table_commands <source folder>: the commands people can type, one a line, sorted: the
# names of the command table in catalogue/commands.cpp without `hello`, and `guide` and `mcp`.
table_commands() {
    local rows
    rows=$(sed -nE 's/^ *\{"([a-z]+)", (browser|hidden),.*/\1/p' "$1/catalogue/commands.cpp")
    if [[ $rows != *hello* ]]; then
        echo "can't read the command table of $1/catalogue/commands.cpp" >&2
        exit 1
    fi
    { printf '%s\n' "$rows" | grep -vx hello; echo guide; echo mcp; } | sort
}

# usage_text <nurel>: the usage text, as `nurel guide` prints it after the guide.
usage_text() {
    "$1" guide | sed -n '/^Usage: nurel /,$p'
}

# usage_options <usage text> <command>: the options that the command's usage line shows,
# sorted, one a line.
usage_options() {
    printf '%s\n' "$1" | grep -E "^  ([a-z]+ <tab> \| )?$2( |\$)" |
        grep -oE -- '--[a-z][a-z-]*' | sort -u
}

# words: its arguments sorted, on one line.
words() {
    printf '%s\n' "$@" | sed '/^$/d' | sort | tr '\n' ' ' | sed 's/ $//'
}
