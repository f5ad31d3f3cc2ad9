# SPDX-License-Identifier: MIT
# Installs the build, then does what a reader of the README does: takes the host program from it, builds it against
# the installed package, and types at it.
#   cmake -DBUILD=.. -DSOURCE=.. -DWORK=.. [-DARGUMENTS=..] [-DEMULATOR=..] -P consumer.cmake
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output TIMEOUT 200)
  if(NOT status EQUAL 0)
    string(REPLACE ";" " " command "${ARGV}")
    message(FATAL_ERROR "${command}\nended with ${status}:\n${output}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix)

# Lists would break at the semicolons of the program, so the text is cut as a whole.
file(READ ${SOURCE}/README.md text)
string(REGEX MATCH "```cpp\n([^`]*)```" match "${text}")
set(program "${CMAKE_MATCH_1}")
string(REGEX REPLACE "[^\n]" "" line_ends "${program}")
string(LENGTH "${line_ends}" lines)
if(lines LESS 10 OR lines GREATER 25)
  message(FATAL_ERROR "The README's program has ${lines} lines")
endif()
file(WRITE ${WORK}/build/readme/main.cpp "${program}")

run(${CMAKE_COMMAND} -S ${SOURCE}/tests/consumer -B ${WORK}/build -G Ninja
  -DCMAKE_PREFIX_PATH=${WORK}/prefix ${ARGUMENTS})
run(${CMAKE_COMMAND} --build ${WORK}/build)

file(WRITE ${WORK}/typed "board/greet operator\nquit\n")
execute_process(COMMAND ${EMULATOR} ${WORK}/build/host INPUT_FILE ${WORK}/typed
  RESULT_VARIABLE status OUTPUT_VARIABLE output TIMEOUT 60)
if(NOT status EQUAL 0 OR NOT output MATCHES "Hello, operator")
  message(FATAL_ERROR "The README's host ended with ${status} and wrote:\n${output}")
endif()

find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG AND NOT EMULATOR AND NOT ARGUMENTS MATCHES "sanitize")
  file(GLOB_RECURSE pc ${WORK}/prefix/zelshell.pc)
  get_filename_component(directory ${pc} DIRECTORY)
  file(WRITE ${WORK}/pc.cpp "#include <zelshellserver.h>\nint main() { return ZELArguments().Length(); }\n")
  run(sh -c "export PKG_CONFIG_PATH=${directory}; c++ -std=c++17 -fPIC $(pkg-config --cflags zelshell) ${WORK}/pc.cpp \
    $(pkg-config --libs zelshell) -Wl,-rpath,$(pkg-config --variable=libdir zelshell) -o ${WORK}/pc && ${WORK}/pc")
endif()
