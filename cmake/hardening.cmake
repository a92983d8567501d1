# What reads hostile files ends when its stack or a buffer is overrun, instead of going on with it. Without optimisation
# no call is fortified; sanitizers look at the same calls themselves. A libc that knows no level 3 takes it for 2.
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fstack-protector-strong QUORLIN_HAS_STACK_PROTECTOR)
check_cxx_compiler_flag(-fstack-clash-protection QUORLIN_HAS_STACK_CLASH)

function(quorlin_harden target)
  if(QUORLIN_SANITIZE OR QUORLIN_FUZZ)
    return()
  endif()
  target_compile_options(${target} PRIVATE
    $<$<BOOL:${QUORLIN_HAS_STACK_PROTECTOR}>:-fstack-protector-strong>
    $<$<BOOL:${QUORLIN_HAS_STACK_CLASH}>:-fstack-clash-protection>
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>)
endfunction()
