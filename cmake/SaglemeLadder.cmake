# Folders as a ladder: sources of each see their own folder and those listed before it, and no others,
# so that an include upward does not compile.
#
# sagleme_ladder(SOURCES files... FOLDERS lowest... highest)
# Folders lie in the current source directory; files that lie elsewhere, as generated ones do, belong to
# the folder of the same name in the build directory. A folder's include root holds links to what it sees.
function(sagleme_ladder)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "" "SOURCES;FOLDERS")
  set(seen "")
  foreach(folder IN LISTS arg_FOLDERS)
    list(APPEND seen ${folder})
    set(root ${CMAKE_CURRENT_BINARY_DIR}/ladder/${folder})
    file(REMOVE_RECURSE ${root})
    file(MAKE_DIRECTORY ${root})
    foreach(visible IN LISTS seen)
      file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${visible} ${root}/${visible} SYMBOLIC)
    endforeach()
    foreach(source IN LISTS arg_SOURCES)
      if(source MATCHES "^(${CMAKE_CURRENT_SOURCE_DIR}|${CMAKE_CURRENT_BINARY_DIR})/${folder}/")
        set_source_files_properties(${source} PROPERTIES INCLUDE_DIRECTORIES ${root})
      endif()
    endforeach()
  endforeach()
endfunction()
