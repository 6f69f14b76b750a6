# Builds everything with the sanitizers of DIRWELL_SANITIZE. What they are told beyond their defaults is linked into each
# program, so that it holds however the program is started.
add_compile_options(-fsanitize=${DIRWELL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
add_link_options(-fsanitize=${DIRWELL_SANITIZE})

# Whole: nothing of it is named by a program, and the thread sanitizer's own library, which comes first, has the same
# names.
if(DIRWELL_SANITIZE STREQUAL "thread")
  set(settings thread)
elseif(DIRWELL_SANITIZE STREQUAL "address,undefined")
  set(settings address)
endif()
if(DEFINED settings)
  add_library(sanitizer_settings STATIC ${CMAKE_SOURCE_DIR}/tests/sanitizers/${settings}.cpp)
  target_link_libraries(dirwell_flags INTERFACE $<LINK_LIBRARY:WHOLE_ARCHIVE,sanitizer_settings>)
endif()
if(DIRWELL_SANITIZE STREQUAL "thread")
  # The thread sanitizer does not see fences. The bus's loop runs on one thread and needs none.
  target_compile_definitions(dirwell_flags INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
endif()
