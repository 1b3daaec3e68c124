vexo_add_test(crypto_test crypto_test.cc)
