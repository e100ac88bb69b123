# SPDX-License-Identifier: MIT
# What needs no kernel.
set(QRN_TRANSPORT_CORE_SOURCES)
foreach(file boot_question boot_records checksum frame neighbours place)
  list(APPEND QRN_TRANSPORT_CORE_SOURCES ${CMAKE_CURRENT_LIST_DIR}/core/${file}.cpp)
endforeach()
