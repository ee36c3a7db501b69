# Cross build for 64-bit Windows with Debian's mingw-w64 (POSIX thread model).
#   cmake -S . -B build/windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(MVDAB_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${MVDAB_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${MVDAB_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${MVDAB_MINGW_PREFIX}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${MVDAB_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Tests and tools run under wine when it is installed.
find_program(MVDAB_WINE NAMES wine wine64)
if(MVDAB_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${MVDAB_WINE})
endif()
# pkg-config must not hand the build the Linux host's libraries.
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_FIND_ROOT_PATH}/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
