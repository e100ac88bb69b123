# SPDX-License-Identifier: MIT
# What needs no kernel.
set(QRN_TRANSPORT_CORE_SOURCES)
foreach(file boot_question boot_records checksum frame neighbours place)
  list(APPEND QRN_TRANSPORT_CORE_SOURCES ${CMAKE_CURRENT_LIST_DIR}/core/${file}.cpp)
endforeach()
# The driver, beside them.
set(QRN_TRANSPORT_DRIVER_SOURCES)
foreach(file binding entry receiving sending slots)
  list(APPEND QRN_TRANSPORT_DRIVER_SOURCES ${CMAKE_CURRENT_LIST_DIR}/driver/${file}.cpp)
endforeach()
