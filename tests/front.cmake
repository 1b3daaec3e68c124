# Listener, dispatch and TLS transport. Every case binds 11100-11120.
vexo_add_test(listener_test listener_test.cc LOCKS ports)
vexo_add_test(listener_memory_test listener_memory_test.cc LOCKS ports)
vexo_add_test(dispatch_test dispatch_test.cc LOCKS ports)
vexo_add_test(tls_test tls_test.cc LOCKS ports)
