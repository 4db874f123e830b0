# Runs the benchmark on few objects. It fails by itself when the engines disagree in what they read;
# here its figures are read again.
#
#   cmake -DPROGRAM=<bench_stores> -DDIRECTORY=<for databases> -P check_quick.cmake
file(REMOVE_RECURSE "${DIRECTORY}")
file(MAKE_DIRECTORY "${DIRECTORY}")
execute_process(
  COMMAND "${PROGRAM}" "${DIRECTORY}/databases" --objects 1000 --rounds 1
    --json "${DIRECTORY}/results.json" --table "${DIRECTORY}/results.md"
  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
file(REMOVE_RECURSE "${DIRECTORY}/databases")

file(READ "${DIRECTORY}/results.json" json)
# Without the encoding a line would end at every sign beyond ASCII, such as the "µ" of a unit.
file(STRINGS "${DIRECTORY}/results.md" rows REGEX "^\\| .* \\|$" ENCODING UTF-8)
list(LENGTH rows row_count)
string(JSON count LENGTH "${json}")
math(EXPR heading_and_works "${count} + 1")
if(count LESS 20 OR NOT row_count EQUAL heading_and_works)
  message(FATAL_ERROR "${count} works in the JSON, ${row_count} rows in the table")
endif()

math(EXPR last "${count} - 1")
foreach(i RANGE ${last})
  string(JSON work GET "${json}" ${i} work)
  string(JSON engine GET "${json}" ${i} figures 0 engine)
  string(JSON figures LENGTH "${json}" ${i} figures)
  if(NOT engine STREQUAL "sagleme" OR figures LESS 2)
    message(FATAL_ERROR "${work}: ${figures} figures, the first of ${engine}")
  endif()
  math(EXPR last_figure "${figures} - 1")
  foreach(j RANGE ${last_figure})
    string(JSON rounds LENGTH "${json}" ${i} figures ${j} values)
    string(JSON value GET "${json}" ${i} figures ${j} values 0)
    if(NOT rounds EQUAL 1 OR NOT value GREATER 0)
      message(FATAL_ERROR "${work}: ${rounds} rounds, the first ${value}")
    endif()
  endforeach()
endforeach()
message(STATUS "${count} works")
