# Options that every object of a build must share: sanitizers, hardening, library assertions.
if(DROVANE_SANITIZE)
  add_compile_options(-fsanitize=${DROVANE_SANITIZE} -fno-sanitize-recover=all
    -fno-omit-frame-pointer -O1)
  add_link_options(-fsanitize=${DROVANE_SANITIZE})
endif()

if(DROVANE_SANITIZE MATCHES address)
  # Each message record becomes a heap block of its own, so that a use after destroy is seen.
  add_compile_definitions(DROVANE_NO_RECYCLING=1)
endif()

if(DROVANE_SANITIZE MATCHES undefined)
  # This check probes memory through a pipe, and takes having no descriptor left for a bad object.
  add_compile_options(-fno-sanitize=vptr)
endif()

if(CMAKE_BUILD_TYPE STREQUAL Debug)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
else()
  # Debian's compilers may define the level themselves.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
endif()
add_link_options(-Wl,-z,relro,-z,now)

if(DROVANE_COVERAGE)
  include(Coverage)
endif()
