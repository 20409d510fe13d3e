# What every target of ours is compiled with. Contraction is off, because the order and the fusing
# of multiply-adds is written out in the code and no compiler may decide it.
function(zevrant_compile_settings target)
  target_compile_features(${target} PRIVATE cxx_std_20 c_std_99)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF C_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE
    -ffp-contract=off -fno-math-errno
    -Wall -Wextra -Wpedantic -Wconversion -Wno-sign-conversion -Wshadow
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>  # g++ 12 falsely sees its own std::string overlap
    $<$<BOOL:${ZEVRANT_WERROR}>:-Werror>)
  if(ZEVRANT_SANITIZE)
    target_compile_definitions(${target} PRIVATE ZEVRANT_SANITIZED)
    target_compile_options(${target} PRIVATE -fsanitize=${ZEVRANT_SANITIZE} -fno-sanitize-recover=all
      -fno-omit-frame-pointer
      $<$<OR:$<C_COMPILER_ID:Clang>,$<CXX_COMPILER_ID:Clang>>:-fno-sanitize=function,vptr>)  # they need C++ in C programs
    target_link_options(${target} PUBLIC -fsanitize=${ZEVRANT_SANITIZE})
  endif()
endfunction()
