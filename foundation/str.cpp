#include <pxf/err.h>
#include <pxf/str.h>

extern "C" {

char *STR_more(char *string, uint32_t size) {
    return static_cast<char *>(ERR_realloc(string, size));
}

void EPTR_free(void *pointer) { ERR_free(pointer); }

}  // extern "C"
