# korvex_flags: the one place for compiler flags, warnings and sanitizer
# toggles. Every target of the project links it (PRIVATE for libraries).

add_library(korvex_flags INTERFACE)
target_compile_options(korvex_flags INTERFACE -Wall -Wextra)
if(KORVEX_WERROR)
  target_compile_options(korvex_flags INTERFACE -Werror)
endif()

if(KORVEX_SANITIZE)
  string(REPLACE "," ";" _korvex_sanitizers "${KORVEX_SANITIZE}")
  foreach(_s IN LISTS _korvex_sanitizers)
    if(NOT _s MATCHES "^(address|undefined|thread|leak)$")
      message(FATAL_ERROR "KORVEX_SANITIZE: unknown sanitizer '${_s}' (use address,undefined or thread)")
    endif()
  endforeach()
  if("thread" IN_LIST _korvex_sanitizers AND "address" IN_LIST _korvex_sanitizers)
    message(FATAL_ERROR "KORVEX_SANITIZE: thread cannot be combined with address")
  endif()
  target_compile_options(korvex_flags INTERFACE
    -fsanitize=${KORVEX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(korvex_flags INTERFACE -fsanitize=${KORVEX_SANITIZE})
endif()

# Include root: headers are included by their folder, e.g. "message/SipJson.h".
add_library(korvex_headers INTERFACE)
target_include_directories(korvex_headers INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/korvex>)
target_include_directories(korvex_headers SYSTEM INTERFACE ${KORVEX_RAPIDJSON_INCLUDE_DIR})

# Code that ends up inside the plug-in is compiled with hidden visibility, so
# the shared library exports only its extern "C" entry points.
function(korvex_plugin_code target)
  set_target_properties(${target} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# The symbols the plug-in may reference, by version: the newest GLIBC,
# GLIBCXX and CXXABI version a host system must provide. The default build
# keeps to what the manylinux_2_28 policy allows, the legacy-ABI build to the
# manylinux2014 policy (the enterprise systems whose hosts still use the old
# std::string). tests/module checks the built plug-in against these values.
# The unwinder of libgcc_s (GCC_ versions) is held to 4.8.0 in both builds:
# both policies allow at least that, and the plug-in needs only GCC_3.0.
set(KORVEX_BASELINE_GCC 4.8.0)
if(KORVEX_LEGACY_CXX_ABI)
  set(KORVEX_BASELINE_GLIBC 2.17)
  set(KORVEX_BASELINE_GLIBCXX 3.4.19)
  set(KORVEX_BASELINE_CXXABI 1.3.7)
  # The old string everywhere: a host of that kind exports CRegistry's
  # std::string& members with the old mangling, and the plug-in, the
  # stand-alone host services and em-host must agree with it and each other.
  target_compile_definitions(korvex_flags INTERFACE _GLIBCXX_USE_CXX11_ABI=0)
  # Sized operator delete is CXXABI_1.3.9, newer than such a host's runtime.
  target_compile_options(korvex_flags INTERFACE -fno-sized-deallocation)
else()
  set(KORVEX_BASELINE_GLIBC 2.28)
  set(KORVEX_BASELINE_GLIBCXX 3.4.25)
  set(KORVEX_BASELINE_CXXABI 1.3.11)
endif()

# GoogleTest for the legacy-ABI build. Debian's libgtest is compiled with the
# C++11 string, and its API passes std::string, so the tests of that build
# cannot link it: GoogleTest is compiled here from Debian's own source
# package (/usr/src/googletest) with the old string, as GTest:: targets.
macro(korvex_legacy_abi_gtest)
  set(KORVEX_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources (Debian package googletest)")
  if(NOT EXISTS ${KORVEX_GTEST_SOURCE_DIR}/CMakeLists.txt)
    message(FATAL_ERROR "KORVEX_LEGACY_CXX_ABI: no GoogleTest sources in ${KORVEX_GTEST_SOURCE_DIR} (apt-get install googletest)")
  endif()
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  add_subdirectory(${KORVEX_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  foreach(_t gtest gtest_main gmock gmock_main)
    target_compile_definitions(${_t} PUBLIC _GLIBCXX_USE_CXX11_ABI=0)
  endforeach()
endmacro()
