# Builds everything with the sanitizers of DIRWELL_SANITIZE. What they are told beyond their defaults is linked into each
# program, so that it holds however the program is started.
add_compile_options(-fsanitize=${DIRWELL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
add_link_options(-fsanitize=${DIRWELL_SANITIZE})

if(DIRWELL_SANITIZE STREQUAL "thread")
  add_library(sanitizer_settings STATIC ${CMAKE_SOURCE_DIR}/tests/sanitizers/thread.cpp)
  target_link_libraries(dirwell_flags INTERFACE sanitizer_settings)
  target_link_options(dirwell_flags INTERFACE -Wl,--undefined=__tsan_default_options)
  # The thread sanitizer does not see fences. The bus's loop runs on one thread and needs none.
  target_compile_definitions(dirwell_flags INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
endif()
