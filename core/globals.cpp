#include <pxf/pxf.h>

int pxf__err = 0;
nl_catd pxf__msg_cat = nullptr;
