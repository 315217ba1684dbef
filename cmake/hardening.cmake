# What makes a memory error harder to exploit, for our libraries and programs; part of qlk_build_options.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()

target_compile_definitions(qlk_build_options INTERFACE _GLIBCXX_ASSERTIONS)
target_compile_options(qlk_build_options INTERFACE -fstack-protector-strong)
foreach(option -fcf-protection -fstack-clash-protection)
  string(MAKE_C_IDENTIFIER "QLK_HAS${option}" supported)
  check_cxx_compiler_flag(${option} ${supported})
  if(${supported})
    target_compile_options(qlk_build_options INTERFACE ${option})
  endif()
endforeach()
target_link_options(qlk_build_options INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)

# Fortified calls need the optimizer. The sanitizers check the same calls themselves and are blind behind the fortified ones, and their
# libraries leave symbols open that -z defs forbids.
if(NOT QLK_SANITIZE)
  set(optimized $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
  target_compile_options(qlk_build_options INTERFACE $<${optimized}:-U_FORTIFY_SOURCE> $<${optimized}:-D_FORTIFY_SOURCE=3>)
  target_link_options(qlk_build_options INTERFACE -Wl,-z,defs)
endif()
