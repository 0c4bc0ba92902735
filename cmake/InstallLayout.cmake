# What `cmake --install` lays out besides the plug-in and its header (those are
# in driver/CMakeLists.txt), each in a CPack component:
#
#   runtime      <libdir>/ab-controllogix-compactlogix/libAB_ControlLogix_CompactLogix.so
#   development  <includedir>/ab_controllogix_compactlogix.h,
#                <libdir>/cmake/AB_ControlLogix_CompactLogix/ (find_package),
#                <libdir>/pkgconfig/ab-controllogix-compactlogix.pc
#   tools        <bindir>/hostsim, <bindir>/plcsim, <bindir>/df1tap, their man pages,
#                <datadir>/ab-controllogix-compactlogix/wireshark/df1.lua (the
#                dissector of the captures the tools write)
#   every one    the documentation in <docdir>
#
# Every installed path is relative to the prefix, so the tree can be moved or
# unpacked anywhere (a package root, a panel's image).
include(CMakePackageConfigHelpers)

set(ABCL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME})

if(TARGET hostsim AND TARGET plcsim_program)
  install(TARGETS hostsim plcsim_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          COMPONENT tools)
endif()
if(TARGET df1tap)
  install(TARGETS df1tap RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
# Every tool writes --capture files; the dissector that shows them goes with
# the tools, for `wireshark -X lua_script:` or a copy into the plugins folder.
if(ABCL_BUILD_TOOLS)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/wireshark/df1.lua
          DESTINATION ${CMAKE_INSTALL_DATADIR}/${ABCL_PLUGIN_FOLDER}/wireshark COMPONENT tools)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT development FILES_MATCHING PATTERN "*.md")

# find_package(AB_ControlLogix_CompactLogix): an INTERFACE target with the
# header and Qt Core, and the installed plug-in's path.
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/AB_ControlLogix_CompactLogixConfig.cmake.in
  ${PROJECT_BINARY_DIR}/${PROJECT_NAME}Config.cmake
  INSTALL_DESTINATION ${ABCL_INSTALL_CMAKEDIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR ABCL_INSTALL_PLUGINDIR)
# The interface is the records' binary layout: any other major version differs.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/${PROJECT_NAME}ConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/${PROJECT_NAME}Config.cmake
              ${PROJECT_BINARY_DIR}/${PROJECT_NAME}ConfigVersion.cmake
        DESTINATION ${ABCL_INSTALL_CMAKEDIR} COMPONENT development)

# pkg-config: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH ABCL_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ABCL_PC_TO_PREFIX "${ABCL_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/ab-controllogix-compactlogix.pc.in
               ${PROJECT_BINARY_DIR}/ab-controllogix-compactlogix.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ab-controllogix-compactlogix.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# Man pages of the tools, made from their --help by help2man when the
# programs run on this machine; a cross build takes the pages of a native
# build instead (ABCL_MAN_PAGES_DIR, as scripts/package.sh does).
set(ABCL_MAN_PAGES_DIR "" CACHE PATH "Ready-made hostsim.1.gz, plcsim.1.gz and df1tap.1.gz (for cross builds)")
find_program(ABCL_HELP2MAN help2man)
set(_abcl_man_pages)
if(ABCL_MAN_PAGES_DIR)
  set(_abcl_man_pages ${ABCL_MAN_PAGES_DIR}/hostsim.1.gz ${ABCL_MAN_PAGES_DIR}/plcsim.1.gz
                       ${ABCL_MAN_PAGES_DIR}/df1tap.1.gz)
elseif(ABCL_HELP2MAN AND NOT CMAKE_CROSSCOMPILING AND TARGET hostsim AND TARGET plcsim_program
       AND TARGET df1tap)
  set(_abcl_hostsim_name "host simulator for the ControlLogix/CompactLogix plug-in")
  set(_abcl_plcsim_name "controller simulator for the ControlLogix/CompactLogix plug-in")
  set(_abcl_df1tap_name "serial tap between an HMI panel and a ControlLogix/CompactLogix controller")
  foreach(tool hostsim plcsim df1tap)
    set(target ${tool})
    if(tool STREQUAL "plcsim")
      set(target plcsim_program)
    endif()
    set(page ${PROJECT_BINARY_DIR}/man/${tool}.1)
    # Compressed without name or time stamp, as Debian installs man pages.
    add_custom_command(OUTPUT ${page}.gz
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
      COMMAND ${ABCL_HELP2MAN} --no-info --no-discard-stderr --section=1
              --version-string=${PROJECT_VERSION} --name=${_abcl_${tool}_name}
              --output=${page} $<TARGET_FILE:${target}>
      COMMAND gzip -9nf ${page}
      DEPENDS ${target} VERBATIM)
    list(APPEND _abcl_man_pages ${page}.gz)
  endforeach()
  add_custom_target(abcl_man_pages ALL DEPENDS ${_abcl_man_pages})
endif()
if(_abcl_man_pages)
  install(FILES ${_abcl_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()
