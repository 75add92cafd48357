# Compiler flags shared by every target of the project.
add_library(nk_options INTERFACE)
target_compile_options(nk_options INTERFACE -Wall -Wextra -Wpedantic)
if(NK_WERROR)
  target_compile_options(nk_options INTERFACE -Werror)
endif()

if(NK_SANITIZE)
  string(REPLACE "," ";" _nk_sanitizers "${NK_SANITIZE}")
  set(_nk_san_flags -fno-omit-frame-pointer)
  foreach(s IN LISTS _nk_sanitizers)
    list(APPEND _nk_san_flags -fsanitize=${s})
  endforeach()
  if("undefined" IN_LIST _nk_sanitizers)
    list(APPEND _nk_san_flags -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${_nk_san_flags})
  add_link_options(${_nk_san_flags})
endif()

# Fuzzing: the library is instrumented for coverage too, so that libFuzzer is
# guided by what happens inside it, not only in the target's own code.
if(NK_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
