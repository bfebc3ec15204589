# The base library, as tov::tov and, where there is an archive, tov::tov_static;
# and ZANCGI_INCLUDE_DIR, where our headers are found in the tree.
if(ZANCGI_TOV STREQUAL "bundled")
  set(ZANCGI_INCLUDE_DIR "${PROJECT_SOURCE_DIR}/src")
  add_subdirectory(src/tov)
elseif(ZANCGI_TOV STREQUAL "system")
  if(TARGET tov::tov)
    set(is_known TRUE)
  endif()
  include(cmake/find-base-library.cmake)
  if(NOT TARGET tov::tov)
    message(FATAL_ERROR "There is no base library on the system: neither a "
      "CMake package \"tov\", nor a header <tov/str.h> with a library \"tov\" where "
      "pkg-config says or where compilers look. Name its place by "
      "CMAKE_PREFIX_PATH, or build with ZANCGI_TOV=bundled.")
  endif()
  if(NOT is_known)
    # A project that we are a part of links it with its front ends.
    foreach(library tov::tov tov::tov_static)
      if(TARGET ${library})
        set_target_properties(${library} PROPERTIES IMPORTED_GLOBAL TRUE)
      endif()
    endforeach()
  endif()
  # A folder without our own base library's headers: where the system's lacks
  # one, ours must not stand in.
  set(ZANCGI_INCLUDE_DIR "${PROJECT_BINARY_DIR}/include")
  file(MAKE_DIRECTORY "${ZANCGI_INCLUDE_DIR}")
  file(CREATE_LINK "${PROJECT_SOURCE_DIR}/src/zancgi"
    "${ZANCGI_INCLUDE_DIR}/zancgi" SYMBOLIC)
else()
  message(FATAL_ERROR "ZANCGI_TOV is bundled or system, not \"${ZANCGI_TOV}\"")
endif()
