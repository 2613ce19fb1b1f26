# What is installed of the library and of the stand-ins, and what other build systems find them by. Everything is found
# from where it is read, so an installed tree may be moved.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake)
set(pc_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Of the folders that CMAKE_INSTALL_* name, those within the prefix; others stay where they are.
string(REPLACE " " "\\ " pc_prefix "${CMAKE_INSTALL_PREFIX}")
if(NOT IS_ABSOLUTE "${pc_folder}")
  file(RELATIVE_PATH to_prefix "/prefix/${pc_folder}" "/prefix")
  string(REGEX REPLACE "/$" "" to_prefix "${to_prefix}")
  set(pc_prefix "\${pcfiledir}/${to_prefix}")
endif()
foreach(folder INCLUDEDIR LIBDIR)
  set(pc_${folder} "\${prefix}/${CMAKE_INSTALL_${folder}}")
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${folder}}")
    set(pc_${folder} "${CMAKE_INSTALL_${folder}}")
  endif()
endforeach()

# drix_install_pc(LIBRARY DESCRIPTION)
function(drix_install_pc library description)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${CMAKE_CURRENT_BINARY_DIR}/install/${library}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/install/${library}.pc DESTINATION ${pc_folder})
endfunction()

# drix_install_package(PACKAGE): its Config file, and the one with which find_package compares the version.
function(drix_install_package package)
  set(generated ${CMAKE_CURRENT_BINARY_DIR}/install/${package})
  configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/${package}Config.cmake.in ${generated}Config.cmake
    INSTALL_DESTINATION ${package_folder}/${package} PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR
    NO_CHECK_REQUIRED_COMPONENTS_MACRO)
  write_basic_package_version_file(${generated}Compatibility.cmake COMPATIBILITY SameMajorVersion)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/ConfigVersion.cmake.in ${generated}ConfigVersion.cmake @ONLY)
  install(FILES ${generated}Config.cmake ${generated}ConfigVersion.cmake ${generated}Compatibility.cmake
          DESTINATION ${package_folder}/${package})
endfunction()

install(TARGETS drix_fib6
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/drix_fib6)
drix_install_pc(drix_fib6 "${PROJECT_DESCRIPTION}")
drix_install_package(drix_fib6)

if(DRIX_INSTALL_STANDINS)
  if(DRIX_BUS_LIBRARY)
    message(FATAL_ERROR "DRIX_INSTALL_STANDINS would install a second libkelvodrix.so beside ${DRIX_BUS_LIBRARY}. "
                        "Turn it off, or take DRIX_BUS_LIBRARY out of ${CMAKE_BINARY_DIR} with -DDRIX_BUS_LIBRARY=")
  endif()
  install(TARGETS kelvodrix drix_services LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  if(TARGET kelvodrix_nats)
    install(TARGETS kelvodrix_nats LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
  install(FILES platform/kelvodrix/kelvodrix.h platform/services/drix_services.h
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/drix_fib6)
  drix_install_pc(kelvodrix "Stand-in for the platform's message bus")
  drix_install_pc(drix_services "Stand-in for the platform's log and memory services")
  drix_install_package(kelvodrix)
  # The bus is installed beside the library, wherever that is.
  set_target_properties(drix_fib6 PROPERTIES INSTALL_RPATH "$ORIGIN")
endif()

install(FILES README.md CHANGELOG.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING REGEX "\\.(md|svg|png)$")
install(FILES examples/quick_start.c examples/quick_start.cpp examples/live.labels examples/routes.labels
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
