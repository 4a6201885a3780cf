# What makes a fault in this code an end of the process instead of a way in. It costs little; the
# figures are in docs/performance.md. Not with sanitizers, which find more and want the code as it is.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

function(corvid_harden target)
  if(NOT CORVID_HARDEN OR CORVID_SANITIZE OR CORVID_FUZZ)
    return()
  endif()
  target_compile_options(${target} INTERFACE -fstack-protector-strong)
  target_compile_definitions(${target} INTERFACE $<$<COMPILE_LANGUAGE:CXX>:_GLIBCXX_ASSERTIONS>)
  target_link_options(${target} INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
  # By processor and by compiler.
  foreach(flag -fstack-clash-protection -fcf-protection=full -mbranch-protection=standard
               -ftrivial-auto-var-init=zero)
    string(MAKE_C_IDENTIFIER CORVID_HAS${flag} known)
    # clang takes what another processor's code would need, and then complains that it goes unused.
    set(CMAKE_REQUIRED_FLAGS -Werror)
    check_cxx_compiler_flag(${flag} ${known})
    unset(CMAKE_REQUIRED_FLAGS)
    if(${known})
      target_compile_options(${target} INTERFACE ${flag})
    endif()
  endforeach()
  # The library checks sizes only in optimised code, and complains otherwise.
  string(TOUPPER "${CMAKE_BUILD_TYPE}" type)
  set(CMAKE_REQUIRED_FLAGS "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${type}}")
  check_cxx_source_compiles("#ifndef __OPTIMIZE__\n#error\n#endif\nint main() {}" CORVID_IS_OPTIMISED)
  if(CORVID_IS_OPTIMISED)
    target_compile_options(${target} INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  endif()
endfunction()
