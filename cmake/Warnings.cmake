# Every target of ours links `warnings`; headers of dependencies are system headers and stay quiet.
add_library(warnings INTERFACE)
target_compile_options(warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
  $<$<BOOL:${DROVANE_WERROR}>:-Werror>)

# What clang checks about locks. Not for tests, which take a lock twice on purpose.
add_library(lock_checks INTERFACE)
target_compile_options(lock_checks INTERFACE $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
