# cmake/install.cmake: what `cmake --install` puts where, and the packages CPack builds from the
# same rules (`cpack -G DEB`, `cpack -G TGZ`, run in the build folder).
#
#   lib/nurel/Nurel.app/Contents/Info.plist      (the bundle: nurel and its browser)
#   lib/nurel/Nurel.app/Contents/MacOS/nurel
#   lib/nurel/Nurel.app/Contents/MacOS/nurel-browser
#   lib/nurel/Nurel.app/Contents/PlugIns/nurel-websocket.so   (loaded for a remote browser)
#   bin/nurel -> ../lib/nurel/Nurel.app/Contents/MacOS/nurel
#   share/man/man1/nurel.1
#   share/bash-completion/completions/nurel      (found by bash-completion on demand)
#   share/zsh/site-functions/_nurel              (zsh's own folder for added functions; under
#                                                 /usr, share/zsh/vendor-completions)
#   share/fish/vendor_completions.d/nurel.fish   (fish's folder for packaged completions)
#
# The completions and the page are written at build time from the usage text (completions/).
include(GNUInstallDirs)

if(APPLE)
  install(TARGETS nurel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
else()
  # nurel finds its browser through the bundle three folders above its resolved path, so the
  # program on the PATH is a link into the bundle, never a copy.
  set(nurel_bundle lib/nurel/Nurel.app)
  install(TARGETS nurel nurel-browser RUNTIME DESTINATION ${nurel_bundle}/Contents/MacOS)
  install(TARGETS nurel-websocket LIBRARY DESTINATION ${nurel_bundle}/Contents/PlugIns)
  install(FILES ${NUREL_BUNDLE}/Contents/Info.plist DESTINATION ${nurel_bundle}/Contents)
  install(CODE "
    set(bin \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    file(MAKE_DIRECTORY \"\${bin}\")
    file(CREATE_LINK ../${nurel_bundle}/Contents/MacOS/nurel \"\${bin}/nurel\" SYMBOLIC)
  ")
endif()
install(FILES ${PROJECT_BINARY_DIR}/doc/nurel.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_BINARY_DIR}/completions/nurel.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME nurel)
# zsh reads share/zsh/site-functions under /usr/local and under most prefixes, but a package
# for /usr (the Debian package among them) belongs in share/zsh/vendor-completions, the folder
# Debian's zsh reads for packages. The prefix is known only when installing: cpack installs
# the Debian package with the prefix /usr, the tarball with a folder of its own.
set(nurel_zsh_completion ${PROJECT_BINARY_DIR}/completions/_nurel)
install(CODE "
  if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
    set(zsh_folder vendor-completions)
  else()
    set(zsh_folder site-functions)
  endif()
  file(INSTALL \"${nurel_zsh_completion}\"
       DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/zsh/\${zsh_folder}\")
")
install(FILES ${PROJECT_BINARY_DIR}/completions/nurel.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)

set(CPACK_PACKAGE_NAME nurel)
set(CPACK_PACKAGE_VENDOR "Nurel")
set(CPACK_PACKAGE_CONTACT "nurel maintainers" CACHE STRING "The packages' maintainer")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "a browser for AI agents: command line, MCP server and a Chromium back end")
set(CPACK_PACKAGE_DESCRIPTION
    "nurel talks to its browser over a local Unix-domain socket and offers its agent\
 functions as shell commands and as an MCP server (nurel mcp) for agents' hosts. On Linux the\
 browser is nurel-browser, which drives Chromium and is started by nurel when needed.")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_STRIP_FILES ON)
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_IGNORE_FILES "/\\\\.git/" "/build[^/]*/" "/node_modules/")

# Debian: dependencies from the libraries the binary links (dpkg-shlibdeps) and libplist, under
# /usr.
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(NUREL_PLIST_LIBRARY AND NUREL_PLIST_SONAME AND NOT DEFINED NUREL_PLIST_PACKAGE)
  # The package of the libplist found, which dpkg-shlibdeps cannot see behind a dlopen.
  get_filename_component(plist_folder ${NUREL_PLIST_LIBRARY} DIRECTORY)
  execute_process(COMMAND dpkg-query -S ${plist_folder}/${NUREL_PLIST_SONAME}
                  OUTPUT_VARIABLE plist_owner ERROR_QUIET)
  if(plist_owner MATCHES "^([^:]+)")
    set(NUREL_PLIST_PACKAGE ${CMAKE_MATCH_1} CACHE STRING "The Debian package of libplist")
  endif()
endif()
# Chromium is run, and libplist loaded at run time, rather than linked: dpkg-shlibdeps sees
# neither.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "chromium | chromium-headless-shell")
if(NUREL_PLIST_PACKAGE)
  string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", ${NUREL_PLIST_PACKAGE}")
endif()
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "bash-completion")

include(CPack)
