# Discovery: the sources that become part of kv_mini, and the cipher as a library of its own. kv_mini links kv_net and
# kv_des for it.
set(KV_DISCOVERY_SOURCES "${CMAKE_CURRENT_LIST_DIR}/kv_mini_discovery.cpp")
kv_module(kv_des SOURCES "${CMAKE_CURRENT_LIST_DIR}/kv_des.cpp")
