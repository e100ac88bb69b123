# SPDX-License-Identifier: MIT
# Builds qrndisk.sys and qrnnet.sys beside the programs of this build, with the compiler of the Windows flavour in a
# build tree of its own.
include(ExternalProject)

find_program(QRN_MINGW_COMPILER i686-w64-mingw32-g++)
if(NOT QRN_MINGW_COMPILER)
  message(FATAL_ERROR "i686-w64-mingw32-g++ is missing (Debian package g++-mingw-w64-i686)")
endif()

ExternalProject_Add(qrndisk_sys
    SOURCE_DIR ${CMAKE_SOURCE_DIR}
    BINARY_DIR ${CMAKE_BINARY_DIR}/windows
    PREFIX ${CMAKE_BINARY_DIR}/windows-stamps
    CMAKE_GENERATOR ${CMAKE_GENERATOR}
    CMAKE_ARGS
        -DCMAKE_TOOLCHAIN_FILE=${CMAKE_SOURCE_DIR}/platform/windows/toolchain.cmake
        -DCMAKE_BUILD_TYPE=Release
        -DQRN_OUTPUT_DIRECTORY=${QRN_OUTPUT_DIRECTORY}
        -DCMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}
    BUILD_ALWAYS ON
    BUILD_COMMAND ${CMAKE_COMMAND} --build <BINARY_DIR> --parallel 2
    INSTALL_COMMAND ""
    BUILD_BYPRODUCTS ${QRN_OUTPUT_DIRECTORY}/qrndisk.sys ${QRN_OUTPUT_DIRECTORY}/qrnnet.sys)
