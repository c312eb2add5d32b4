# What the platform builds its programs with, against writes past an end and jumps into the middle:
# for the program and what it loads, in optimised builds, for the C library's checks need the optimiser.
include(CheckCXXCompilerFlag)

set(HNETD_HARDENING -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
foreach(flag -fcf-protection -mbranch-protection=standard) # x86, Arm
  string(MAKE_C_IDENTIFIER "HNETD_HAS${flag}" has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    list(APPEND HNETD_HARDENING ${flag})
  endif()
endforeach()
