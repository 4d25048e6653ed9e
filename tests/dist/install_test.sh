#!/bin/bash
# tests/dist/install_test.sh: `cmake --install` into a temporary prefix puts nurel, its manual
# page and its completions in the usual places, the installed program runs, and man, bash
# (with bash-completion), zsh and fish each find what was installed for them there.
#
#   install_test.sh <build folder>
set -u
build=$1
. "$(dirname "$0")/lib.sh"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

cmake --install "$build" --prefix "$prefix" >"$scratch/install.log" 2>&1
check "cmake --install exits 0" "0" "$?"

bundle=lib/nurel/Nurel.app/Contents
for file in $bundle/MacOS/nurel $bundle/MacOS/nurel-browser $bundle/PlugIns/nurel-websocket.so \
    $bundle/Info.plist \
    share/man/man1/nurel.1 share/bash-completion/completions/nurel \
    share/zsh/site-functions/_nurel share/fish/vendor_completions.d/nurel.fish; do
    check "installed: $file" "yes" "$([[ -f $prefix/$file ]] && echo yes || echo no)"
done
check "bin/nurel links into the bundle" "../$bundle/MacOS/nurel" "$(readlink "$prefix/bin/nurel")"
check "bin/nurel is executable" "yes" "$([[ -x $prefix/bin/nurel ]] && echo yes || echo no)"
check "nurel-browser is executable" "yes" \
    "$([[ -x $prefix/$bundle/MacOS/nurel-browser ]] && echo yes || echo no)"
check "nothing else is installed" "8" "$(find "$prefix" -type f | wc -l)"
check "the bundle names its browser" "yes" \
    "$(grep -q '<string>nurel-browser</string>' "$prefix/$bundle/Info.plist" && echo yes || echo no)"
out=$("$prefix/$bundle/MacOS/nurel-browser" --help)
check "nurel-browser --help exits 0" "0" "$?"
check_contains "nurel-browser --help says where it listens" "$out" "NUREL_SOCKET"


# the installed program runs and prints the guide and the usage
out=$("$prefix/bin/nurel" guide)
check "nurel guide exits 0" "0" "$?"
check_contains "nurel guide prints the usage" "$out" $'\nUsage: nurel <command>'

# man finds the page under the prefix by name
check "man -w nurel" "$prefix/share/man/man1/nurel.1" \
    "$(MANPATH=$prefix/share/man man -w nurel 2>&1)"
check "man nurel renders without warnings" "" \
    "$(LC_ALL=C.UTF-8 MANPATH=$prefix/share/man MANWIDTH=80 man --warnings nurel 2>&1 >/dev/null)"

# bash-completion loads the completion on demand from the prefix's share folder
loaded=$(XDG_DATA_DIRS=$prefix/share bash --norc --noprofile -c '
    . /usr/share/bash-completion/bash_completion || exit 1
    __load_completion nurel && complete -p nurel
    COMP_WORDS=(nurel sn); COMP_CWORD=1; _nurel nurel sn nurel; echo "${COMPREPLY[*]}"' 2>&1)
check "bash-completion loads it and completes 'nurel sn'" \
    $'complete -F _nurel nurel\nsnapshot' "$loaded"

# zsh's compinit finds _nurel in site-functions and binds it to nurel
check "zsh: compinit binds _nurel to nurel" "_nurel" "$(zsh -f -c "
    fpath=(${prefix@Q}/share/zsh/site-functions \$fpath)
    autoload -Uz compinit && compinit -u -D && print -r -- \$_comps[nurel]" 2>&1)"

# fish finds nurel.fish among the vendor completions of the data folders
check "fish: vendor completions from XDG_DATA_DIRS" \
    "snapshot	the page as roles and names, with refs to act on" \
    "$(HOME=$scratch XDG_DATA_DIRS=$prefix/share PATH=$prefix/bin:$PATH \
        fish -c 'complete -C "nurel sn"' 2>&1)"

# staged installs, as packagers make them
DESTDIR=$scratch/stage cmake --install "$build" --prefix /usr >/dev/null 2>&1
check "DESTDIR install into a stage" "yes" \
    "$([[ -x $scratch/stage/usr/bin/nurel && -x $scratch/stage/usr/$bundle/MacOS/nurel-browser &&
        -f $scratch/stage/usr/share/man/man1/nurel.1 ]] &&
        echo yes || echo no)"

finish
