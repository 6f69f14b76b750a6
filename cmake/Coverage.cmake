# Counts the lines and branches that run; tests/coverage/run.py collects and reports them.
# The counters are shared by the threads of a process, so they are added to atomically. Nothing is optimised: a line
# that was folded into another could not be told apart.
add_library(coverage_exit STATIC ${CMAKE_SOURCE_DIR}/tests/coverage/exit.cpp)
target_link_libraries(dirwell_flags INTERFACE coverage_exit)
target_compile_options(dirwell_flags INTERFACE --coverage -O0 -fprofile-update=atomic)
target_link_options(dirwell_flags INTERFACE --coverage -Wl,--wrap=_exit -Wl,--wrap=__gcov_fork
                    -Wl,--undefined=__wrap__exit)
