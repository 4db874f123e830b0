# The metadata layer against a kernel that the user owns: nothing of ours stands under it.
find_library(LSCOREDB_LIBRARY lscoredb REQUIRED)
find_library(LSLLVM_LIBRARY lsllvm REQUIRED)
add_library(lscoredb SHARED IMPORTED GLOBAL)
set_target_properties(lscoredb PROPERTIES
  IMPORTED_LOCATION "${LSCOREDB_LIBRARY}"
  INTERFACE_INCLUDE_DIRECTORIES "${PROJECT_SOURCE_DIR}/include"
  INTERFACE_LINK_LIBRARIES "${LSLLVM_LIBRARY}")
add_library(sagleme::lscoredb ALIAS lscoredb)
