#include <pxf/utl.h>

#include <cctype>
#include <cmath>
#include <cstdlib>

extern "C" int UTL_cnv_atof(const char *text, double *value) {
    double dummy;
    if (!value) value = &dummy;
    *value = 0.0;
    if (!text) return 0;
    char *end = nullptr;
    double v = std::strtod(text, &end);
    if (end == text) return 0;
    while (std::isspace(static_cast<unsigned char>(*end))) ++end;
    // Infinities and NaN are no numbers a configuration can mean.
    if (*end || !std::isfinite(v)) return 0;
    *value = v;
    return 1;
}
