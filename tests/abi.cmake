# The binary interface (virtual slot order, record layouts) as a user of the
# shared library sees it.
add_executable(AbiTest ${CMAKE_CURRENT_SOURCE_DIR}/unit/AbiTest.cpp)
target_link_libraries(AbiTest PRIVATE cimcore_test_support cimcore)
cimcore_warnings(AbiTest)
gtest_discover_tests(AbiTest DISCOVERY_TIMEOUT 60)
