# What an installation holds: the libraries with their versions, the headers, and what lets CMake
# and pkg-config find them. The tree can be moved as a whole.

include(CMakePackageConfigHelpers)

set(SAGLEME_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/sagleme)

install(DIRECTORY include/sagleme DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/lscoredb/lscoredb.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lscoredb)

# The layer finds the kernel beside itself.
set_target_properties(sagleme PROPERTIES INSTALL_RPATH "\$ORIGIN")
install(TARGETS sagleme EXPORT saglemeTargets)

if(SAGLEME_KERNEL STREQUAL "embedded")
  install(FILES include/lscoredb/backup.h include/lscoredb/bulk.h include/lscoredb/changes.h
                include/lscoredb/durability.h include/lscoredb/host.h
                include/lscoredb/index_build.h include/lscoredb/move.h
                include/lscoredb/refused_key.h include/lscoredb/require.h
                include/lscoredb/server.h include/lscoredb/statuses.h include/lscoredb/watch.h
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lscoredb)
else()
  install(FILES cmake/SystemKernel.cmake DESTINATION ${SAGLEME_PACKAGE_DIR}
          RENAME sagleme-system-kernel.cmake)
endif()

install(EXPORT saglemeTargets NAMESPACE sagleme:: FILE sagleme-targets.cmake
        DESTINATION ${SAGLEME_PACKAGE_DIR})
configure_package_config_file(cmake/sagleme-config.cmake.in sagleme-config.cmake
  INSTALL_DESTINATION ${SAGLEME_PACKAGE_DIR})
write_basic_package_version_file(sagleme-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/sagleme-config.cmake
              ${PROJECT_BINARY_DIR}/sagleme-config-version.cmake
        DESTINATION ${SAGLEME_PACKAGE_DIR})

# One name gives a program all that the headers declare. Paths in the pkg-config files are told from the place of the files.
set(SAGLEME_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH SAGLEME_PC_PREFIX /${SAGLEME_PKGCONFIG_DIR} /)
string(REGEX REPLACE "/$" "" SAGLEME_PC_PREFIX "${SAGLEME_PC_PREFIX}")
set(SAGLEME_PC_REQUIRES "")
set(SAGLEME_PC_LIBS "-lsagleme -llscoredb -llsllvm")
if(SAGLEME_KERNEL STREQUAL "embedded")
  set(SAGLEME_PC_REQUIRES "lscoredb = ${PROJECT_VERSION}")
  set(SAGLEME_PC_LIBS "-lsaglemehost -lsagleme")
  configure_file(cmake/lscoredb.pc.in lscoredb.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/lscoredb.pc DESTINATION ${SAGLEME_PKGCONFIG_DIR})
endif()
configure_file(cmake/sagleme.pc.in sagleme.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sagleme.pc DESTINATION ${SAGLEME_PKGCONFIG_DIR})

# Everything that an installation needs and nothing else.
add_custom_target(installable DEPENDS sagleme)
foreach(part lscoredb lscoredb_postgres sagleme_host sagleme_tool sagleme_manual sagleme_extension)
  if(TARGET ${part} AND NOT SAGLEME_KERNEL STREQUAL "system")
    add_dependencies(installable ${part})
  endif()
endforeach()

# What is installed is tried by strangers to the build tree.
if(SAGLEME_TESTS AND NOT SAGLEME_SANITIZE AND SAGLEME_KERNEL STREQUAL "embedded")
  set(trials install system-kernel)
  find_program(SAGLEME_DPKG_SHLIBDEPS dpkg-shlibdeps)
  if(SAGLEME_DPKG_SHLIBDEPS)
    list(APPEND trials packages)
  else()
    message(STATUS "dpkg-shlibdeps is not installed: install.packages is left out")
  endif()
  foreach(what IN LISTS trials)
    add_test(NAME install.${what}
      COMMAND ${PROJECT_SOURCE_DIR}/tools/test-${what} ${PROJECT_BINARY_DIR})
    set_tests_properties(install.${what} PROPERTIES LABELS install TIMEOUT 1200)
  endforeach()
endif()
