include(CMakeFindDependencyMacro)
# The one that was installed with it, rather than another on the machine.
find_dependency(tov CONFIG HINTS "${CMAKE_CURRENT_LIST_DIR}/../tov")
include("${CMAKE_CURRENT_LIST_DIR}/zancgi-targets.cmake")
include("${CMAKE_CURRENT_LIST_DIR}/zancgi-components.cmake")
