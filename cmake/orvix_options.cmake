# Compile options shared by every target of the project. Each target links this PRIVATE: the
# warnings are the project's own and never reach a project that links the libraries.
add_library(orvix_options INTERFACE)
target_compile_options(orvix_options INTERFACE
  -Wall -Wextra -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough)

# Warnings as errors: on in the presets and in CI, off in a plain build, so that a compiler with
# new warnings doesn't stop a build of the libraries elsewhere.
if(ORVIX_WERROR)
  target_compile_options(orvix_options INTERFACE -Werror)
endif()

if(ORVIX_SANITIZE)
  target_compile_options(orvix_options INTERFACE
    -fsanitize=${ORVIX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(orvix_options INTERFACE -fsanitize=${ORVIX_SANITIZE})
endif()
