vexo_add_test(log_test log_test.cc)
