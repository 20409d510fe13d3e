# What `cmake --install` puts where, in components: runtime and separation (the shared libraries), models, development
# (headers, archives, CMake package, pkg-config files), tools (the programs, installed by tools/) and plugins (installed by
# plugins/).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(zevrant_cmake_folder "${CMAKE_INSTALL_LIBDIR}/cmake/zevrant")

install(TARGETS zevrant EXPORT zevrantTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(TARGETS zevrant_static EXPORT zevrantStaticTargets
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(TARGETS zevrant_separation_shared EXPORT zevrantTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT separation NAMELINK_COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(TARGETS zevrant_separation_static EXPORT zevrantStaticTargets
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES engine/interface/zevrant.h engine/interface/zevrant.hpp
    separation/zevrant_separation.h separation/zevrant_separation.hpp
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)

if(ZEVRANT_OBJC)
  install(TARGETS zevrant_objc ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)
  install(FILES engine/interface/EngineAdapterObjC.h
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)
endif()

install(EXPORT zevrantTargets NAMESPACE zevrant::
  DESTINATION "${zevrant_cmake_folder}" COMPONENT development)
install(EXPORT zevrantStaticTargets NAMESPACE zevrant::
  DESTINATION "${zevrant_cmake_folder}" COMPONENT development)
configure_package_config_file(cmake/zevrantConfig.cmake.in "${PROJECT_BINARY_DIR}/zevrantConfig.cmake"
  INSTALL_DESTINATION "${zevrant_cmake_folder}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/zevrantConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/zevrantConfig.cmake" "${PROJECT_BINARY_DIR}/zevrantConfigVersion.cmake"
  DESTINATION "${zevrant_cmake_folder}" COMPONENT development)

# The pkg-config file finds its prefix from its own place, so that an installed tree may be moved.
file(RELATIVE_PATH zevrant_prefix_from_pc "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" zevrant_prefix_from_pc "${zevrant_prefix_from_pc}")
configure_file(cmake/zevrant.pc.in "${PROJECT_BINARY_DIR}/zevrant.pc" @ONLY)
configure_file(cmake/zevrant-separation.pc.in "${PROJECT_BINARY_DIR}/zevrant-separation.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/zevrant.pc" "${PROJECT_BINARY_DIR}/zevrant-separation.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

# The example hosts, to be read and built with one line each.
install(FILES examples/stream_file.c examples/realtime_host.cpp examples/stream_stems.c examples/realtime_separation.cpp
    examples/wav.h
  DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/libzevrant-dev/examples" COMPONENT development)

# The models that ship, for the separation library and the programs to find by name.
install(DIRECTORY models/ DESTINATION "${CMAKE_INSTALL_DATADIR}/zevrant/models" COMPONENT models
  FILES_MATCHING PATTERN "*.zevrant")

# What each component is called as a package, and the papers that go with it: whose work is inside, under which terms,
# and what changed.
set(zevrant_package_runtime "libzevrant${PROJECT_VERSION_MAJOR}")
set(zevrant_package_separation "libzevrant-separation${PROJECT_VERSION_MAJOR}")
set(zevrant_package_models zevrant-models)
set(zevrant_package_development libzevrant-dev)
set(zevrant_package_tools zevrant-tools)
set(zevrant_package_plugins zevrant-plugins)
set(zevrant_components runtime separation models development)
if(ZEVRANT_PROGRAM)
  list(APPEND zevrant_components tools)
endif()
if(TARGET zevrant_ladspa OR TARGET zevrant_lv2 OR TARGET zevrant_clap OR TARGET zevrant_vst3 OR TARGET zevrant_jack)
  list(APPEND zevrant_components plugins)
endif()
foreach(component IN LISTS zevrant_components)
  install(FILES THIRD_PARTY_NOTICES.md CHANGELOG.md
    DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/${zevrant_package_${component}}" COMPONENT ${component})
endforeach()
