# Warnings and sanitizers of every target of ours.
function(bsp_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  if(BSP_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(BSP_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${BSP_SANITIZE} -fno-omit-frame-pointer
                           -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${BSP_SANITIZE})
  endif()
endfunction()
