# A room is one folder under src/ and one static library of all its sources.
function(dirwell_room name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} STATIC ${sources})
  target_link_libraries(${name} PUBLIC dirwell_flags ${ARGN})
endfunction()

# The unit tests of a room mirror it: tests/unit/ROOM/NAME_test.cpp tests src/ROOM/NAME.cpp.
function(dirwell_unit_tests name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_executable(unit_${name} ${sources})
  target_link_libraries(unit_${name} PRIVATE ${ARGN} test_support GTest::gmock_main)
  target_precompile_headers(unit_${name} PRIVATE <gmock/gmock.h> <gtest/gtest.h> <string> <vector>)
  gtest_discover_tests(unit_${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 240)
endfunction()
