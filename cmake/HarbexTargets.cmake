# Build options for all targets, and functions that apply them.

add_library(harbex_options INTERFACE)
target_compile_definitions(harbex_options INTERFACE
  QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_KEYWORDS QT_NO_FOREACH)
target_compile_options(harbex_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual)
if(HARBEX_WARNINGS_ARE_ERRORS)
  target_compile_options(harbex_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(harbex_options INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
if(HARBEX_SANITIZE)
  target_compile_options(harbex_options INTERFACE
    -fsanitize=${HARBEX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(harbex_options INTERFACE -fsanitize=${HARBEX_SANITIZE})
endif()
if(HARBEX_FUZZ)
  target_compile_options(harbex_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(HARBEX_COVERAGE)
  target_compile_options(harbex_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(harbex_options INTERFACE --coverage)
endif()

if(HARBEX_TIDY)
  find_program(HARBEX_CLANG_TIDY NAMES clang-tidy-19 clang-tidy REQUIRED)
  # clang-tidy needs a configuration for the output of moc. It gets one check that this output always passes.
  file(WRITE ${CMAKE_BINARY_DIR}/.clang-tidy "Checks: '-*,misc-definitions-in-headers'\n")
endif()

# Applies the options above to TARGET.
function(harbex_finish TARGET)
  target_link_libraries(${TARGET} PRIVATE harbex_options)
  if(HARBEX_TIDY)
    set_target_properties(${TARGET} PROPERTIES CXX_CLANG_TIDY "${HARBEX_CLANG_TIDY};--quiet")
  endif()
endfunction()

# harbex_module(NAME SOURCES ... LINKS ...)
# Adds the library of a module. Each folder of src/ is one module. The library is static unless BUILD_SHARED_LIBS is
# set.
function(harbex_module NAME)
  cmake_parse_arguments(MODULE "" "" "SOURCES;LINKS" ${ARGN})
  add_library(harbex_${NAME} ${MODULE_SOURCES})
  target_include_directories(harbex_${NAME} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(harbex_${NAME} PUBLIC ${MODULE_LINKS})
  harbex_finish(harbex_${NAME})
endfunction()
