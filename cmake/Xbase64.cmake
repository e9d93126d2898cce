# Xbase64 (libxbase64), an independent xBase library used as a second reader
# of the .NTX files this engine writes (tests/interop) and as a comparison in
# the benchmarks (bench/xbase64).
#
# Xbase64 3.1.2 reads the 4-byte fields of an NTX file into `long` and steps
# over them by sizeof(long), so its 64-bit build cannot read any NTX header,
# not even one it wrote itself.  Its programs are therefore built for 32-bit
# x86 (-m32) against the i386 library, which needs the multilib compiler and
# libxbase64-1:i386 (scripts/install-deps.sh).  Debian ships no pkg-config
# file for it, so the header and library are looked up directly.
#
# Included where it is needed (tests/, bench/); sets KESTREL_XBASE64_FOUND in
# that directory and defines kestrel_xbase64_program(NAME SOURCES...).
include(CheckCXXSourceCompiles)
include(CMakePushCheckState)

set(KESTREL_XBASE64_FOUND OFF)
find_path(KESTREL_XBASE64_INCLUDE_DIR xbase64/xbase64.h)
find_library(KESTREL_XBASE64_LIBRARY32 NAMES libxbase64.so.1 xbase64
  PATHS /usr/lib/i386-linux-gnu /usr/lib32 NO_DEFAULT_PATH)
if(KESTREL_XBASE64_INCLUDE_DIR AND KESTREL_XBASE64_LIBRARY32)
  cmake_push_check_state(RESET)
  # The i386 library was built with 64-bit file offsets (its xbOffT is off_t).
  set(CMAKE_REQUIRED_FLAGS "-m32 -D_FILE_OFFSET_BITS=64")
  set(CMAKE_REQUIRED_LINK_OPTIONS -m32)
  set(CMAKE_REQUIRED_INCLUDES ${KESTREL_XBASE64_INCLUDE_DIR})
  set(CMAKE_REQUIRED_LIBRARIES ${KESTREL_XBASE64_LIBRARY32})
  set(CMAKE_REQUIRED_QUIET ON)
  check_cxx_source_compiles([[
    #include <xbase64/xbase64.h>
    int main() { xbXBase x; xbDbf d(&x); xbNtx n(&d); return sizeof(long) == 4 ? 0 : 1; }
  ]] KESTREL_XBASE64_LINKS_32)
  cmake_pop_check_state()
  if(KESTREL_XBASE64_LINKS_32)
    set(KESTREL_XBASE64_FOUND ON)
  endif()
endif()
get_property(reported GLOBAL PROPERTY KESTREL_XBASE64_REPORTED)
if(NOT reported)
  set_property(GLOBAL PROPERTY KESTREL_XBASE64_REPORTED ON)
  if(KESTREL_XBASE64_FOUND)
    message(STATUS "Xbase64 (32-bit) found: ${KESTREL_XBASE64_LIBRARY32}")
  else()
    message(STATUS "Xbase64 for 32-bit x86 not found: its checker and benchmark are not built "
                   "(scripts/install-deps.sh installs it)")
  endif()
endif()

# A 32-bit program linked with Xbase64.  The directory's compile and link
# options (sanitizers, fuzzing instrumentation) are dropped: the program is an
# outside checker, and its runtime libraries would have to exist for i386 too.
function(kestrel_xbase64_program name)
  add_executable(${name} ${ARGN})
  set_target_properties(${name} PROPERTIES
    COMPILE_OPTIONS "-m32;-D_FILE_OFFSET_BITS=64;-Wall;-Wextra"
    LINK_OPTIONS "-m32"
    CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
  target_include_directories(${name} SYSTEM PRIVATE ${KESTREL_XBASE64_INCLUDE_DIR})
  target_link_libraries(${name} PRIVATE ${KESTREL_XBASE64_LIBRARY32})
endfunction()
