#!/usr/bin/env fish
# tests/dist/fish_completion_test.fish: the fish completion, queried by fish itself: nurel.fish
# is autoloaded from a folder on fish_complete_path, and `complete -C` asks what a command
# line completes to.
#
#   fish --no-config fish_completion_test.fish <folder holding nurel.fish> <nurel> <source folder>
set -l folder (realpath $argv[1])
set -l nurel (realpath $argv[2])
set -l source (realpath $argv[3])
# fish loads a command's completions only for a command that it finds
set -gx PATH (dirname $nurel) $PATH
set -g fish_complete_path $folder $fish_complete_path
if not complete -C 'nurel ' | string match -q 'guide*'
    echo "FAIL: fish did not load nurel.fish from $folder"
    exit 1
end
set -g failures 0

# offered <command line>: the candidates for its last word (without descriptions), sorted.
function offered
    complete -C $argv[1] | string replace -r '\t.*' '' | sort | string join ' '
end

function check
    if test "$argv[2]" = "$argv[3]"
        echo "ok: $argv[1]"
    else
        echo "FAIL: $argv[1]"
        echo "  expected: $argv[2]"
        echo "  actual:   $argv[3]"
        set -g failures (math $failures + 1)
    end
end

# the commands people can type: the command table's but hello, and guide and mcp
set -l table (sed -nE 's/^ *\{"([a-z]+)", (browser|hidden),.*/\1/p' $source/catalogue/commands.cpp)
if not contains hello $table
    echo "can't read the command table"
    exit 1
end
set -l names (printf '%s\n' guide mcp (string match -v hello $table) | sort)

check "nurel sn<TAB>" snapshot (offered 'nurel sn')
check "nurel <TAB>: the commands of the table, guide and mcp" "$names" (offered 'nurel ')
check "nurel <TAB> describes the commands" \
    "snapshot	the page as roles and names, with refs to act on" \
    (complete -C 'nurel snap')
check "nurel snapshot t1 --<TAB>" "--diff --file --intent --interactive --viewport" \
    (offered 'nurel snapshot t1 --')
check "nurel emulate t1 --<TAB>" "--dark --intent --light --print --screen --size --system" \
    (offered 'nurel emulate t1 --')
check "nurel guide --<TAB>" "" (offered 'nurel guide --')
check "nurel dialog t1 <TAB>" "accept dismiss" (offered 'nurel dialog t1 ')
check "nurel wait t1 --text --<TAB>: a valued option's value is taken as it is" "" \
    (offered 'nurel wait t1 --text --')

# --intent for every command that talks to the browser
for command in $names
    contains $command guide mcp; and continue
    if not string match -q -- '*--intent*' (offered "nurel $command t1 --i")
        echo "FAIL: nurel $command t1 --i<TAB> offers no --intent"
        set -g failures (math $failures + 1)
    end
end

# file names after --file and for upload's files
set -l scratch (mktemp -d)
cd $scratch
mkdir pictures
touch page.png plan.txt notes.txt
check "nurel snapshot t1 --file p<TAB>" "page.png pictures/ plan.txt" \
    (offered 'nurel snapshot t1 --file p')
check "nurel upload t1 e2 page.png n<TAB>" "notes.txt" (offered 'nurel upload t1 e2 page.png n')
check "nurel upload t1 p<TAB>: the ref is not a file" "" (offered 'nurel upload t1 p')
cd /
rm -rf $scratch

if test $failures -gt 0
    echo "$failures check(s) failed"
    exit 1
end
echo "all passed"
