# The exr and jpeg drivers beside their libraries: built when both driver
# modules are.  The modules resolve the library's names against the program.
find_package(OpenEXR CONFIG QUIET)
find_package(JPEG QUIET)
if(NOT TARGET pxf_plugin_exr OR NOT TARGET pxf_plugin_jpeg OR NOT OpenEXR_FOUND OR NOT JPEG_FOUND)
  set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
  message(STATUS "formats_bench needs the exr and jpeg drivers: not built")
  return()
endif()
target_link_libraries(${name} PRIVATE OpenEXR::OpenEXR JPEG::JPEG ${CMAKE_DL_LIBS})
set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
add_dependencies(${name} pxf_plugin_exr pxf_plugin_jpeg)
target_compile_definitions(${name} PRIVATE PLUGIN_DIR="${PXF_PLUGIN_BUILD_DIR}")
