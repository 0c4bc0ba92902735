# abcl_add_subdirectories([EXCEPT <name>...]): adds every subdirectory of the
# current source directory that has a CMakeLists.txt, in name order, but the
# ones named. A new tool or test folder is then built without touching its
# parent's list.
function(abcl_add_subdirectories)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "" "EXCEPT")
  file(GLOB entries CONFIGURE_DEPENDS LIST_DIRECTORIES true ${CMAKE_CURRENT_SOURCE_DIR}/*)
  foreach(dir IN LISTS entries)
    get_filename_component(name ${dir} NAME)
    if(IS_DIRECTORY ${dir} AND EXISTS ${dir}/CMakeLists.txt AND NOT name IN_LIST arg_EXCEPT)
      add_subdirectory(${dir})
    endif()
  endforeach()
endfunction()
