# A compiler cache is used where the machine has one and nobody has chosen another launcher.
find_program(CCACHE ccache)
mark_as_advanced(CCACHE)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()
