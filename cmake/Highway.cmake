# The headers of Highway, which nothing needs once the library is built: engine/simd chooses the instruction set itself.
find_path(ZEVRANT_HIGHWAY_INCLUDE hwy/highway.h DOC "Folder that holds Highway's headers, as hwy/highway.h")
if(NOT ZEVRANT_HIGHWAY_INCLUDE)
  message(FATAL_ERROR "No hwy/highway.h: run scripts/bootstrap, or set ZEVRANT_HIGHWAY_INCLUDE")
endif()
add_library(zevrant_highway INTERFACE)
target_include_directories(zevrant_highway SYSTEM INTERFACE "${ZEVRANT_HIGHWAY_INCLUDE}")
