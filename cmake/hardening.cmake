# SPDX-License-Identifier: MIT
# The flags of "dpkg-buildflags" with hardening=+all. Those for calls and returns exist on some processors only.
include(CheckCXXCompilerFlag)
add_compile_options(-fstack-protector-strong -fstack-clash-protection -Wformat -Werror=format-security)
add_compile_definitions($<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
foreach(flag -fcf-protection -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "ZEL_HAS${flag}" has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    add_compile_options(${flag})
  endif()
endforeach()
add_link_options(-Wl,-z,relro -Wl,-z,now)
