# Tests of what is delivered rather than of behaviour: the plug-in names its
# version in plain text (driver/version_note.cpp), equal to project(VERSION),
# followed by " hardened" in the hardened build.
if(ABCL_HARDENED)
  set(abcl_expected_version_text "${PROJECT_NAME} ${PROJECT_VERSION} hardened")
else()
  set(abcl_expected_version_text "${PROJECT_NAME} ${PROJECT_VERSION}")
endif()
add_test(NAME delivery.plugin_version_text
         COMMAND ${CMAKE_COMMAND} -DPLUGIN=$<TARGET_FILE:AB_ControlLogix_CompactLogix>
                 "-DEXPECTED=${abcl_expected_version_text}"
                 -P ${PROJECT_SOURCE_DIR}/cmake/CheckVersionText.cmake)
set_tests_properties(delivery.plugin_version_text PROPERTIES LABELS unit)
# The hardened plug-in a default build makes beside its own.
if(TARGET AB_ControlLogix_CompactLogix_hardened)
  add_test(NAME delivery.hardened_plugin_version_text
           COMMAND ${CMAKE_COMMAND} -DPLUGIN=$<TARGET_FILE:AB_ControlLogix_CompactLogix_hardened>
                   "-DEXPECTED=${PROJECT_NAME} ${PROJECT_VERSION} hardened"
                   -P ${PROJECT_SOURCE_DIR}/cmake/CheckVersionText.cmake)
  set_tests_properties(delivery.hardened_plugin_version_text PROPERTIES LABELS unit)
endif()
