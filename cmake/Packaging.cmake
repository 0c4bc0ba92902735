# Debian packages through CPack (`cpack -G DEB` in a build directory; see
# scripts/package.sh), one per install component:
#
#   ab-controllogix-compactlogix        runtime: the plug-in
#   ab-controllogix-compactlogix-hardened
#                                       runtime_hardened: the hardened plug-in at the
#                                       same path, in place of the default one
#                                       (with -DABCL_BUILD_HARDENED_PLUGIN=ON)
#   ab-controllogix-compactlogix-dev    development: header, CMake and pkg-config files
#   ab-controllogix-compactlogix-tools  tools: hostsim, plcsim, df1tap, their man pages
#                                       and the Wireshark dissector of their captures
#
# For the build machine's architecture dpkg-shlibdeps works out the
# dependencies. A cross build cannot ask dpkg about the target's libraries, so
# there the dependencies come from ABCL_DEB_<COMPONENT>_DEPENDS.
set(ABCL_DEB_MAINTAINER "AB_ControlLogix_CompactLogix maintainers <maintainers@ab-controllogix-compactlogix.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")
set(ABCL_DEB_RUNTIME_DEPENDS "" CACHE STRING "Depends of the plug-in package (cross builds)")
set(ABCL_DEB_TOOLS_DEPENDS "" CACHE STRING "Depends of the tools package (cross builds)")

if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(_abcl_deb_arch armhf)
else()
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE _abcl_deb_arch
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()

set(ABCL_DEB_NAME ab-controllogix-compactlogix)
set(CPACK_PACKAGE_NAME ${ABCL_DEB_NAME})
set(CPACK_PACKAGE_VENDOR "AB_ControlLogix_CompactLogix")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${ABCL_DEB_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "ControlLogix/CompactLogix DF1 communication plug-in")
set(CPACK_PACKAGE_INSTALL_DIRECTORY ${ABCL_DEB_NAME})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(_abcl_deb_components runtime development tools)
if(ABCL_BUILD_HARDENED_PLUGIN AND NOT ABCL_HARDENED)
  list(APPEND CPACK_COMPONENTS_ALL runtime_hardened)
  list(APPEND _abcl_deb_components runtime_hardened)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${_abcl_deb_arch})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${ABCL_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
if(NOT CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(_abcl_exact "${PROJECT_VERSION}-1")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ABCL_DEB_NAME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${ABCL_DEB_RUNTIME_DEPENDS}")
# Each description is one string (set() with several arguments would make a
# list, and its semicolons would end up in the package's description).
string(CONCAT CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "ControlLogix/CompactLogix DF1 communication plug-in for HMI panels\n"
    "The plug-in an HMI runtime loads with dlopen to talk DF1/CIP over a serial\n"
    "line to a Logix controller. It is installed in its own folder under the\n"
    "library directory, ab-controllogix-compactlogix/.")

# The two plug-in packages put a file at the same path: one or the other.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONFLICTS ${ABCL_DEB_NAME}-hardened)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_REPLACES ${ABCL_DEB_NAME}-hardened)

set(CPACK_DEBIAN_RUNTIME_HARDENED_PACKAGE_NAME ${ABCL_DEB_NAME}-hardened)
set(CPACK_DEBIAN_RUNTIME_HARDENED_PACKAGE_DEPENDS "${ABCL_DEB_RUNTIME_DEPENDS}")
set(CPACK_DEBIAN_RUNTIME_HARDENED_PACKAGE_CONFLICTS ${ABCL_DEB_NAME})
set(CPACK_DEBIAN_RUNTIME_HARDENED_PACKAGE_REPLACES ${ABCL_DEB_NAME})
# What depends on the plug-in (the -dev package) is served by either.
set(CPACK_DEBIAN_RUNTIME_HARDENED_PACKAGE_PROVIDES "${ABCL_DEB_NAME} (= ${_abcl_exact})")
string(CONCAT CPACK_COMPONENT_RUNTIME_HARDENED_DESCRIPTION
    "ControlLogix/CompactLogix DF1 plug-in, hardened build\n"
    "The same plug-in, file and entry points, built to match every reply to its\n"
    "request (transaction number, addresses, CIP service and status, data length),\n"
    "to report a silent controller during reads, and to refuse host input that\n"
    "builds no sound frame. It takes the place of ab-controllogix-compactlogix.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${ABCL_DEB_NAME}-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${ABCL_DEB_NAME} (= ${_abcl_exact}), qtbase5-dev")
string(CONCAT CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "ControlLogix/CompactLogix DF1 plug-in - development files\n"
    "The public header of the plug-in's records and entry points, with a CMake\n"
    "package (find_package(AB_ControlLogix_CompactLogix)) and a pkg-config file\n"
    "that name the installed plug-in for hosts that load it with dlopen.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${ABCL_DEB_NAME}-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${ABCL_DEB_TOOLS_DEPENDS}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "${ABCL_DEB_NAME} (= ${_abcl_exact})")
string(CONCAT CPACK_COMPONENT_TOOLS_DESCRIPTION
    "ControlLogix/CompactLogix DF1 plug-in - simulators\n"
    "hostsim loads the plug-in as an HMI runtime does and shows the controller's\n"
    "data; plcsim answers DF1/CIP requests as a controller's serial port would,\n"
    "on a pseudo-terminal or a serial device; df1tap forwards a panel's serial\n"
    "line to a controller unchanged and captures what crosses it for Wireshark.\n"
    "The Wireshark dissector of those captures is installed as\n"
    "${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/${ABCL_PLUGIN_FOLDER}/wireshark/df1.lua.")

# Every package carries its own copyright file and changelog, as Debian asks.
foreach(component IN LISTS _abcl_deb_components)
  string(TOUPPER ${component} _upper)
  set(_pkg ${CPACK_DEBIAN_${_upper}_PACKAGE_NAME})
  set(_dir ${PROJECT_BINARY_DIR}/debian-doc/${_pkg})
  file(MAKE_DIRECTORY ${_dir})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/debian-copyright.in ${_dir}/copyright @ONLY)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/debian-changelog.in ${_dir}/changelog.Debian @ONLY)
  # gzip -n: no name or time stamp, so the package's bytes do not depend on when it was made.
  execute_process(COMMAND gzip -9nf ${_dir}/changelog.Debian)
  install(FILES ${_dir}/copyright ${_dir}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_pkg} COMPONENT ${component})
endforeach()

include(CPack)
