include("${CMAKE_CURRENT_LIST_DIR}/tov-targets.cmake")
