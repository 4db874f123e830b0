# The metadata layer against a kernel that the user owns: nothing of ours stands under it.
#
# Names the kernel sagleme::lscoredb. Used by the build with SAGLEME_KERNEL=system and by what is installed
# from it.
if(NOT TARGET sagleme::lscoredb)
  find_library(LSCOREDB_LIBRARY lscoredb REQUIRED)
  find_library(LSLLVM_LIBRARY lsllvm REQUIRED)
  add_library(sagleme::lscoredb SHARED IMPORTED GLOBAL)
  # Nothing is imported from the second library by name; it is loaded all the same.
  set_target_properties(sagleme::lscoredb PROPERTIES
    IMPORTED_LOCATION "${LSCOREDB_LIBRARY}"
    INTERFACE_LINK_LIBRARIES "-Wl,--push-state,--no-as-needed;${LSLLVM_LIBRARY};-Wl,--pop-state")
endif()
