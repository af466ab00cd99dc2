# What makes a memory fault hard to use: programs at random addresses, guarded stacks and calls, link tables that
# can't be written once the program runs, checked copies. tests/app/hardening_test.cmake looks for it in the program.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

check_pie_supported(LANGUAGES CXX)  # with CMAKE_POSITION_INDEPENDENT_CODE: executables are linked with -pie
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)

foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "NVO_HAS${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    add_compile_options(${flag})
  endif()
endforeach()

# Copies are checked where the optimizer knows their room; the sanitizers check more, and by themselves.
if(NOT NVO_SANITIZE)
  add_compile_options($<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
                      $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
endif()
