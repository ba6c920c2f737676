# Run by cpack after it has built the packages. CPack's DEB generator adds postinst and postrm scripts
# that call ldconfig to any package with a library under /usr/lib; Debian runs ldconfig through the
# trigger the runtime package declares instead. Repacks each package whose scripts do nothing else
# without them.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  if(NOT deb MATCHES "\\.deb$")
    continue()
  endif()
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  set(changed FALSE)
  foreach(script IN ITEMS postinst postrm)
    set(path ${tree}/DEBIAN/${script})
    if(EXISTS ${path})
      file(STRINGS ${path} lines)
      # CPack's script: a shebang, set -e, an if on the action, ldconfig, fi.
      list(FILTER lines EXCLUDE REGEX "^(#!/bin/sh|set -e|if \\[ \"\\$1\" = \"(configure|remove)\" \\]; then|[ \t]*ldconfig|fi|[ \t]*)$")
      if(lines STREQUAL "")
        file(REMOVE ${path})
        set(changed TRUE)
      endif()
    endif()
  endforeach()
  if(changed)
    execute_process(COMMAND dpkg-deb --root-owner-group -Zxz -b ${tree} ${deb}
      OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endif()
  file(REMOVE_RECURSE ${tree})
endforeach()
