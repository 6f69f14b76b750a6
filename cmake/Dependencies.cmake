# Every library comes from Debian's packages; ./dev installs them.
find_package(Threads REQUIRED)
find_package(Boost 1.81 REQUIRED) # Asio and Beast, headers only
find_package(ICU 72 REQUIRED COMPONENTS uc i18n)
find_package(SQLite3 3.40 REQUIRED)
find_package(CLI11 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(jansson REQUIRED IMPORTED_TARGET jansson>=2.14)
pkg_check_modules(smartcols REQUIRED IMPORTED_TARGET smartcols)

# Flags that every file of ours is compiled with; third-party headers come in as SYSTEM and are left alone.
add_library(dirwell_flags INTERFACE)
target_compile_options(dirwell_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
                       -Woverloaded-virtual -Wcast-align -Wformat=2 -Werror)
# g++ 12 sees overlaps and overruns in the inlined operator+ of std::string that are not there (GCC bug 105651).
target_compile_options(dirwell_flags INTERFACE
                       $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict;-Wno-array-bounds;-Wno-stringop-overflow>)
# Sorters have no virtual destructor on purpose (ordering/sorters.h): each is destroyed as what it was made.
target_compile_options(dirwell_flags INTERFACE $<$<CXX_COMPILER_ID:Clang>:-Wno-delete-non-abstract-non-virtual-dtor>)
# clang 14 has the coroutines of C++20 and does not say so, without which the library and Asio keep theirs back.
target_compile_definitions(dirwell_flags INTERFACE _GNU_SOURCE
                           $<$<AND:$<CXX_COMPILER_ID:Clang>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,15>>:__cpp_impl_coroutine=201902L>)
# An overrun of a buffer ends the process. Sanitizers say more about it, and want neither.
if(CMAKE_BUILD_TYPE MATCHES Rel AND NOT DIRWELL_SANITIZE)
  target_compile_options(dirwell_flags INTERFACE -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
# Every symbol is bound when the program starts: what is bound later is bound anew in each forked request process.
target_link_options(dirwell_flags INTERFACE -Wl,-z,relro -Wl,-z,now)
target_include_directories(dirwell_flags INTERFACE ${CMAKE_SOURCE_DIR}/src)
target_link_libraries(dirwell_flags INTERFACE Threads::Threads)
