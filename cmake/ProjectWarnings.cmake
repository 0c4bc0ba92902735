# Strict warnings for the project's own targets only. They become errors only
# when the project asks for it (ABCL_WERROR, on in scripts/test.sh): a plain
# build, or a consumer's with another compiler or optimisation level, must not
# fail on a warning that compiler happens to raise.
option(ABCL_WERROR "Treat the project's own warnings as errors" OFF)

function(abcl_strict_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow)
  if(ABCL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
