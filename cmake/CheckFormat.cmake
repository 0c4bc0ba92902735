# Run by the format test (ctest -R format): fails when any C++ source of the
# project differs from what clang-format makes of it under the committed
# .clang-format. Files are collected when the test runs, so new files are
# checked without reconfiguring.
#   cmake -DCLANG_FORMAT=<program> -DSOURCE_DIR=<repository root> -P CheckFormat.cmake
set(files)
foreach(dir driver tools tests fuzz bench)
  file(GLOB_RECURSE found LIST_DIRECTORIES false
       ${SOURCE_DIR}/${dir}/*.cpp ${SOURCE_DIR}/${dir}/*.h)
  list(APPEND files ${found})
endforeach()
list(FILTER files EXCLUDE REGEX "/fuzz/corpus/")
list(LENGTH files count)
if(count EQUAL 0)
  message(FATAL_ERROR "no sources found under ${SOURCE_DIR}")
endif()
execute_process(COMMAND ${CLANG_FORMAT} --dry-run --Werror --style=file ${files}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "sources differ from .clang-format; fix with: "
                      "clang-format -i --style=file <files> (the differences are listed above)")
endif()
message(STATUS "${count} files follow .clang-format")
