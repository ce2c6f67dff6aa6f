# What an installation holds, in the GNUInstallDirs places: the library and
# its header, the tools, their man pages (made at build time from their
# --help) and bash completion, and the documentation; and the .deb CPack
# makes of it.
include(GNUInstallDirs)

# bvssf finds the installed library relative to itself, so that a staged
# installation (DESTDIR) runs as the real one does.
file(RELATIVE_PATH bv_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
target_compile_definitions(bvssf PRIVATE BVSSF_LIBRARY_FROM_BINDIR="${bv_bin_to_lib}")

set(bv_tools bvssf bvstore bvtrace bvtsa)
set(bv_man_pages "")
foreach(tool ${bv_tools})
  set(page "${CMAKE_CURRENT_BINARY_DIR}/man/${tool}.1")
  add_custom_command(OUTPUT "${page}"
    COMMAND "${CMAKE_COMMAND}" -DTOOL=$<TARGET_FILE:${tool}> -DPAGE=${page} -DVERSION=${PROJECT_VERSION}
            -P "${CMAKE_CURRENT_SOURCE_DIR}/cmake/man_page.cmake"
    DEPENDS ${tool} "${CMAKE_CURRENT_SOURCE_DIR}/cmake/man_page.cmake"
    COMMENT "Man page ${tool}.1 from ${tool} --help" VERBATIM)
  list(APPEND bv_man_pages "${page}")
endforeach()
add_custom_target(man_pages ALL DEPENDS ${bv_man_pages})

install(TARGETS bvsapssf LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/bvsapssf_api.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS ${bv_tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${bv_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# bash-completion loads a command's file by the command's name.
foreach(tool ${bv_tools})
  install(FILES tools/completion/bvsapssf.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME ${tool})
endforeach()
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs FILES_MATCHING PATTERN "*.md")

# The .deb: dpkg-shlibdeps finds what the programs link (libc, libstdc++,
# libssl3 or libssl3t64, whichever this Debian has); the library opens the
# GOST engine and libcurl itself, and its texts want the ru_RU.CP1251
# locale, which the post-install script makes.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME bvsapssf)
set(CPACK_PACKAGE_VENDOR Brelvantec)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "SSF library for SAP application servers: GOST signatures and encryption over OpenSSL 3")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Brelvantec <bvsapssf@brelvantec.invalid>" CACHE STRING "The .deb's Maintainer")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libengine-gost-openssl, libcurl4 | libcurl4t64, locales")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${CMAKE_CURRENT_SOURCE_DIR}/cmake/deb/postinst")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
include(CPack)
