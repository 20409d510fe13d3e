# Runs at build time: PROGRAM explains itself, HELP2MAN and GZIP make a page of it and one of each command in FOLDER/man1,
# and the completions of the shells come beside them. With NAME it is another program, without commands, and a page is all.
cmake_policy(SET CMP0007 NEW)
file(REMOVE_RECURSE "${FOLDER}")
file(MAKE_DIRECTORY "${FOLDER}/man1")

# help2man takes the name of a page from the name of what it runs.
function(make_page name arguments)
  file(WRITE "${FOLDER}/${name}" "#!/bin/sh\nexec '${PROGRAM}' ${arguments} \"$@\"\n")
  file(CHMOD "${FOLDER}/${name}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
  execute_process(COMMAND "${FOLDER}/${name}" --help OUTPUT_VARIABLE help COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCH "^[^\n]*[^.\n]" summary "${help}")
  execute_process(COMMAND "${HELP2MAN}" --no-info --section 1 --name "${summary}" --version-string "${VERSION}"
    --source "zevrant ${VERSION}" --manual "User Commands" --output "${FOLDER}/man1/${name}.1" "${FOLDER}/${name}"
    COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND "${GZIP}" -9nf "${FOLDER}/man1/${name}.1" COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE "${FOLDER}/${name}")
  set(help "${help}" PARENT_SCOPE)
endfunction()

if(NAME)
  make_page("${NAME}" "")
  file(TOUCH "${FOLDER}/stamp")
  return()
endif()
make_page(zevrant "")
string(REGEX REPLACE ".*\nSubcommands:\n" "" commands "${help}")
string(REGEX REPLACE "\n\n.*" "" commands "${commands}")
string(REGEX MATCHALL "(^|\n)  [a-z]+ " commands "${commands}")
foreach(command IN LISTS commands)
  string(STRIP "${command}" command)
  make_page("zevrant-${command}" "${command}")
endforeach()

foreach(shell_and_file bash:zevrant zsh:_zevrant fish:zevrant.fish)
  string(REPLACE ":" ";" pair "${shell_and_file}")
  list(GET pair 0 shell)
  list(GET pair 1 file)
  execute_process(COMMAND "${PROGRAM}" completion "${shell}" OUTPUT_FILE "${FOLDER}/${file}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(TOUCH "${FOLDER}/stamp")
