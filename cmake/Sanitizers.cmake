# Sanitizer builds. Both apply to every target of the build, tests included.
if(DUVO_SANITIZE_ADDRESS AND DUVO_SANITIZE_THREAD)
  message(FATAL_ERROR "AddressSanitizer and ThreadSanitizer cannot be combined")
endif()
if(DUVO_SANITIZE_ADDRESS)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
if(DUVO_SANITIZE_THREAD)
  # -Wno-tsan: Boost.Asio's handlers use fences, which GCC warns ThreadSanitizer does not model.
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -Wno-tsan)
  add_link_options(-fsanitize=thread)
endif()
