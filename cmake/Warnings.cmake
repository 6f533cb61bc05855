# Project warning flags, applied to our own targets only.
function(duvo_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-missing-field-initializers)
endfunction()
