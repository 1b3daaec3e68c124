vexo_add_test(pidoptions_test pidoptions_test.cc)
vexo_add_test(piddata_test piddata_test.cc)
vexo_add_test(api_test api_test.cc LOCKS scanner_lock)
