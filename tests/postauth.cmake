# PostAuth commands and the handheld device: the request parser, every answer
# over the real listener, the handheld lock across processes, and the host
# program run for "Tavio_TX9|PORT|SECURITY".
vexo_add_test(postauth_test postauth_test.cc LOCKS ports fifo handheld_lock)
add_dependencies(postauth_test vexo_sim vexoctl vexo-host Vexo)
