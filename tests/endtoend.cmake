# Harbex in whole desktop sessions: its program with the panels, trays and compositors that people have.
# Each test has a session of its own.
function(harbex_endtoend_test NAME)
  harbex_test(endtoend/${NAME} LINKS harbex_store Qt6::DBus LABELS endtoend
    SOURCES endtoend/HarbexRun.cpp support/Accessible.cpp support/DesktopSession.cpp support/SessionBus.cpp)
  target_compile_definitions(${NAME} PRIVATE
    HARBEX_PROGRAM="$<TARGET_FILE:harbex>" HARBEX_EVIDENCE="${CMAKE_BINARY_DIR}/evidence"
    HARBEX_PACKAGING="${PROJECT_SOURCE_DIR}/packaging")
  add_dependencies(${NAME} harbex)
endfunction()

harbex_endtoend_test(tst_StatusNotifierPanel)
harbex_endtoend_test(tst_XEmbedTray)
harbex_endtoend_test(tst_Wayland)
harbex_endtoend_test(tst_DesktopFile)
harbex_endtoend_test(tst_KeyboardAlone)
harbex_endtoend_test(tst_FolderDialogs)
