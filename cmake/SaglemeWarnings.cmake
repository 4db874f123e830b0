# One place for what every target of this project is compiled with.
add_library(sagleme_warnings INTERFACE)
target_compile_options(sagleme_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion -Wnon-virtual-dtor>
  $<$<BOOL:${SAGLEME_WERROR}>:-Werror>)
# GCC 12 sees an overlap in every "text" + std::string that it inlines (GCC bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(sagleme_warnings INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict -Wno-stringop-overflow>)
endif()

if(SAGLEME_SANITIZE)
  add_compile_options(-fsanitize=${SAGLEME_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${SAGLEME_SANITIZE})
endif()
