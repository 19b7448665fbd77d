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
