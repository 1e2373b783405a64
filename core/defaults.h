// The format and colour defaults that the image core reads.
#pragma once

#include <pxf/clr.h>
#include <pxf/fmt.h>
