# pxf_add_plugin(NAME [INSTALL_DIR dir] source...) for drivers built outside
# the library's source tree (find_package(PXFbase) includes this file).
#
# Builds the driver module NAME.so (target pxf_plugin_NAME) with the
# library's headers.  A driver resolves the library's names against the
# program that loads it, so it does not link the library.  The module is
# installed into INSTALL_DIR, by default <libdir>/pxf/plugins of the
# project's own prefix; put that directory in PXF_PLUGIN_PATH, or pass
# INSTALL_DIR ${PXFbase_PLUGIN_DIR} to install beside the shipped drivers.
function(pxf_add_plugin name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "INSTALL_DIR" "")
  if(NOT arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "pxf_add_plugin(${name}): no sources")
  endif()
  if(NOT arg_INSTALL_DIR)
    include(GNUInstallDirs)
    set(arg_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/pxf/plugins)
  endif()
  set(target pxf_plugin_${name})
  add_library(${target} MODULE ${arg_UNPARSED_ARGUMENTS})
  target_include_directories(${target} PRIVATE $<TARGET_PROPERTY:PXFbase::PXFbase,INTERFACE_INCLUDE_DIRECTORIES>)
  set_target_properties(${target} PROPERTIES PREFIX "" OUTPUT_NAME ${name} C_VISIBILITY_PRESET default)
  install(TARGETS ${target} LIBRARY DESTINATION ${arg_INSTALL_DIR})
endfunction()
