# SPDX-License-Identifier: MIT
# A floppy image and a CD image with the driver, its INF, the files for text-mode setup and the scripts.
set(media_files qrndisk.inf txtsetup.oem qrndisk.tag qrndisk.reg remove.reg install.cmd remove.cmd)
set(media_folder ${CMAKE_CURRENT_BINARY_DIR}/media)
set(media_sources)
foreach(file ${media_files})
  list(APPEND media_sources ${CMAKE_CURRENT_SOURCE_DIR}/windows/${file})
endforeach()
find_program(MFORMAT mformat)
find_program(XORRISO xorriso)
set(images)
if(MFORMAT AND XORRISO)
  set(images ${media_folder}/qrndisk.img ${media_folder}/qrndisk.iso)
endif()
add_custom_command(OUTPUT ${media_folder}/stamp
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/windows/make-media ${media_folder} ${QRN_OUTPUT_DIRECTORY}/qrndisk.sys
            ${media_sources}
    COMMAND ${CMAKE_COMMAND} -E touch ${media_folder}/stamp
    DEPENDS ${media_sources} ${CMAKE_CURRENT_SOURCE_DIR}/windows/make-media ${QRN_OUTPUT_DIRECTORY}/qrndisk.sys
    BYPRODUCTS ${images} VERBATIM)
add_custom_target(windows_media ALL DEPENDS ${media_folder}/stamp)
add_dependencies(windows_media qrndisk_sys)
foreach(file ${media_files})
  install(FILES ${media_folder}/files/${file} DESTINATION ${driver_package} COMPONENT windows)
endforeach()
foreach(image qrndisk.img qrndisk.iso)
  install(FILES ${media_folder}/${image} DESTINATION ${driver_package} COMPONENT windows OPTIONAL)
endforeach()
