# Where things go, and how other projects find them there. Whatever is installed
# finds its neighbours by the way to them, so that the folder can be moved.
include(CMakePackageConfigHelpers)

set(package_dir "${PROJECT_SOURCE_DIR}/cmake/package")
set(configured_dir "${PROJECT_BINARY_DIR}/package")
set(pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# install_library_pair(NAME): what add_library_pair has made, with its public
# headers, its CMake package, and the rules for the folders that it uses. The
# component NAME is what front ends need to run, NAME-dev what is needed to build
# them.
function(install_library_pair name)
  set(cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/${name}")
  set(libraries ${name} ${name}_static)
  if(TARGET ${name}_standalone)
    list(APPEND libraries ${name}_standalone)
  endif()

  install(TARGETS ${libraries} EXPORT ${name}
    LIBRARY
      DESTINATION "${CMAKE_INSTALL_LIBDIR}"
      COMPONENT ${name}
      NAMELINK_COMPONENT ${name}-dev
    ARCHIVE
      DESTINATION "${CMAKE_INSTALL_LIBDIR}"
      COMPONENT ${name}-dev
    PUBLIC_HEADER
      DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${name}"
      COMPONENT ${name}-dev
    INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
  install(EXPORT ${name}
    FILE ${name}-targets.cmake
    NAMESPACE ${name}::
    DESTINATION "${cmake_dir}"
    COMPONENT ${name}-dev)

  set(version_file "${configured_dir}/${name}-config-version.cmake")
  write_basic_package_version_file("${version_file}"
    COMPATIBILITY SameMajorVersion)
  install(FILES "${package_dir}/${name}-config${config_variant}.cmake"
    DESTINATION "${cmake_dir}"
    RENAME ${name}-config.cmake
    COMPONENT ${name}-dev)
  install(FILES "${version_file}" ${config_helpers}
    DESTINATION "${cmake_dir}"
    COMPONENT ${name}-dev)

  # Its name changes with the library's, so that two can be installed side by
  # side.
  get_target_property(soversion ${name} SOVERSION)
  install(FILES "${PROJECT_SOURCE_DIR}/src/${name}/tmpfiles.conf"
    DESTINATION lib/tmpfiles.d
    RENAME lib${name}${soversion}.conf
    COMPONENT ${name})
endfunction()

if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR
    IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  message(FATAL_ERROR "CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR must be "
    "relative: what is installed can be moved as a whole")
endif()

# The way from a pkg-config file to the root of the installation.
file(RELATIVE_PATH way_to_prefix "/${pkgconfig_dir}" "/")
string(REGEX REPLACE "/$" "" way_to_prefix "${way_to_prefix}")

# install_pkgconfig(NAME COMPONENT): cmake/package/NAME.pc.in with its holes
# filled.
function(install_pkgconfig name component)
  foreach(library zancgi zancgi_static zancgi_standalone)
    if(TARGET ${library})
      get_target_property(options ${library} INTERFACE_LINK_OPTIONS)
      list(JOIN options " " ${library}_options)
    endif()
  endforeach()
  set(file "${configured_dir}/${name}.pc")
  configure_file("${package_dir}/${name}.pc.in" "${file}.in" @ONLY)
  file(GENERATE OUTPUT "${file}" INPUT "${file}.in")
  install(FILES "${file}"
    DESTINATION "${pkgconfig_dir}"
    COMPONENT ${component})
endfunction()

# Names the base library of the system to those who look for ours.
function(refer_to_base_library_of_the_system)
  set(config_variant -system PARENT_SCOPE)
  set(config_helpers
    "${PROJECT_SOURCE_DIR}/cmake/find-base-library.cmake" PARENT_SCOPE)

  find_package(PkgConfig QUIET)
  if(PKG_CONFIG_FOUND)
    pkg_check_modules(ZANCGI_TOV_PC QUIET tov)
  endif()
  if(ZANCGI_TOV_PC_FOUND)
    set(base_package tov PARENT_SCOPE)
    set(base_package_of_archive tov PARENT_SCOPE)
  endif()

  set(library tov::tov)
  if(TARGET tov::tov_static)
    set(library tov::tov_static)
  endif()
  set(words "$<TARGET_FILE:${library}>")
  get_property(needs TARGET ${library} PROPERTY INTERFACE_LINK_LIBRARIES)
  foreach(need ${needs})
    if(need MATCHES "^[-/]")
      list(APPEND words "${need}")
    elseif(need MATCHES "^[A-Za-z0-9_+.-]+$" AND NOT TARGET ${need})
      list(APPEND words "-l${need}")
    else()
      message(WARNING "zancgi-static.pc cannot tell that ${library} needs "
        "${need}")
    endif()
  endforeach()
  list(JOIN words " " line)
  set(base_link_line "${line}" PARENT_SCOPE)
endfunction()

if(ZANCGI_TOV STREQUAL "system")
  refer_to_base_library_of_the_system()
else()
  set(base_package tov)
  set(base_link_line "-l:libtov.a -l:libm.a")
  install_library_pair(tov)
  install_pkgconfig(tov tov-dev)
endif()
install_library_pair(zancgi)
install(FILES "${package_dir}/zancgi-components.cmake"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/zancgi"
  COMPONENT zancgi-dev)
install_pkgconfig(zancgi zancgi-dev)
install_pkgconfig(zancgi-static zancgi-dev)
if(TARGET zancgi_standalone)
  install_pkgconfig(zancgi-standalone zancgi-dev)
endif()

# Every copy wants its licence, and ours has pugixml inside.
set(components zancgi zancgi-dev zancgi-doc zancgi-tools)
if(ZANCGI_TOV STREQUAL "bundled")
  foreach(component tov tov-dev)
    list(APPEND components ${component})
    install(FILES "${PROJECT_SOURCE_DIR}/src/tov/LICENSE.pugixml"
      DESTINATION "${CMAKE_INSTALL_DOCDIR}"
      COMPONENT ${component})
  endforeach()
endif()
foreach(component ${components})
  install(FILES "${PROJECT_SOURCE_DIR}/LICENSE"
    DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    COMPONENT ${component})
endforeach()

include(cmake/Sbom.cmake)

# install_matching(PATTERN DESTINATION COMPONENT): the tree's files that match.
function(install_matching pattern destination component)
  file(GLOB files CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${pattern}")
  install(FILES ${files}
    DESTINATION "${destination}"
    COMPONENT ${component})
endfunction()

# Installed, the tools carry their version; in the tree they read the header.
set(tools_dir "${PROJECT_SOURCE_DIR}/tools")
set(packed_dir "${PROJECT_BINARY_DIR}/tools")
configure_file("${tools_dir}/zancgi_tools/version.py"
  "${packed_dir}/zancgi_tools/version.py" @ONLY)

# zancgi-request is one file, so that it can be copied to a server.
find_program(PYTHON_OF_THE_SYSTEM python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(PYTHON_OF_THE_SYSTEM)
  file(GLOB packed_modules CONFIGURE_DEPENDS
    "${tools_dir}/zancgi_request/*.py" "${tools_dir}/zancgi_tools/*.py")
  add_custom_command(OUTPUT "${packed_dir}/zancgi-request"
    COMMAND "${PYTHON_OF_THE_SYSTEM}" -IB "${tools_dir}/pack.py"
      "${PROJECT_VERSION}" "${packed_dir}/zancgi-request"
    DEPENDS "${tools_dir}/pack.py" "${tools_dir}/zancgi-request" ${packed_modules}
    VERBATIM)
  add_custom_target(zancgi_request ALL DEPENDS "${packed_dir}/zancgi-request")
  install(PROGRAMS "${packed_dir}/zancgi-request"
    DESTINATION "${CMAKE_INSTALL_BINDIR}"
    COMPONENT zancgi-tools)

  # What bash completes after the tools' names.
  set(completions_dir "${packed_dir}/completions")
  file(GLOB doctor_modules CONFIGURE_DEPENDS "${tools_dir}/zancgi_doctor/*.py")
  add_custom_command(
    OUTPUT "${completions_dir}/zancgi-request" "${completions_dir}/zancgi-doctor"
    COMMAND "${PYTHON_OF_THE_SYSTEM}" -IB "${tools_dir}/completion.py"
      "${completions_dir}"
    DEPENDS "${tools_dir}/completion.py" "${tools_dir}/zancgi_doctor/checks.ini"
      ${packed_modules} ${doctor_modules}
    VERBATIM)
  add_custom_target(zancgi_completions ALL
    DEPENDS "${completions_dir}/zancgi-request")
  install(DIRECTORY "${completions_dir}/"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
    COMPONENT zancgi-tools)
else()
  message(STATUS "zancgi-request is left out: there is no /usr/bin/python3")
endif()

install(PROGRAMS "${tools_dir}/zancgi-doctor"
  DESTINATION "${CMAKE_INSTALL_BINDIR}"
  COMPONENT zancgi-tools)
# The doctor's modules, which it looks for from where it is itself.
cmake_path(SET modules_dir NORMALIZE
  "${CMAKE_INSTALL_BINDIR}/../share/zancgi-tools")
install(DIRECTORY "${tools_dir}/zancgi_doctor" "${tools_dir}/zancgi_tools"
  DESTINATION "${modules_dir}"
  COMPONENT zancgi-tools
  PATTERN __pycache__ EXCLUDE
  PATTERN version.py EXCLUDE)
install(FILES "${packed_dir}/zancgi_tools/version.py"
  DESTINATION "${modules_dir}/zancgi_tools"
  COMPONENT zancgi-tools)
install_matching(docs/man/*.1 "${CMAKE_INSTALL_MANDIR}/man1" zancgi-tools)
install_matching(docs/man/*.3 "${CMAKE_INSTALL_MANDIR}/man3" zancgi-dev)

# As they lie in the tree, since they point to one another.
install_matching(*.md "${CMAKE_INSTALL_DOCDIR}" zancgi-doc)
install_matching(docs/*.md "${CMAKE_INSTALL_DOCDIR}/docs" zancgi-doc)
install_matching(docs/plots/* "${CMAKE_INSTALL_DOCDIR}/docs/plots" zancgi-doc)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/examples/panel"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples"
  COMPONENT zancgi-doc
  USE_SOURCE_PERMISSIONS
  PATTERN __pycache__ EXCLUDE)
# Made by the target of this name, which wants Doxygen.
install(DIRECTORY "${PROJECT_BINARY_DIR}/documentation/html"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT zancgi-doc
  OPTIONAL)
