# Management client: message protection.
vexo_add_test(mgmt_protect_test mgmt_protect_test.cc)
add_dependencies(mgmt_protect_test Vexo)
