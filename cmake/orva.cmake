# Shared helpers for the project's targets.

# orva_library(TARGET OUTPUT_NAME SOVERSION SOURCES... [LIBS ...])
# A platform shared library, installed into usr/orva/lib of a system root.
function(orva_library target)
  cmake_parse_arguments(A "" "OUTPUT_NAME;SOVERSION" "SOURCES;LIBS" ${ARGN})
  add_library(${target} SHARED ${A_SOURCES})
  target_link_libraries(${target} PUBLIC orva_headers ${A_LIBS})
  if(A_OUTPUT_NAME)
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${A_OUTPUT_NAME})
  endif()
  if(A_SOVERSION)
    set_target_properties(${target} PROPERTIES SOVERSION ${A_SOVERSION})
  endif()
  install(TARGETS ${target} LIBRARY DESTINATION usr/orva/lib NAMELINK_SKIP)
endfunction()

# orva_program(TARGET SOURCES... [LIBS ...]): a program installed into usr/orva/bin.
function(orva_program target)
  cmake_parse_arguments(A "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${target} ${A_SOURCES})
  target_link_libraries(${target} PRIVATE orva_headers ${A_LIBS})
  install(TARGETS ${target} RUNTIME DESTINATION usr/orva/bin)
endfunction()

# orva_module(TARGET SOURCES... [LIBS ...] [DESCRIPTOR file.json]): a web API module,
# built into lib/webapi and installed into usr/orva/lib/webapi with its descriptor.
function(orva_module target)
  cmake_parse_arguments(A "" "DESCRIPTOR" "SOURCES;LIBS" ${ARGN})
  add_library(${target} MODULE ${A_SOURCES})
  target_link_libraries(${target} PRIVATE orva_headers ${A_LIBS})
  set_target_properties(${target} PROPERTIES PREFIX ""
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib/webapi)
  install(TARGETS ${target} LIBRARY DESTINATION usr/orva/lib/webapi)
  if(A_DESCRIPTOR)
    get_target_property(out ${target} OUTPUT_NAME)
    if(NOT out)
      set(out ${target})
    endif()
    configure_file(${A_DESCRIPTOR} ${CMAKE_BINARY_DIR}/lib/webapi/${out}.json COPYONLY)
    install(FILES ${A_DESCRIPTOR} DESTINATION usr/orva/lib/webapi RENAME ${out}.json)
  endif()
endfunction()

# orva_test(TARGET SOURCES... [LIBS ...] [LABELS ...]): a GoogleTest executable
# whose cases are registered with CTest one by one.
function(orva_test target)
  cmake_parse_arguments(A "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${target} ${A_SOURCES})
  target_link_libraries(${target} PRIVATE orva_headers ${A_LIBS} GTest::gtest GTest::gtest_main GTest::gmock)
  target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support)
  target_compile_definitions(${target} PRIVATE
    ORVA_BUILD_DIR="${CMAKE_BINARY_DIR}" ORVA_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${A_LABELS}")
endfunction()

# Adds every direct subfolder that has a CMakeLists.txt, in name order, so that the
# folders holding several independent programs need no shared list.
function(orva_add_subfolders)
  file(GLOB children RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/*/CMakeLists.txt)
  list(SORT children)
  foreach(child ${children})
    get_filename_component(dir ${child} DIRECTORY)
    add_subdirectory(${dir})
  endforeach()
endfunction()
