# Little CMS 2 is the yardstick for the rgb to rgb transform; without it the
# program measures the library alone.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(LCMS2 QUIET IMPORTED_TARGET lcms2)
endif()
if(LCMS2_FOUND)
  target_link_libraries(${name} PRIVATE PkgConfig::LCMS2)
  target_compile_definitions(${name} PRIVATE PXF_BENCH_LCMS2=1)
endif()
