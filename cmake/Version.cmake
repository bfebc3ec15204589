# The version stands in the public headers, for front ends to ask, and is read
# from there.

# read_version(VARIABLE HEADER PREFIX): the version that HEADER defines by the
# macros PREFIX_VERSION_MAJOR, _MINOR and _PATCH.
function(read_version variable header prefix)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    "${CMAKE_CURRENT_SOURCE_DIR}/${header}")
  file(READ "${header}" text)
  foreach(part MAJOR MINOR PATCH)
    if(NOT text MATCHES "#define ${prefix}_VERSION_${part} ([0-9]+)\n")
      message(FATAL_ERROR "${header} does not define ${prefix}_VERSION_${part}")
    endif()
    list(APPEND parts ${CMAKE_MATCH_1})
  endforeach()
  list(JOIN parts "." version)
  set(${variable} "${version}" PARENT_SCOPE)
endfunction()

read_version(version src/zancgi/zancgi.h ZANCGI)
