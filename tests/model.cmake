harbex_test(tst_FileUrl LINKS harbex_model)
harbex_test(tst_FilterRule LINKS harbex_model)
harbex_test(tst_FolderListJson LINKS harbex_model)
