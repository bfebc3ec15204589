# Looks for a base library on the system, whoever has made it: by a CMake
# package "tov", or by its headers <tov/...> and a library "tov", where
# pkg-config says or where compilers look. Made known as tov::tov, its archive
# as tov::tov_static; neither, where there is none.
#
# Our builds use this file, and so does the package that they install: who links
# a front end finds the base library as we did.
if(NOT TARGET tov::tov)
  find_package(tov CONFIG QUIET)
endif()
if(NOT TARGET tov::tov)
  find_package(PkgConfig QUIET)
  if(PKG_CONFIG_FOUND)
    pkg_check_modules(ZANCGI_TOV_PC QUIET tov)
  endif()
  find_path(ZANCGI_TOV_INCLUDE_DIR tov/str.h
    HINTS ${ZANCGI_TOV_PC_INCLUDE_DIRS})
  find_library(ZANCGI_TOV_LIBRARY tov HINTS ${ZANCGI_TOV_PC_LIBRARY_DIRS})
  find_library(ZANCGI_TOV_ARCHIVE libtov.a HINTS ${ZANCGI_TOV_PC_LIBRARY_DIRS})
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
