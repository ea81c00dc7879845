# SPDX-License-Identifier: MIT
# The hardening Debian builds its packages with, for every target defined after
# this file is included: stack protector, format-string errors, full RELRO
# with immediate binding, a position-independent tool, and checked libc calls
# (_FORTIFY_SOURCE) where the compiler optimises. `hardening-check` on the
# installed tool and library confirms it (packaging/check-packages.sh).
option(WCAN_HARDENING "Build with Debian's hardening flags" ON)
if(NOT WCAN_HARDENING)
  return()
endif()

# The top-level CMAKE_POSITION_INDEPENDENT_CODE makes the executables PIE once
# the linker is known to take -pie.
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)

add_compile_options(-fstack-protector-strong -Wformat -Werror=format-security)
add_link_options(-Wl,-z,relro,-z,now)

# _FORTIFY_SOURCE needs optimisation and warns without it, so -O0 (Debug)
# builds leave it out; so do the sanitizer builds, whose interceptors check
# the same calls and miss the fortified variants. A level the compiler or the
# environment already set is replaced, not redefined (a warning).
if(NOT WCAN_SANITIZE)
  set(optimised $<OR:$<CONFIG:Release>,$<CONFIG:RelWithDebInfo>,$<CONFIG:MinSizeRel>>)
  add_compile_options($<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=2>)
endif()
