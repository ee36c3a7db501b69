# Checks that a shared library exports COUNT functions named PREFIX... and
# nothing else. Run as:
#   cmake -DLIBRARY=<path of the .so> -DPREFIX=MVDAB_ -DCOUNT=20 -P exported_symbols.cmake
execute_process(COMMAND nm -D --defined-only "${LIBRARY}"
                OUTPUT_VARIABLE symbols RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(count 0)
foreach(line IN LISTS lines)
  if(line STREQUAL "")
    continue()
  endif()
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] " "" name "${line}")
  # The linker's own markers of the image carry no code of ours.
  if(name MATCHES "^(_init|_fini|_edata|_end|__bss_start)$")
    continue()
  endif()
  if(NOT name MATCHES "^${PREFIX}")
    message(FATAL_ERROR "exported symbol that is not part of the interface: ${name}")
  endif()
  math(EXPR count "${count} + 1")
endforeach()
if(NOT count EQUAL COUNT)
  message(FATAL_ERROR "expected the ${COUNT} ${PREFIX} functions, found ${count}")
endif()
message(STATUS "${count} ${PREFIX} functions exported, nothing else")
