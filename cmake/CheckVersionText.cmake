# cmake -DPLUGIN=<file> -DEXPECTED="<name> <version>" -P CheckVersionText.cmake
# Fails unless the file holds exactly one version text of the plug-in's name
# and it is EXPECTED: a stale or doubled text would mislead whoever reads it.
string(REGEX REPLACE " .*" "" name "${EXPECTED}")
file(STRINGS "${PLUGIN}" found REGEX "^${name} [0-9]")
list(LENGTH found count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "${PLUGIN}: expected one text '${name} <version>', found ${count}: ${found}")
endif()
if(NOT found STREQUAL EXPECTED)
  message(FATAL_ERROR "${PLUGIN}: version text '${found}', project version text '${EXPECTED}'")
endif()
message(STATUS "${PLUGIN}: ${found}")
