# Installs the build in BINARY_DIR into WORK_DIR/prefix, then configures,
# builds and runs the consumer in CONSUMER_DIR twice: through find_package and
# through pkg-config. Run as a script: cmake -DBINARY_DIR=..
# -DCONSUMER_DIR=.. -DWORK_DIR=.. -P install_and_consume.cmake
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  message(STATUS "${out}")
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed (${status}): ${ARGN}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
file(GLOB_RECURSE pc_files ${prefix}/*/mvxdab.pc)
list(GET pc_files 0 pc_file)
get_filename_component(pc_dir ${pc_file} DIRECTORY)

foreach(way package pkgconfig)
  set(build ${WORK_DIR}/consumer-${way})
  if(way STREQUAL "pkgconfig")
    set(options -DUSE_PKGCONFIG=ON)
  else()
    set(options -DUSE_PKGCONFIG=OFF -DCMAKE_PREFIX_PATH=${prefix})
  endif()
  # Neither way may see the build tree or a system installation's package.
  run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir} PKG_CONFIG_LIBDIR=${pc_dir}
      ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${build} ${options} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
  run(${CMAKE_COMMAND} --build ${build})
  # The receiver finds the device library beside itself; only the emulated
  # device's variables are cleared, so that it plays noise.
  run(${CMAKE_COMMAND} -E env --unset=MVDAB_DEVICE_LIBRARY --unset=MVC900_SOURCE --unset=MVC900_FAULT
      ${build}/consumer)
endforeach()
message(STATUS "the installed package works through find_package and pkg-config")
