# Tests are built where there is all that they are built with. Sets
# ZANCGI_BUILD_TESTS to OFF elsewhere.

# Not one of an environment that somebody is in: tests ask for modules that are
# packages of the system.
find_program(PYTHON_OF_THE_SYSTEM python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(NOT PYTHON_OF_THE_SYSTEM)
  message(STATUS "No Python in /usr/bin: the tests are left out")
  set(ZANCGI_BUILD_TESTS OFF)
endif()
# What holds with whatever base library is tested without it.
if(ZANCGI_TOV STREQUAL "bundled")
  find_package(GTest QUIET)
  if(NOT GTest_FOUND)
    message(STATUS "No GoogleTest: the tests are left out")
    set(ZANCGI_BUILD_TESTS OFF)
  endif()
endif()
