# Runs after CPack: takes the scripts out of the packages that only call ldconfig, which a trigger does.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(folder "${package}.content")
  execute_process(COMMAND dpkg-deb --raw-extract "${package}" "${folder}" COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE "${folder}/DEBIAN/postinst" "${folder}/DEBIAN/postrm")
  execute_process(COMMAND dpkg-deb --root-owner-group --build "${folder}" "${package}" OUTPUT_QUIET
    COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${folder}")
endforeach()
