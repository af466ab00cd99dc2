# Compiler settings for every target. Floating point is part of the output, so the contraction of products and
# sums into fused operations is forbidden here, in one place, for all of them.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

option(NVO_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
set(NVO_SANITIZE "" CACHE STRING "Sanitizers for every target, as in -fsanitize=")
option(NVO_COVERAGE "Instrument for coverage reports" OFF)

add_compile_options(-ffp-contract=off -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  add_compile_options(-Wno-restrict)  # GCC 12 sees overlaps in std::string concatenation that are not there
endif()
if(NVO_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()
if(NVO_SANITIZE)
  add_compile_options(-fsanitize=${NVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${NVO_SANITIZE})
endif()
if(NVO_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
include(Hardening)
