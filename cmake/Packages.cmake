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
set(CPACK_COMPONENTS_ALL runtime separation models development)
if(ZEVRANT_PROGRAM)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "libzevrant${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION 
  "The shared library: runs streaming neural networks on audio, block by block, behind a plain C interface.")

set(CPACK_DEBIAN_SEPARATION_PACKAGE_NAME "libzevrant-separation${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_SEPARATION_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_SEPARATION_PACKAGE_RECOMMENDS zevrant-models)
set(CPACK_COMPONENT_SEPARATION_DESCRIPTION 
  "The shared library for applications: models by name, every part of the sound at once, any sample rate, live.")

set(CPACK_DEBIAN_MODELS_PACKAGE_NAME zevrant-models)
set(CPACK_DEBIAN_MODELS_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_MODELS_PACKAGE_ARCHITECTURE all)
set(CPACK_COMPONENT_MODELS_DESCRIPTION "The models that ship with the engine.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzevrant-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}), \
${CPACK_DEBIAN_SEPARATION_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "libhwy-dev, libspeexdsp-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION 
  "C and C++ headers, the static libraries (which take libhwy-dev and libspeexdsp-dev to link), a CMake package and \
pkg-config files.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zevrant-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION sound)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION 
  "The programs that come with the engine.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS zevrant-models)

include(CPack)
