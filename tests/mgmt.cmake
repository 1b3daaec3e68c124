# Management client: message protection and JSON messages.
vexo_add_test(mgmt_protect_test mgmt_protect_test.cc)
add_dependencies(mgmt_protect_test Vexo)
vexo_add_test(mgmt_json_test mgmt_json_test.cc)
