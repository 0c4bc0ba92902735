# ABCL_SANITIZE applies one sanitizer set to everything built here, so the
# driver, the tools and the tests are instrumented alike.
if(ABCL_SANITIZE)
  add_compile_options(-fsanitize=${ABCL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -g)
  add_link_options(-fsanitize=${ABCL_SANITIZE})
endif()
