# Strict warnings, as errors, for the project's own targets only.
function(abcl_strict_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Werror)
endfunction()
