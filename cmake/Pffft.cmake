# PFFFT as a static library. Its sources come with a pinned npm package (npm ci puts them under
# node_modules), or from the copy that PFFFT_ROOT names, here or in the environment: a folder with pffft.c and pffft.h.
set(PFFFT_ROOT "$ENV{PFFFT_ROOT}" CACHE PATH "Folder with pffft.c and pffft.h; empty for the pinned npm package")
set(pffft_folder "${PFFFT_ROOT}")
if(NOT pffft_folder)
  set(pffft_folder "${PROJECT_SOURCE_DIR}/node_modules/@echogarden/pffft-wasm/src")
  if(NOT EXISTS "${pffft_folder}/pffft.c")
    message(STATUS "Fetching the pinned PFFFT sources with npm ci")
    execute_process(COMMAND npm ci --ignore-scripts --no-audit --no-fund
      WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}" OUTPUT_QUIET)
  endif()
endif()
if(NOT EXISTS "${pffft_folder}/pffft.c")
  message(FATAL_ERROR "No pffft.c in ${pffft_folder}: run scripts/bootstrap, or set PFFFT_ROOT")
endif()

add_library(zevrant_pffft STATIC "${pffft_folder}/pffft.c" "${PROJECT_SOURCE_DIR}/engine/DspCore/PffftMemory.c")
set_source_files_properties("${pffft_folder}/pffft.c" PROPERTIES
  COMPILE_DEFINITIONS "malloc=zevrantPffftMalloc;free=zevrantPffftFree")
target_include_directories(zevrant_pffft PRIVATE "${PROJECT_SOURCE_DIR}/engine")
target_include_directories(zevrant_pffft SYSTEM PUBLIC "$<BUILD_INTERFACE:${pffft_folder}>")
target_compile_options(zevrant_pffft PRIVATE -O3 -ffp-contract=off -w)
set_target_properties(zevrant_pffft PROPERTIES POSITION_INDEPENDENT_CODE ON C_VISIBILITY_PRESET hidden)
target_link_libraries(zevrant_pffft PRIVATE m)
