# Compiles through ccache where it is installed, unless whoever configures the build, or embeds us, has chosen a launcher.
if(PROJECT_IS_TOP_LEVEL)
  find_program(CCACHE_PROGRAM ccache)
  mark_as_advanced(CCACHE_PROGRAM)
  foreach(language C CXX)
    if(CCACHE_PROGRAM AND NOT CMAKE_${language}_COMPILER_LAUNCHER)
      # What it has to overlook to keep what is compiled with a precompiled header.
      set(CMAKE_${language}_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE_PROGRAM})
    endif()
  endforeach()
endif()
