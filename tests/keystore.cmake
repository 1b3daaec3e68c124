vexo_add_test(keystore_test keystore_test.cc LOCKS scanner_lock)
