# Attacks: brief forms that run with every other test. scripts/attack runs everything labelled "attack" in full.
harbex_test(attack/tst_SaveFaults LINKS harbex_store LABELS attack TIMEOUT 600)
harbex_test(attack/tst_ManyMovers LINKS harbex_fs LABELS attack TIMEOUT 600)
harbex_test(attack/tst_HostileEntries LINKS harbex_watcher LABELS attack TIMEOUT 600)
harbex_test(attack/tst_WatchLimits LINKS harbex_watcher SOURCES attack/EngineProcess.cpp LABELS attack TIMEOUT 600)
harbex_test(attack/tst_FolderGoesAway LINKS harbex_watcher LABELS attack TIMEOUT 600)
harbex_test(attack/tst_RestartStorm LINKS harbex_watcher LABELS attack TIMEOUT 600)
harbex_test(attack/tst_Forbidden LINKS harbex_watcher SOURCES support/MoveRound.cpp LABELS attack)
if(HARBEX_SANITIZE STREQUAL "thread") # A test may not start the program that serves a file system.
  target_compile_definitions(tst_RestartStorm PRIVATE HARBEX_NO_SERVED_FOLDERS)
else()
  harbex_test(attack/tst_ForeignFileSystem LINKS harbex_watcher LABELS attack)
endif()
if(NOT HARBEX_SANITIZE)
  # A sanitizer keeps memory that was freed.
  harbex_test(attack/tst_LongLife LINKS harbex_watcher LABELS attack TIMEOUT 600)
endif()
harbex_test(attack/tst_EngineFaults LINKS harbex_watcher LABELS attack TIMEOUT 900)
