# vexoctl: the maker's provisioning tool (build/vexoctl).
add_executable(vexoctl
  ${CMAKE_CURRENT_LIST_DIR}/main.cc
  ${CMAKE_CURRENT_LIST_DIR}/workdir.cc
  ${CMAKE_CURRENT_LIST_DIR}/tls.cc
  ${CMAKE_CURRENT_LIST_DIR}/x509_make.cc
)
target_link_libraries(vexoctl PRIVATE vexo_internal)
# init-workdir binds the demonstration keystore to the library beside vexoctl.
add_dependencies(vexoctl Vexo)
