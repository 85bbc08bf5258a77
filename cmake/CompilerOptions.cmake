# One interface target carries the warning and strictness flags for every target of ours.
add_library(selvaro_options INTERFACE)
target_compile_options(selvaro_options INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wnon-virtual-dtor -Wold-style-cast)
target_compile_definitions(selvaro_options INTERFACE
  QT_NO_CAST_FROM_ASCII
  QT_NO_NARROWING_CONVERSIONS_IN_CONNECT
  QT_DISABLE_DEPRECATED_UP_TO=0x060400)
if(SELVARO_SANITIZE)
  target_compile_options(selvaro_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(selvaro_options INTERFACE -fsanitize=address,undefined)
endif()
if(SELVARO_TSAN)
  if(SELVARO_SANITIZE)
    message(FATAL_ERROR "ThreadSanitizer and AddressSanitizer cannot be combined")
  endif()
  target_compile_options(selvaro_options INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(selvaro_options INTERFACE -fsanitize=thread)
endif()
