# Debian packages, one for each component of the installation: `cpack -G DEB` in the build folder. Configure with the
# preset `package`, so that files go where Debian has them.
set(CPACK_PACKAGE_NAME zevrant)
set(CPACK_PACKAGE_VENDOR "zevrant")
set(CPACK_PACKAGE_CONTACT "zevrant <packages@zevrant.invalid>" CACHE STRING "Maintainer field of the packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${zevrant_components})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The loader's cache is the business of a trigger; the scripts that CPack writes for it are taken out again.
set(CPACK_POST_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/FinishPackages.cmake")
file(WRITE "${PROJECT_BINARY_DIR}/packaging/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${PROJECT_BINARY_DIR}/packaging/triggers")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${zevrant_package_runtime}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION 
  "Runs streaming neural networks on audio, block by block, with low latency.
This package holds the shared library, which has a plain C interface.")

set(CPACK_DEBIAN_SEPARATION_PACKAGE_CONTROL_EXTRA "${PROJECT_BINARY_DIR}/packaging/triggers")
set(CPACK_DEBIAN_SEPARATION_PACKAGE_NAME "${zevrant_package_separation}")
set(CPACK_DEBIAN_SEPARATION_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_SEPARATION_PACKAGE_RECOMMENDS "${zevrant_package_models}")
set(CPACK_COMPONENT_SEPARATION_DESCRIPTION
  "Runs streaming neural networks on audio, block by block, with low latency.
This package holds the shared library for applications: models by name,
every part of the sound at once, any sample rate, live.")

set(CPACK_DEBIAN_MODELS_PACKAGE_NAME "${zevrant_package_models}")
set(CPACK_DEBIAN_MODELS_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_MODELS_PACKAGE_ARCHITECTURE all)
set(CPACK_COMPONENT_MODELS_DESCRIPTION
  "Runs streaming neural networks on audio, block by block, with low latency.
This package holds the models that ship.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME "${zevrant_package_development}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}), \
${CPACK_DEBIAN_SEPARATION_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS libspeexdsp-dev)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Runs streaming neural networks on audio, block by block, with low latency.
This package holds C and C++ headers, the static libraries (that of the
separation takes libspeexdsp-dev to link), a CMake package, pkg-config
files and example hosts.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME "${zevrant_package_tools}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS ffmpeg)  # for what libsndfile does not read
set(CPACK_COMPONENT_TOOLS_DESCRIPTION 
  "Runs streaming neural networks on audio, block by block, with low latency.
This package holds the program, which splits recordings into stems, mixes
them anew and describes models.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "${zevrant_package_models}")

set(CPACK_DEBIAN_PLUGINS_PACKAGE_NAME "${zevrant_package_plugins}")
set(CPACK_DEBIAN_PLUGINS_PACKAGE_SECTION sound)
set(CPACK_COMPONENT_PLUGINS_DESCRIPTION
  "Runs streaming neural networks on audio, block by block, with low latency.
This package holds plug-ins that split sound into its parts and mix them anew,
for the hosts that musicians and desktops have.")
set(CPACK_DEBIAN_PLUGINS_PACKAGE_DEPENDS "${zevrant_package_models}")

# What Debian wants beside the files: a changelog in its own form, and a copyright file.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE "${PROJECT_BINARY_DIR}/packaging/changelog" "zevrant (${PROJECT_VERSION}) unstable; urgency=medium\n
  * CHANGELOG.md in this folder lists what changed.\n
 -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
file(READ LICENSE licence)
file(WRITE "${PROJECT_BINARY_DIR}/packaging/copyright" "Copyright (C) 2026 the owner of zevrant\n\n${licence}
THIRD_PARTY_NOTICES.md in this folder holds the terms of the code of others.
The Apache License, version 2.0, is in /usr/share/common-licenses/Apache-2.0.\n")
find_program(ZEVRANT_GZIP gzip)
if(ZEVRANT_GZIP)
  execute_process(COMMAND "${ZEVRANT_GZIP}" -9n -f -k changelog WORKING_DIRECTORY "${PROJECT_BINARY_DIR}/packaging")
  foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    install(FILES "${PROJECT_BINARY_DIR}/packaging/changelog.gz" "${PROJECT_BINARY_DIR}/packaging/copyright"
      DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/${zevrant_package_${component}}" COMPONENT ${component})
  endforeach()
endif()

include(CPack)
