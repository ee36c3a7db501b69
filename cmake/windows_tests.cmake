# Tests of the Windows cross build. GoogleTest is built for the target from
# Debian's googletest source package; the tests run through
# CMAKE_CROSSCOMPILING_EMULATOR (wine) with the DLLs beside them in bin/.
set(MVDAB_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources to build for the target")
set(gtest_disable_pthreads OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory(${MVDAB_GTEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)

# Executables and DLLs side by side, so that wine's loader finds them.
set_target_properties(MVXDAB MVC900ACCESS PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(MVDAB_WINDOWS_LINK -static-libgcc -static-libstdc++ -static)
# The tests' POSIX environment calls, supplied ahead of every test source.
set(MVDAB_WINDOWS_TEST_INCLUDE -include ${CMAKE_SOURCE_DIR}/tests/support/windows_environment.h)

file(GLOB SUPPORT_SOURCES CONFIGURE_DEPENDS tests/support/*.cpp)
add_library(mvdab_test_support STATIC ${SUPPORT_SOURCES})
target_include_directories(mvdab_test_support PUBLIC ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(mvdab_test_support PUBLIC mvdab_core mvdab_generator gtest)
target_compile_options(mvdab_test_support PUBLIC ${MVDAB_WINDOWS_TEST_INCLUDE})

# The core tests, but the comparison with FFTW, which this build has not.
file(GLOB CORE_TEST_SOURCES CONFIGURE_DEPENDS tests/core/*.cpp)
list(REMOVE_ITEM CORE_TEST_SOURCES ${CMAKE_SOURCE_DIR}/tests/core/compact_fft_test.cpp)
add_executable(core_tests ${CORE_TEST_SOURCES})
target_link_libraries(core_tests PRIVATE mvdab_test_support mvdab_core mvdab_generator gtest_main)
target_link_options(core_tests PRIVATE ${MVDAB_WINDOWS_LINK})
add_dependencies(core_tests MVC900ACCESS)
add_test(NAME core_tests COMMAND core_tests)

file(GLOB API_TEST_SOURCES CONFIGURE_DEPENDS tests/api/*.cpp)
# The lifecycle races count threads, descriptors and heap through Linux's
# /proc and glibc: they run in the Linux builds only.
list(FILTER API_TEST_SOURCES EXCLUDE REGEX "api_lifecycle_test\\.cpp$")
add_executable(api_tests ${API_TEST_SOURCES} ${CMAKE_SOURCE_DIR}/tests/support/generated_subchannels.cpp)
target_include_directories(api_tests PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(api_tests PRIVATE MVXDAB mvdab_generator gtest_main)
target_compile_options(api_tests PRIVATE ${MVDAB_WINDOWS_TEST_INCLUDE})
target_link_options(api_tests PRIVATE ${MVDAB_WINDOWS_LINK})
add_dependencies(api_tests MVC900ACCESS)
add_test(NAME api_tests COMMAND api_tests)

# The DLL exports the MVDAB_ functions and nothing else.
add_test(NAME exported_symbols_dll
         COMMAND ${CMAKE_COMMAND} -DLIBRARY=$<TARGET_FILE:MVXDAB> -DPREFIX=MVDAB_ -DCOUNT=20
                 -DOBJDUMP=${CMAKE_OBJDUMP} -P ${CMAKE_SOURCE_DIR}/tests/api/exported_symbols_dll.cmake)
add_test(NAME exported_symbols_device_dll
         COMMAND ${CMAKE_COMMAND} -DLIBRARY=$<TARGET_FILE:MVC900ACCESS> -DPREFIX=MVA_ -DCOUNT=13
                 -DOBJDUMP=${CMAKE_OBJDUMP} -P ${CMAKE_SOURCE_DIR}/tests/api/exported_symbols_dll.cmake)

foreach(t core_tests api_tests)
  set_tests_properties(${t} PROPERTIES TIMEOUT 600)
  set_property(TEST ${t} APPEND PROPERTY ENVIRONMENT
               "MVDAB_SAMPLES_DIR=${CMAKE_SOURCE_DIR}/../shared/samples" "WINEDEBUG=-all"
               "WINEPREFIX=${CMAKE_BINARY_DIR}/wineprefix" "WINEDLLOVERRIDES=mscoree,mshtml=")
endforeach()
