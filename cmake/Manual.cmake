# Man pages and shell completions, made by the program that was built, so that its help is the one source. Debian has
# the pages gzip'ed.
find_program(ZEVRANT_HELP2MAN help2man)
find_program(ZEVRANT_GZIP gzip)
if(NOT ZEVRANT_MANUAL)
  return()
elseif(CMAKE_CROSSCOMPILING OR NOT ZEVRANT_HELP2MAN OR NOT ZEVRANT_GZIP)
  message(STATUS "Man pages are not made: that takes help2man, gzip and a program that runs here "
    "(scripts/bootstrap packages)")
  return()
endif()

set(manual "${PROJECT_BINARY_DIR}/manual")
add_custom_command(OUTPUT "${manual}/stamp"
  COMMAND "${CMAKE_COMMAND}" "-DPROGRAM=$<TARGET_FILE:zevrant_cli>" "-DFOLDER=${manual}"
    "-DVERSION=${PROJECT_VERSION}" "-DHELP2MAN=${ZEVRANT_HELP2MAN}" "-DGZIP=${ZEVRANT_GZIP}"
    -P "${PROJECT_SOURCE_DIR}/cmake/MakeManual.cmake"
  DEPENDS zevrant_cli "${PROJECT_SOURCE_DIR}/cmake/MakeManual.cmake"
  COMMENT "Making man pages and shell completions" VERBATIM)
add_custom_target(zevrant_manual ALL DEPENDS "${manual}/stamp")

install(DIRECTORY "${manual}/man1" DESTINATION "${CMAKE_INSTALL_MANDIR}" COMPONENT tools)
install(FILES "${manual}/zevrant" DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT tools)
install(FILES "${manual}/_zevrant" DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions" COMPONENT tools)
install(FILES "${manual}/zevrant.fish" DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d" COMPONENT tools)
