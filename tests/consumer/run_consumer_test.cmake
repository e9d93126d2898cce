# Installs the built project into a scratch prefix and builds a C consumer
# against it: through find_package(kestrel) with the shared and the static
# library, and through pkg-config (shared, and static with --static).
# Run as: cmake -DSOURCE_DIR=... -DBINARY_DIR=... -DWORK_DIR=... -P this file
foreach(var SOURCE_DIR BINARY_DIR WORK_DIR)
  if(NOT ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})

# The documentation, the licence and the tool's manual page are installed.
foreach(file share/doc/kestrel/LICENSE share/doc/kestrel/README.md share/doc/kestrel/tool.md
             share/doc/kestrel/architecture.md share/man/man1/kestrel.1)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
file(READ ${prefix}/share/man/man1/kestrel.1 manual)
if(NOT manual MATCHES "^\\.TH KESTREL 1" OR NOT manual MATCHES "index build")
  message(FATAL_ERROR "the manual page is not a manual page of the tool")
endif()

# 1. CMake package.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer/project -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
foreach(program consumer consumer_static)
  run(${WORK_DIR}/build/${program} ${WORK_DIR}/${program}.dbf)
  if(NOT RUN_OUTPUT STREQUAL "engine 4.00 Revision F\n")
    message(FATAL_ERROR "CMake ${program} printed '${RUN_OUTPUT}'")
  endif()
endforeach()

# 2. pkg-config, with the .pc file found only in the scratch prefix.
file(GLOB_RECURSE pcfiles ${prefix}/*/kestrel.pc)
list(LENGTH pcfiles n)
if(NOT n EQUAL 1)
  message(FATAL_ERROR "expected one installed kestrel.pc, found: ${pcfiles}")
endif()
get_filename_component(pcdir ${pcfiles} DIRECTORY)
find_program(PKG_CONFIG pkg-config REQUIRED)
find_program(C_COMPILER NAMES cc gcc clang REQUIRED)
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcdir} PKG_CONFIG_LIBDIR=${pcdir}
    ${PKG_CONFIG} --cflags --libs kestrel)
string(STRIP "${RUN_OUTPUT}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
if(NOT flags MATCHES "${prefix}")
  message(FATAL_ERROR "pkg-config flags do not point into the prefix: ${flags}")
endif()
run(${C_COMPILER} -std=c99 -pedantic-errors -Wall -Wextra -Werror
    ${SOURCE_DIR}/tests/consumer/project/main.c ${flags} -o ${WORK_DIR}/consumer_pc)
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/lib:${pcdir}/.. ${WORK_DIR}/consumer_pc
    ${WORK_DIR}/consumer_pc.dbf)
if(NOT RUN_OUTPUT STREQUAL "engine 4.00 Revision F\n")
  message(FATAL_ERROR "pkg-config consumer printed '${RUN_OUTPUT}'")
endif()
# The static library from C: "pkg-config --static" adds what it needs; the
# program then runs without the shared library.
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcdir} PKG_CONFIG_LIBDIR=${pcdir}
    ${PKG_CONFIG} --static --libs kestrel)
string(STRIP "${RUN_OUTPUT}" static_flags)
separate_arguments(static_flags UNIX_COMMAND "${static_flags}")
run(${C_COMPILER} -std=c99 -pedantic-errors -Wall -Wextra -Werror
    ${SOURCE_DIR}/tests/consumer/project/main.c -I${prefix}/include
    -Wl,-Bstatic ${static_flags} -Wl,-Bdynamic -o ${WORK_DIR}/consumer_pc_static)
run(${WORK_DIR}/consumer_pc_static ${WORK_DIR}/consumer_pc_static.dbf)
if(NOT RUN_OUTPUT STREQUAL "engine 4.00 Revision F\n")
  message(FATAL_ERROR "static pkg-config consumer printed '${RUN_OUTPUT}'")
endif()
message(STATUS "installed package works through find_package and pkg-config, shared and static")
