# Looks for a base library on the system, whoever has made it: by a CMake
# package "tov", or by its headers <tov/...> and a library "tov", where
# pkg-config says or where compilers look. Made known as tov::tov, its archive
# as tov::tov_static; neither, where there is none.
#
# Our builds use this file, and so does the package that they install: who links
# a front end finds the base library as we did.
#
# A place that the user names, such as by CMAKE_PREFIX_PATH, comes before all
# that is installed elsewhere, in whichever of these forms the library is there.
set(only_named_places NO_CMAKE_PACKAGE_REGISTRY NO_CMAKE_SYSTEM_PACKAGE_REGISTRY
  NO_SYSTEM_ENVIRONMENT_PATH NO_CMAKE_SYSTEM_PATH)
if(NOT TARGET tov::tov)
  find_package(tov CONFIG QUIET ${only_named_places})
endif()
if(NOT TARGET tov::tov)
  find_path(ZANCGI_TOV_NAMED_PLACE tov/str.h
    NO_SYSTEM_ENVIRONMENT_PATH NO_CMAKE_SYSTEM_PATH)
  mark_as_advanced(ZANCGI_TOV_NAMED_PLACE)
  if(NOT ZANCGI_TOV_NAMED_PLACE)
    find_package(tov CONFIG QUIET)
  endif()
endif()
unset(only_named_places)
if(NOT TARGET tov::tov)
  find_package(PkgConfig QUIET)
  if(PKG_CONFIG_FOUND)
    pkg_check_modules(ZANCGI_TOV_PC QUIET tov)
    if(ZANCGI_TOV_NAMED_PLACE
        AND NOT ZANCGI_TOV_NAMED_PLACE IN_LIST ZANCGI_TOV_PC_INCLUDE_DIRS
        AND NOT ZANCGI_TOV_NAMED_PLACE IN_LIST
          CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
      # It knows another one only.
      foreach(result INCLUDE_DIRS LIBRARY_DIRS STATIC_LIBRARIES CFLAGS_OTHER)
        unset(ZANCGI_TOV_PC_${result} CACHE)
      endforeach()
    endif()
  endif()
  find_path(ZANCGI_TOV_INCLUDE_DIR tov/str.h
    HINTS ${ZANCGI_TOV_PC_INCLUDE_DIRS})
  find_library(ZANCGI_TOV_LIBRARY tov HINTS ${ZANCGI_TOV_PC_LIBRARY_DIRS})
  if(ZANCGI_TOV_LIBRARY)
    # Of another folder it would be another library's.
    cmake_path(GET ZANCGI_TOV_LIBRARY PARENT_PATH ZANCGI_TOV_FOLDER)
    find_library(ZANCGI_TOV_ARCHIVE libtov.a
      PATHS "${ZANCGI_TOV_FOLDER}" NO_DEFAULT_PATH)
  endif()
  mark_as_advanced(
    ZANCGI_TOV_INCLUDE_DIR ZANCGI_TOV_LIBRARY ZANCGI_TOV_ARCHIVE)

  # What an archive is made of may need what the shared library has itself.
  set(ZANCGI_TOV_ARCHIVE_NEEDS ${ZANCGI_TOV_PC_STATIC_LIBRARIES})
  list(REMOVE_ITEM ZANCGI_TOV_ARCHIVE_NEEDS tov)
  if(ZANCGI_TOV_INCLUDE_DIR AND ZANCGI_TOV_LIBRARY)
    add_library(tov::tov UNKNOWN IMPORTED)
    set_target_properties(tov::tov PROPERTIES
      IMPORTED_LOCATION "${ZANCGI_TOV_LIBRARY}")
    if(ZANCGI_TOV_ARCHIVE)
      add_library(tov::tov_static UNKNOWN IMPORTED)
      set_target_properties(tov::tov_static PROPERTIES
        IMPORTED_LOCATION "${ZANCGI_TOV_ARCHIVE}"
        INTERFACE_LINK_LIBRARIES "${ZANCGI_TOV_ARCHIVE_NEEDS}")
    endif()
    foreach(library tov::tov tov::tov_static)
      if(TARGET ${library})
        set_target_properties(${library} PROPERTIES
          INTERFACE_COMPILE_OPTIONS "${ZANCGI_TOV_PC_CFLAGS_OTHER}"
          INTERFACE_INCLUDE_DIRECTORIES
            "${ZANCGI_TOV_INCLUDE_DIR};${ZANCGI_TOV_PC_INCLUDE_DIRS}")
      endif()
    endforeach()
  endif()
endif()
