# One way to make a GoogleTest program and register its tests with CTest:
#
#   abcl_add_test_program(<target>
#     SOURCES <files...>
#     [LIBRARIES <targets...>]      linked privately, GoogleTest's main included
#     [DEFINITIONS <NAME=value...>] compile definitions
#     [DEPENDS <targets...>]        built before the program (programs it starts)
#     [LABELS <labels...>]          every test of the program carries these
#     [PREFIX <text>]               put before each discovered test name
#     [TIMEOUT <seconds>])          per test
#
# A program whose first source mentions ABCL_TEST_LABEL_THREAD runs threads:
# its tests also carry the label "thread", which the ThreadSanitizer run
# selects. The labels are set by a script that ctest reads after the
# discovered tests, because a list of labels handed to gtest_discover_tests
# is split apart inside its discovery script.
find_package(GTest REQUIRED)
find_package(Threads REQUIRED)
include(GoogleTest)

function(abcl_add_test_program target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "PREFIX;TIMEOUT"
                        "SOURCES;LIBRARIES;DEFINITIONS;DEPENDS;LABELS")
  add_executable(${target} ${arg_SOURCES})
  target_link_libraries(${target} PRIVATE ${arg_LIBRARIES} GTest::gtest GTest::gtest_main
                        Threads::Threads ${CMAKE_DL_LIBS})
  target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  if(arg_DEFINITIONS)
    target_compile_definitions(${target} PRIVATE ${arg_DEFINITIONS})
  endif()
  if(arg_DEPENDS)
    add_dependencies(${target} ${arg_DEPENDS})
  endif()
  abcl_strict_warnings(${target})

  set(labels ${arg_LABELS})
  list(GET arg_SOURCES 0 first_source)
  file(READ ${first_source} content)
  if(content MATCHES "ABCL_TEST_LABEL_THREAD")
    list(APPEND labels thread)
  endif()

  set(discover_properties)
  if(arg_TIMEOUT)
    set(discover_properties PROPERTIES TIMEOUT ${arg_TIMEOUT})
  endif()
  set(prefix_args)
  if(arg_PREFIX)
    set(prefix_args TEST_PREFIX ${arg_PREFIX})
  endif()
  gtest_discover_tests(${target} ${prefix_args} NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST
                       DISCOVERY_TIMEOUT 120 ${discover_properties})

  if(labels)
    set(label_script "${CMAKE_CURRENT_BINARY_DIR}/${target}_labels.cmake")
    file(WRITE "${label_script}"
      "foreach(t IN LISTS ${target}_TESTS)\n"
      "  set_tests_properties(\"\${t}\" PROPERTIES LABELS \"${labels}\")\n"
      "endforeach()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${label_script}")
  endif()
endfunction()
