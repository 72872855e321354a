harbex_test(integration/tst_Burst LINKS harbex_watcher)
harbex_test(integration/tst_Mounts LINKS harbex_watcher)
harbex_test(integration/tst_RandomFolders LINKS harbex_watcher)
