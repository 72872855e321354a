harbex_test(integration/tst_Burst LINKS harbex_watcher LABELS attack)
harbex_test(integration/tst_Mounts LINKS harbex_watcher LABELS attack)
harbex_test(integration/tst_RandomFolders LINKS harbex_watcher LABELS attack)
