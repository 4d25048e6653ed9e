#!/bin/bash
# tests/dist/package_test.sh: CPack is set up for a Debian package and a tarball, and both,
# built from the install rules, hold nurel, its manual page and its completions where a system
# of that kind looks for them; the packaged program runs.
#
#   package_test.sh <build folder>
set -u
build=$(realpath "$1")
. "$(dirname "$0")/lib.sh"

config=$build/CPackConfig.cmake
check "CPack configuration written" "yes" "$([[ -f $config ]] && echo yes || echo no)"
check "generators: DEB and TGZ" 'set(CPACK_GENERATOR "DEB;TGZ")' \
    "$(grep '^set(CPACK_GENERATOR ' "$config")"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch" || exit 1

# the tarball: the installed tree under one folder
cpack -G TGZ --config "$config" -B "$scratch/tgz" >"$scratch/tgz.log" 2>&1
check "cpack -G TGZ exits 0" "0" "$?"
tarball=$(ls "$scratch"/tgz/nurel-*.tar.gz 2>/dev/null)
listing=$(tar tzf "$tarball" 2>/dev/null | grep -v '/$' | sed 's|^[^/]*/||' | sort)
bundle=lib/nurel/Nurel.app/Contents
check "the tarball's files" "$(words bin/nurel $bundle/Info.plist $bundle/MacOS/nurel \
    $bundle/MacOS/nurel-browser $bundle/PlugIns/nurel-websocket.so share/man/man1/nurel.1 \
    share/bash-completion/completions/nurel share/zsh/site-functions/_nurel \
    share/fish/vendor_completions.d/nurel.fish)" "$(words $listing)"

# the Debian package: under /usr, zsh's completion where Debian's zsh reads packages' ones
cpack -G DEB --config "$config" -B "$scratch/deb" >"$scratch/deb.log" 2>&1
check "cpack -G DEB exits 0" "0" "$?"
deb=$(ls "$scratch"/deb/nurel_*.deb 2>/dev/null)
listing=$(dpkg-deb -c "$deb" 2>/dev/null | awk '$1 !~ /^d/ { print $6 }' | sort)
check "the package's files" "$(words ./usr/bin/nurel ./usr/$bundle/Info.plist \
    ./usr/$bundle/MacOS/nurel ./usr/$bundle/MacOS/nurel-browser \
    ./usr/$bundle/PlugIns/nurel-websocket.so ./usr/share/man/man1/nurel.1 \
    ./usr/share/bash-completion/completions/nurel ./usr/share/zsh/vendor-completions/_nurel \
    ./usr/share/fish/vendor_completions.d/nurel.fish)" "$(words $listing)"
check "package name" "nurel" "$(dpkg-deb -f "$deb" Package 2>&1)"
check_contains "depends on the property-list library it links" \
    "$(dpkg-deb -f "$deb" Depends 2>&1)" "libplist"
check_contains "depends on OpenSSL, which wss:// browsers need" \
    "$(dpkg-deb -f "$deb" Depends 2>&1)" "libssl"
check_contains "depends on Chromium, which its browser drives" \
    "$(dpkg-deb -f "$deb" Depends 2>&1)" "chromium | chromium-headless-shell"

dpkg-deb -x "$deb" "$scratch/tree"
"$scratch/tree/usr/bin/nurel" guide >/dev/null
check "the packaged nurel runs: guide exits 0" "0" "$?"
check "the packaged bin/nurel links into the bundle" "../lib/nurel/Nurel.app/Contents/MacOS/nurel" \
    "$(readlink "$scratch/tree/usr/bin/nurel")"

finish
