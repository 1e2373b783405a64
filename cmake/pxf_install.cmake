# Plug-in locations, the plug-in helper, and the install rules: library,
# headers, plug-ins and programs, plus a pkg-config file and a CMake
# package so that applications can build against an installed copy.
include(CMakePackageConfigHelpers)

# Plug-ins live in <libdir>/pxf/plugins, installed and in the build tree
# alike, so that programs find them at the same place relative to bin/.
set(PXF_PLUGIN_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/pxf/plugins)
set(PXF_PLUGIN_BUILD_DIR ${PROJECT_BINARY_DIR}/${PXF_PLUGIN_INSTALL_DIR})
set(PXF_PROGRAM_BUILD_DIR ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_BINDIR})
file(RELATIVE_PATH PXF_PLUGIN_DIR_FROM_BIN ${CMAKE_INSTALL_FULL_BINDIR}
     ${CMAKE_INSTALL_FULL_LIBDIR}/pxf/plugins)

# pxf_add_plugin(NAME source...): a driver module NAME.so in the plug-in
# directory.  (Drivers built outside this tree get their own pxf_add_plugin
# from the installed package: PXFbasePlugin.cmake.)  Its target is pxf_plugin_NAME.  Drivers resolve the library's
# names against the program that loads them, so they do not link it.
function(pxf_add_plugin name)
  set(target pxf_plugin_${name})
  add_library(${target} MODULE ${ARGN})
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/include)
  set_target_properties(${target} PROPERTIES
    PREFIX "" OUTPUT_NAME ${name} C_STANDARD 99 C_VISIBILITY_PRESET default
    LIBRARY_OUTPUT_DIRECTORY ${PXF_PLUGIN_BUILD_DIR})
  set_property(GLOBAL APPEND PROPERTY PXF_PLUGIN_TARGETS ${target})
  install(TARGETS ${target} LIBRARY DESTINATION ${PXF_PLUGIN_INSTALL_DIR})
endfunction()

file(GLOB PXF_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/pxf/*.h ${PROJECT_SOURCE_DIR}/include/pxf/*.hpp)
install(TARGETS PXFbase EXPORT PXFbaseTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PXF_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pxf)

set(PXF_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/PXFbase)
install(EXPORT PXFbaseTargets NAMESPACE PXFbase:: DESTINATION ${PXF_CMAKE_INSTALL_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/PXFbaseConfig.cmake.in
  ${PROJECT_BINARY_DIR}/PXFbaseConfig.cmake
  INSTALL_DESTINATION ${PXF_CMAKE_INSTALL_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR PXF_PLUGIN_INSTALL_DIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/PXFbaseConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/PXFbaseConfig.cmake ${PROJECT_BINARY_DIR}/PXFbaseConfigVersion.cmake
  ${CMAKE_CURRENT_LIST_DIR}/PXFbasePlugin.cmake
  DESTINATION ${PXF_CMAKE_INSTALL_DIR})

file(RELATIVE_PATH PXF_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" PXF_PC_TO_PREFIX "${PXF_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/pxfbase.pc.in ${PROJECT_BINARY_DIR}/pxfbase.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pxfbase.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
