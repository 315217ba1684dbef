# Warnings and sanitizers for our own code, as a target to link privately: nothing of it reaches those who embed the libraries.
add_library(qlk_build_options INTERFACE)
target_compile_options(qlk_build_options INTERFACE -Wall -Wextra -Wconversion -Wshadow -Wformat=2)
if(QLK_WARNINGS_AS_ERRORS)
  target_compile_options(qlk_build_options INTERFACE -Werror)
endif()
# Messages that name a source file name it from the root of the sources, wherever they were built.
target_compile_options(qlk_build_options INTERFACE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(QLK_SANITIZE)
  target_compile_options(qlk_build_options INTERFACE -fsanitize=${QLK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(qlk_build_options INTERFACE -fsanitize=${QLK_SANITIZE})
endif()
