# Counts which lines and branches are run (see script/coverage). The counters are exact with many
# threads, and processes that end by _exit or are killed write them too: every program has
# exit_writers, and it and every library tell it what writes their own counters.
add_library(exit_writers OBJECT ${CMAKE_CURRENT_LIST_DIR}/coverage/ExitWriters.cpp)
add_library(write_on_exit OBJECT ${CMAKE_CURRENT_LIST_DIR}/coverage/WriteOnExit.cpp)

add_compile_definitions(DROVANE_COVERAGE=1)
add_compile_options(--coverage -fprofile-update=atomic -fprofile-abs-path)
add_link_options(--coverage)
link_libraries(write_on_exit
  $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:exit_writers>)
