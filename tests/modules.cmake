add_test(NAME modules_include_only_downwards
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/check_includes ${PROJECT_SOURCE_DIR}/src)
add_test(NAME check_includes_finds_what_is_planted
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/check_includes_test ${PROJECT_SOURCE_DIR}/src)
