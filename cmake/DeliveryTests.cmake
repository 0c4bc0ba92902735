# Tests of what is delivered rather than of behaviour: the plug-in names its
# version in plain text (driver/version_note.cpp), equal to project(VERSION).
add_test(NAME delivery.plugin_version_text
         COMMAND ${CMAKE_COMMAND} -DPLUGIN=$<TARGET_FILE:AB_ControlLogix_CompactLogix>
                 -DEXPECTED=${PROJECT_NAME}\ ${PROJECT_VERSION}
                 -P ${PROJECT_SOURCE_DIR}/cmake/CheckVersionText.cmake)
set_tests_properties(delivery.plugin_version_text PROPERTIES LABELS unit)
