# SPDX-License-Identifier: MIT
# qrn_fmt_32, qrn_fmt_64: the fmt library for each word size, of which Debian has one only. Compiled once: in every
# source file that formats, it takes longer than the rest of the file.
find_package(fmt REQUIRED)
foreach(bits 32 64)
  if(fmt_VERSION VERSION_LESS 10)
    add_library(qrn_fmt_${bits} STATIC ${CMAKE_SOURCE_DIR}/programs/fmt.cpp)
  else()  # what a library has to contain differs
    add_library(qrn_fmt_${bits} INTERFACE)
    target_compile_definitions(qrn_fmt_${bits} INTERFACE FMT_HEADER_ONLY)
  endif()
endforeach()
if(fmt_VERSION VERSION_LESS 10)
  target_link_libraries(qrn_fmt_32 PRIVATE qrn_32bit)
endif()
