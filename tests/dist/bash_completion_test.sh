#!/bin/bash
# tests/dist/bash_completion_test.sh: the bash completion, driven as bash drives it: COMP_WORDS
# and COMP_CWORD set for a command line, then the completion function called.
#
#   bash_completion_test.sh <nurel.bash> <nurel> <source folder> [bash-completion script]
#
# With bash-completion's script as the fourth argument, it is loaded first, and file names come
# from its helper instead of compgen.
set -u
script=$1 nurel=$2 source=$3 helpers=${4:-}
. "$(dirname "$0")/lib.sh"

if [[ -n $helpers ]]; then
    # shellcheck disable=SC1090
    . "$helpers" || exit 1
    declare -F _filedir >/dev/null || { echo "no _filedir in $helpers"; exit 1; }
fi
# shellcheck disable=SC1090
. "$script"
check "registered for nurel" "complete -F _nurel nurel" "$(complete -p nurel)"

# offered <word>...: what completing the last word of "nurel <word>..." offers, sorted.
offered() {
    COMP_WORDS=(nurel "$@")
    COMP_CWORD=$#
    COMP_LINE="nurel $*"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    _nurel nurel "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    words "${COMPREPLY[@]}"
}

usage=$(usage_text "$nurel")
commands=$(table_commands "$source")

check "nurel sn<TAB>" "snapshot" "$(offered sn)"
check "nurel <TAB>: the commands of the table, guide and mcp" "$(words $commands)" "$(offered '')"
check "nurel h<TAB>: hello is not offered" "hover" "$(offered h)"
check "nurel --<TAB>: no option before the command" "" "$(offered --)"
check "nurel snapshot t1 --<TAB>" "--diff --file --intent --interactive --viewport" \
    "$(offered snapshot t1 --)"
check "nurel snapshot t1 <TAB>: options once the tab is there" \
    "--diff --file --intent --interactive --viewport" "$(offered snapshot t1 '')"
check "nurel emulate t1 --<TAB>" "--dark --intent --light --print --screen --size --system" \
    "$(offered emulate t1 --)"
check "nurel wait t1 --t<TAB>" "--text --timeout" "$(offered wait t1 --t)"
check "nurel guide --<TAB>: guide takes no options" "" "$(offered guide --)"
check "nurel mcp --<TAB>: mcp takes no options" "" "$(offered mcp --)"
check "nurel open <TAB>: the address is not guessed" "" "$(offered open '')"
check "nurel dialog t1 <TAB>" "accept dismiss" "$(offered dialog t1 '')"
check "nurel dialog t1 d<TAB>" "dismiss" "$(offered dialog t1 d)"
check "nurel click t1 e5 --intent <TAB>: the intent is free text" "" \
    "$(offered click t1 e5 --intent '')"
check "nurel wait t1 --text --<TAB>: a valued option's value is taken as it is" "" \
    "$(offered wait t1 --text --)"

# Every command offers the options of its usage line, and every command that talks to the
# browser --intent as well.
for command in $commands; do
    expected=$(usage_options "$usage" "$command")
    [[ $command == guide || $command == mcp ]] || expected+=$'\n--intent'
    check "nurel $command t1 --<TAB>" "$(words $expected)" "$(offered "$command" t1 --)"
done

# File names after --file and for upload's files, from a folder made for the test.
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder" || exit 1
mkdir pictures
touch page.png plan.txt notes.txt
check "nurel snapshot t1 --file p<TAB>" "page.png pictures plan.txt" \
    "$(offered snapshot t1 --file p)"
check "nurel pdf t1 --file <TAB>" "notes.txt page.png pictures plan.txt" \
    "$(offered pdf t1 --file '')"
check "nurel screenshot --file p<TAB> (before the tab)" "page.png pictures plan.txt" \
    "$(offered screenshot --file p)"
check "nurel snapshot --intent --file p<TAB>: --file is the intent, p the tab" "" \
    "$(offered snapshot --intent --file p)"
check "nurel upload t1 e2 p<TAB>" "page.png pictures plan.txt" "$(offered upload t1 e2 p)"
check "nurel upload t1 e2 page.png n<TAB>" "notes.txt" "$(offered upload t1 e2 page.png n)"
check "nurel upload t1 --intent why e2 n<TAB>" "notes.txt" "$(offered upload t1 --intent why e2 n)"
check "nurel upload t1 p<TAB>: the ref is not a file" "" "$(offered upload t1 p)"
check "nurel upload t1 e2 --<TAB>" "--intent" "$(offered upload t1 e2 --)"
check "nurel text t1 p<TAB>: no file names where none belong" "" "$(offered text t1 p)"

finish
