// The library's version, as built.
#include <pxf/pxf.h>

#define PXF_STRINGIFY_(x) #x
#define PXF_STRINGIFY(x) PXF_STRINGIFY_(x)

// The header's numbers and the build's project version must agree.
#if defined(PXF_PROJECT_VERSION_MAJOR)
static_assert(PXF_VERSION_MAJOR == PXF_PROJECT_VERSION_MAJOR && PXF_VERSION_MINOR == PXF_PROJECT_VERSION_MINOR &&
                  PXF_VERSION_PATCH == PXF_PROJECT_VERSION_PATCH,
              "include/pxf/pxf.h and CMakeLists.txt give different versions");
#endif

const char *PXF_version(void) {
    return PXF_STRINGIFY(PXF_VERSION_MAJOR) "." PXF_STRINGIFY(PXF_VERSION_MINOR) "." PXF_STRINGIFY(PXF_VERSION_PATCH);
}
