# Firmware files of the simulated boards: the header that the simulated board
# checks (src/device/BoardProtocol.h), one file per model. Written at configure
# time into the build tree, where bring-up finds them beside the library or
# above the test programs, and installed under the data directory.
set(CHRONOTICK_FIRMWARE_DIR ${PROJECT_BINARY_DIR}/firmware)
# A fixed build number keeps the files, and the version text, reproducible.
set(CHRONOTICK_FIRMWARE_BUILD 1767225600)
set(CHRONOTICK_FIRMWARE_FILES)
foreach(entry "ChronotickController.bit=CT-20" "ChronotickUltraController.bit=CT-Ultra")
  string(REPLACE "=" ";" entry "${entry}")
  list(GET entry 0 file)
  list(GET entry 1 model)
  # CONFIGURE rewrites the file only when its text changes.
  file(CONFIGURE OUTPUT ${CHRONOTICK_FIRMWARE_DIR}/${file}
       CONTENT "CHRONOTICK-FIRMWARE 1\nmodel=${model}\ninterface=4\nbuild=${CHRONOTICK_FIRMWARE_BUILD}\n")
  list(APPEND CHRONOTICK_FIRMWARE_FILES ${CHRONOTICK_FIRMWARE_DIR}/${file})
endforeach()
install(FILES ${CHRONOTICK_FIRMWARE_FILES} DESTINATION ${CMAKE_INSTALL_DATADIR}/chronotick/firmware)
