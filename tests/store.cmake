harbex_test(tst_Bookmark LINKS harbex_store PkgConfig::SECCOMP)
harbex_test(tst_FolderStore LINKS harbex_store LABELS attack TIMEOUT 400)
