# The demo run as a user would: it must succeed and every line it logs must be
# in the host log's format.
if(TARGET cim-demo)
  cimcore_add_test(tools/CimDemoTest.cpp LINKS cimcore TIMEOUT 240)
  target_compile_definitions(CimDemoTest PRIVATE CIM_DEMO_PATH="${CIMCORE_TEST_LAUNCHER} $<TARGET_FILE:cim-demo>")
  add_dependencies(CimDemoTest cim-demo)
endif()
