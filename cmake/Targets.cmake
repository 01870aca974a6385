# How each kind of target is made from the sources that stand in its folder. Adding a file to a
# folder is enough to build it.

# Splits the .c and .cpp files below FOLDER into SOURCES and TESTS (*_test.cpp).
function(vantrace_sources folder sources tests)
  file(GLOB_RECURSE all CONFIGURE_DEPENDS ${folder}/*.cpp ${folder}/*.c)
  set(found_tests ${all})
  list(FILTER found_tests INCLUDE REGEX "_test\\.cpp$")
  list(FILTER all EXCLUDE REGEX "_test\\.cpp$")
  set(${sources} ${all} PARENT_SCOPE)
  set(${tests} ${found_tests} PARENT_SCOPE)
endfunction()

# The standard library's headers, compiled once for the sources of a target. Only for sanitizers,
# which nobody waits for while writing code: the other builds see that each file includes what it
# needs.
function(vantrace_precompile target)
  if(VANTRACE_SANITIZE)
    target_precompile_headers(${target} PRIVATE <algorithm> <array> <atomic> <chrono> <filesystem>
      <functional> <map> <memory> <mutex> <optional> <span> <string> <thread> <unordered_map>
      <variant> <vector>)
  endif()
endfunction()

# Tests run for less long than it takes to optimise them: with g++ and a sanitizer by far. Where
# branches are counted, nothing is optimised.
function(vantrace_optimise_as_test target)
  if(VANTRACE_COVERAGE)
    return()
  endif()
  target_compile_options(${target} PRIVATE $<IF:$<AND:$<CONFIG:Debug>,$<CXX_COMPILER_ID:GNU>>,-O0,-O1> -g1)
endfunction()

# What a test may need to know about the tree that it runs in.
function(vantrace_test_settings target)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  vantrace_optimise_as_test(${target})
  target_compile_definitions(${target} PRIVATE
    VANTRACE_PLUGIN_PATH="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/libvantrace.so"
    VANTRACE_TEST_PLUGIN_DIR="${PROJECT_BINARY_DIR}/tests/plugins"
    VANTRACE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  add_dependencies(${target} vantrace_test_needs)
endfunction()

# What nearly every test includes, compiled once for them all.
function(vantrace_share_test_headers)
  if(NOT GTest_FOUND OR NOT BUILD_TESTING)
    return()
  endif()
  set(source ${PROJECT_BINARY_DIR}/test_headers.cpp)
  file(CONFIGURE OUTPUT ${source} CONTENT "int main() {}\n")
  add_executable(vantrace_test_headers EXCLUDE_FROM_ALL ${source})
  target_link_libraries(vantrace_test_headers PRIVATE GTest::gmock Threads::Threads)
  vantrace_optimise_as_test(vantrace_test_headers)
  target_precompile_headers(vantrace_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h>
    <algorithm> <atomic> <chrono> <filesystem> <fstream> <functional> <map> <memory> <mutex>
    <optional> <string> <string_view> <thread> <vector>)
endfunction()

# A GoogleTest executable whose tests ctest lists as "TARGET.Suite.Name". Those that are
# instantiated as "Soak" take minutes; they have a label of their own.
function(vantrace_gtest target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES")
  if(NOT arg_SOURCES OR NOT GTest_FOUND OR NOT BUILD_TESTING)
    return()
  endif()
  add_executable(${target} ${arg_SOURCES})
  target_link_libraries(${target} PRIVATE ${arg_LIBRARIES} GTest::gmock_main Threads::Threads)
  vantrace_test_settings(${target})
  target_precompile_headers(${target} REUSE_FROM vantrace_test_headers)
  include(GoogleTest)
  gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120
    TEST_PREFIX ${target}. TEST_FILTER -Soak/* PROPERTIES TIMEOUT 300)
  gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120
    TEST_PREFIX ${target}. TEST_FILTER Soak/* TEST_LIST ${target}_soak_tests
    PROPERTIES TIMEOUT 3600 LABELS soak)
endfunction()

# zandor-NAME.pc, for builds without CMake; PUBLIC is what the library's own users need.
function(zandor_pkg_config name public)
  list(TRANSFORM public REPLACE "zandor::" "zandor-")
  list(TRANSFORM public REPLACE "LibXml2::LibXml2" "libxml-2.0")
  list(JOIN public ", " requires)
  set(description "Library ${name} of the numerical host")
  configure_file(${PROJECT_SOURCE_DIR}/zandor/library.pc.in zandor-${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zandor-${name}.pc DESTINATION lib/pkgconfig)
endfunction()

# The host library zandor::NAME from zandor/NAME, and its test executable NAME_test.
# Without sources the library is only its public headers.
function(zandor_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "PUBLIC;PRIVATE;OPTIONS")
  set(folder ${PROJECT_SOURCE_DIR}/zandor/${name})
  vantrace_sources(${folder} sources tests)
  set(target zandor_${name})
  if(NOT sources)
    add_library(${target} INTERFACE)
    add_library(zandor::${name} ALIAS ${target})
    target_include_directories(${target} INTERFACE ${folder}/include)
    target_link_libraries(${target} INTERFACE ${arg_PUBLIC})
    return()
  endif()
  add_library(${target} SHARED ${sources})
  add_library(zandor::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES VERSION 1.0.0 SOVERSION 1 EXPORT_NAME ${name})
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE ${arg_OPTIONS})
  if(NOT name STREQUAL "client")  # which uses no library
    vantrace_precompile(${target})
  endif()
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${folder}/include> $<INSTALL_INTERFACE:include>
    PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${target} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE})
  install(TARGETS ${target} EXPORT zandorTargets LIBRARY DESTINATION lib)
  install(DIRECTORY ${folder}/include/ DESTINATION include)
  zandor_pkg_config(${name} "${arg_PUBLIC}")
  vantrace_gtest(${name}_test SOURCES ${tests} LIBRARIES zandor::${name} ${arg_PRIVATE})
endfunction()

# One program for each file of FOLDER.
function(vantrace_programs_in folder)
  if(folder STREQUAL "fuzz" AND NOT VANTRACE_FUZZ)
    return()
  endif()
  if(folder STREQUAL "fuzz")
    add_custom_target(fuzzers)
  endif()
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp
    ${PROJECT_SOURCE_DIR}/${folder}/*.c)
  foreach(source IN LISTS sources)
    get_filename_component(name ${source} NAME_WE)
    set(target ${folder}_${name})
    add_executable(${target} ${source})
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name}
      RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${folder})
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${target} PRIVATE zandor::runtime zandor::instrument zandor::client
      $<TARGET_NAME_IF_EXISTS:zandor::performance> Threads::Threads)
    if(folder STREQUAL "fuzz")
      target_compile_options(${target} PRIVATE -fsanitize=fuzzer)
      target_link_libraries(${target} PRIVATE ISAL::ISAL ZLIB::ZLIB)
      add_dependencies(fuzzers ${target})
      if(name STREQUAL "methods")
        target_link_libraries(${target} PRIVATE vantrace_objects)
      endif()
      target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    endif()
  endforeach()
endfunction()
