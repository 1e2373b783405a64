# PackBits from libtiff is the yardstick for the run-length codec.
find_package(TIFF REQUIRED)
target_link_libraries(${name} PRIVATE TIFF::TIFF)
