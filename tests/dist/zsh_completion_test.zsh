#!/usr/bin/env zsh
# tests/dist/zsh_completion_test.zsh: the zsh completion, queried by zsh's own completion
# system: an interactive zsh on a pseudo-terminal loads it from fpath through compinit, is
# sent a command line and a TAB, and reports every match that the completion functions add.
#
#   zsh_completion_test.zsh <folder holding _nurel> <nurel> <source folder>
emulate -L zsh
setopt err_return no_unset pipe_fail
zmodload zsh/zpty

folder=${1:A} nurel=${2:A} source=${3:A}
integer failures=0

# The shell under test: no prompt, no menus. Around each completion it
# prints a marker line; in between, one line per match added (compadd -A collects the
# matches that the current word selects, as completion itself would). The markers are
# written split in two ('<<rea''dy>>'), so that the terminal's echo of this text never
# reads as one.
setup=$(<<'SETUP'
setopt interactive_comments
PS1= PROMPT= RPROMPT=
fpath=(@FOLDER@ $fpath)
autoload -Uz compinit && compinit -u -D
bindkey '^I' complete-word
zstyle ':completion:*' insert-tab false
zstyle ':completion:*' list-grouped false
__mark() { print -r -- '<<compl''etion>>' }
compprefuncs=(__mark)
comppostfuncs=(__mark exit)
compadd() {
  # queries (-O, -A, -D) answer the caller and add nothing: leave them alone
  if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then
    builtin compadd "$@"
    return
  fi
  local -a __matches
  builtin compadd -A __matches "$@"
  (( $#__matches )) && print -rl -- ${^__matches}'<<mat''ch>>'
  builtin compadd "$@"
}
print -r -- '<<rea''dy>>'
SETUP
)
setup=${setup//@FOLDER@/${(q)folder}}

# offered <command line>: the matches for its last word, sorted, on one line.
offered() {
  local line out=()
  integer marks=0
  zpty nurel_test zsh -f -i
  zpty -w nurel_test "$setup"
  while zpty -r nurel_test line; do
    [[ $line == *'<<ready>>'* ]] && break
  done
  zpty -w -n nurel_test "$1"$'\t'
  while zpty -r nurel_test line; do
    if [[ $line == *'<<completion>>'* ]]; then
      (( ++marks == 2 )) && break
    elif [[ $line == *'<<match>>'* ]]; then
      out+=("${line%%'<<match>>'*}")
    fi
  done
  zpty -d nurel_test
  out=(${(ou)out})
  print -r -- ${(j: :)out}
}

check() {
  if [[ $2 == $3 ]]; then
    print -r -- "ok: $1"
  else
    print -r -- "FAIL: $1"
    print -r -- "  expected: $2"
    print -r -- "  actual:   $3"
    (( ++failures ))
  fi
}

# the commands people can type: the command table's but hello, and guide and mcp
# ($commands is zsh's own table of programs)
table=(${(f)"$(sed -nE 's/^ *\{"([a-z]+)", (browser|hidden),.*/\1/p' $source/catalogue/commands.cpp)"})
(( ${table[(Ie)hello]} )) || { print "can't read the command table"; exit 1 }
names=(guide mcp ${table:#hello})
names=(${(o)names})

check "nurel sn<TAB>" "snapshot" "$(offered 'nurel sn')"
check "nurel <TAB>: the commands of the table, guide and mcp" "${(j: :)names}" "$(offered 'nurel ')"
check "nurel snapshot t1 --<TAB>" "--diff --file --intent --interactive --viewport" \
  "$(offered 'nurel snapshot t1 --')"
check "nurel emulate t1 --<TAB>" "--dark --intent --light --print --screen --size --system" \
  "$(offered 'nurel emulate t1 --')"
check "nurel guide --<TAB>" "" "$(offered 'nurel guide --')"
check "nurel dialog t1 <TAB>" "accept dismiss" "$(offered 'nurel dialog t1 ')"
check "nurel wait t1 --text --<TAB>: a valued option's value is taken as it is" "" \
  "$(offered 'nurel wait t1 --text --')"

# --intent for every command that talks to the browser
for command in $names; do
  [[ $command == (guide|mcp) ]] && continue
  [[ "$(offered "nurel $command t1 --i")" == *--intent* ]] ||
    { print -r -- "FAIL: nurel $command t1 --i<TAB> offers no --intent"; (( ++failures )) }
done

# file names after --file and for upload's files
scratch=$(mktemp -d)
trap 'rm -rf $scratch' EXIT
cd $scratch
mkdir pictures
touch page.png plan.txt notes.txt
check "nurel snapshot t1 --file p<TAB>" "page.png pictures plan.txt" \
  "$(offered 'nurel snapshot t1 --file p')"
check "nurel upload t1 e2 page.png n<TAB>" "notes.txt" "$(offered 'nurel upload t1 e2 page.png n')"
check "nurel upload t1 p<TAB>: the ref is not a file" "" "$(offered 'nurel upload t1 p')"

if (( failures )); then
  print "$failures check(s) failed"
  exit 1
fi
print "all passed"
