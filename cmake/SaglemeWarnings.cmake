# One place for what every target of this project is compiled with.
add_library(sagleme_warnings INTERFACE)
target_compile_options(sagleme_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion -Wnon-virtual-dtor>
  $<$<BOOL:${SAGLEME_WERROR}>:-Werror>)

if(SAGLEME_SANITIZE)
  add_compile_options(-fsanitize=${SAGLEME_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${SAGLEME_SANITIZE})
endif()
