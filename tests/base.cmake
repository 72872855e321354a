harbex_test(tst_ReadableText LINKS harbex_base)
harbex_test(tst_StandardOutput LINKS harbex_base)
