# Warnings and sanitizers for our own code, as a target to link privately: nothing of it reaches those who embed the libraries.
add_library(qlk_build_options INTERFACE)
target_compile_options(qlk_build_options INTERFACE -Wall -Wextra -Wconversion -Wshadow -Wformat=2)
# g++ 12 takes "text" + std::string for an overlapping copy once it has inlined the standard library (mended in 13). clang still looks.
target_compile_options(qlk_build_options INTERFACE
                       $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
if(QLK_WARNINGS_AS_ERRORS)
  target_compile_options(qlk_build_options INTERFACE -Werror)
endif()
# Messages that name a source file name it from the root of the sources, wherever they were built.
target_compile_options(qlk_build_options INTERFACE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(QLK_SANITIZE)
  target_compile_options(qlk_build_options INTERFACE -fsanitize=${QLK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(qlk_build_options INTERFACE -fsanitize=${QLK_SANITIZE})
endif()
