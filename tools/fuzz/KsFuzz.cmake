# Fuzz targets. A module adds one with
#
#   ks_fuzz_target(NAME fuzz_pfcp SOURCES fuzz_pfcp.cpp LIBS pfcp CORPUS fuzz_corpus/fuzz_pfcp
#                  [INCLUDES dirs...] [DEFINES defs...] [OPTIONS libFuzzer options...])
#
# from its own CMakeLists.txt. SOURCES define LLVMFuzzerTestOneInput (and may define
# LLVMFuzzerInitialize); CORPUS is a folder of the repository with a few dozen small inputs.
# In the ordinary build the sources are linked with a replay driver and the test
# "fuzz_replay.NAME" feeds every file of the corpus to them. With -DKS_FUZZ=ON and clang
# (tools/fuzz/run.sh makes build-fuzz that way) every target is a libFuzzer program under the
# address and undefined sanitizers, built by the target ks_fuzz and listed in
# fuzz_targets.txt of the build folder with its corpus and OPTIONS, for the run script.

option(KS_FUZZ "build the fuzz targets as libFuzzer programs (clang, address and undefined sanitizers)" OFF)
set(KS_FUZZ_DIR ${CMAKE_CURRENT_LIST_DIR})

if(KS_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KS_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  if(NOT KS_SANITIZE)
    set(KS_SANITIZE address,undefined)
  endif()
  # Everything the targets link is instrumented for the fuzzer's coverage, and a fault of the
  # undefined sanitizer stops the run, so the fuzzer keeps the input that caused it.
  add_compile_options(-fsanitize=fuzzer-no-link -fno-sanitize-recover=all)
  # The crypto library builds its SNOW 3G tables at compile time, past clang's default step budget.
  add_compile_options(-fconstexpr-steps=100000000)
  add_custom_target(ks_fuzz)
  set_property(GLOBAL PROPERTY KS_FUZZ_MANIFEST "")
  function(ks_fuzz_write_manifest)
    get_property(lines GLOBAL PROPERTY KS_FUZZ_MANIFEST)
    file(WRITE ${CMAKE_BINARY_DIR}/fuzz_targets.txt "${lines}")
  endfunction()
  # Written once every module has added its targets.
  cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL ks_fuzz_write_manifest)
endif()

function(ks_fuzz_target)
  cmake_parse_arguments(F "" "NAME;CORPUS" "SOURCES;LIBS;INCLUDES;DEFINES;OPTIONS" ${ARGN})
  if(NOT F_NAME OR NOT F_SOURCES OR NOT F_CORPUS)
    message(FATAL_ERROR "ks_fuzz_target needs NAME, SOURCES and CORPUS")
  endif()
  get_filename_component(corpus ${F_CORPUS} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
  if(KS_FUZZ)
    set(target ${F_NAME})
  elseif(NOT DEFINED KS_BUILD_TESTS OR KS_BUILD_TESTS)
    set(target ${F_NAME}_replay)
  else()
    return()
  endif()
  add_executable(${target} ${F_SOURCES})
  target_link_libraries(${target} PRIVATE ${F_LIBS})
  target_include_directories(${target} PRIVATE ${F_INCLUDES})
  target_compile_definitions(${target} PRIVATE ${F_DEFINES})
  ks_warnings(${target})
  if(KS_FUZZ)
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
    add_dependencies(ks_fuzz ${target})
    string(JOIN " " options ${F_OPTIONS})
    set_property(GLOBAL APPEND_STRING PROPERTY KS_FUZZ_MANIFEST "${F_NAME}|${corpus}|${options}\n")
  else()
    target_sources(${target} PRIVATE ${KS_FUZZ_DIR}/fuzz_replay.cpp)
    add_test(NAME fuzz_replay.${F_NAME} COMMAND ${target} ${corpus} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
    set_tests_properties(fuzz_replay.${F_NAME} PROPERTIES LABELS fuzz TIMEOUT 300)
  endif()
endfunction()
