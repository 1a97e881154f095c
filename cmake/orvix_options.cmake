# Compile options shared by every target of the project.
add_library(orvix_options INTERFACE)
target_compile_options(orvix_options INTERFACE
  -Wall -Wextra -Werror -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough)

if(ORVIX_SANITIZE)
  target_compile_options(orvix_options INTERFACE
    -fsanitize=${ORVIX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(orvix_options INTERFACE -fsanitize=${ORVIX_SANITIZE})
endif()
