# Simulated vendor libraries. Each lands in ${VEXO_REFDLL_DIR} under the name
# the service loads; the target vexo_sim builds them all (tests depend on it).

# The control-file reader and the synthetic fingerprints, compiled into each
# library separately so that each finds the control file beside itself.
add_library(vexo_sim_common OBJECT
  ${CMAKE_CURRENT_LIST_DIR}/control.cc
  ${CMAKE_CURRENT_LIST_DIR}/fingerprint.cc)
target_include_directories(vexo_sim_common PUBLIC
  ${CMAKE_CURRENT_LIST_DIR} ${CMAKE_CURRENT_LIST_DIR}/include ${INIPARSER_INCLUDE_DIR})

# vexo_sim_library(target output_name sources...)
function(vexo_sim_library target output)
  add_library(${target} SHARED ${ARGN})
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME ${output}
    LIBRARY_OUTPUT_DIRECTORY ${VEXO_REFDLL_DIR})
  target_link_options(${target} PRIVATE -Wl,--no-undefined)
endfunction()

vexo_sim_library(sim_AraTrustFinger AraTrustFinger
  ${CMAKE_CURRENT_LIST_DIR}/aratek_sim.cc $<TARGET_OBJECTS:vexo_sim_common>)
vexo_sim_library(sim_Tavio Tavio
  ${CMAKE_CURRENT_LIST_DIR}/tavio_sim.cc $<TARGET_OBJECTS:vexo_sim_common>)
vexo_sim_library(sim_BT_Hmac BT_Hmac
  ${CMAKE_CURRENT_LIST_DIR}/bt_hmac_sim.cc $<TARGET_OBJECTS:vexo_sim_common>)
foreach(t sim_AraTrustFinger sim_Tavio sim_BT_Hmac)
  target_include_directories(${t} PRIVATE
    ${CMAKE_CURRENT_LIST_DIR} ${CMAKE_CURRENT_LIST_DIR}/include ${INIPARSER_INCLUDE_DIR})
  target_link_libraries(${t} PRIVATE ${INIPARSER_LIBRARY} Threads::Threads ${CMAKE_DL_LIBS})
endforeach()

# Helper libraries that are only loaded, never called by name.
foreach(stub openjp2 ImgFormatConvert AraWSQ AraNFIQ)
  vexo_sim_library(sim_${stub} ${stub} ${CMAKE_CURRENT_LIST_DIR}/stub.c)
  target_compile_definitions(sim_${stub} PRIVATE SIM_STUB_FUNCTION=sim_${stub}_version)
endforeach()

add_custom_target(vexo_sim DEPENDS
  sim_AraTrustFinger sim_Tavio sim_BT_Hmac
  sim_openjp2 sim_ImgFormatConvert sim_AraWSQ sim_AraNFIQ)
