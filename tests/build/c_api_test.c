/* A C program using the library through its public headers only. */
#include <stdio.h>
#include <string.h>

#include <pxf/dst.h>
#include <pxf/err.h>
#include <pxf/pxf.h>
#include <pxf/rct.h>

static int seen;

static int count_report(const char *name, int severity, const char *text, ERR_DESCRIPTOR *d, void *data) {
    (void)name;
    (void)d;
    (void)data;
    if (severity == ERR_WARNING && strcmp(text, "from C 7") == 0) ++seen;
    return 0;
}

struct node {
    struct node *next;
    int value;
};

int main(void) {
    struct node a = {NULL, 1}, b = {NULL, 2};
    DST_LL *list = DST_ll_new();
    RCT_RECT r1 = {0, 0, 9, 9}, r2 = {9, 9, 20, 20}, out;
    int failures = 0;

    ERR_dcl_handler(NULL, count_report, NULL);
    ERR_printf(ERR_WARNING, "from C %d", 7);
    ERR_can_handler(NULL);
    if (seen != 1) ++failures;

    DST_ll_addt(list, &a);
    DST_ll_addt(list, &b);
    if (DST_ll_length(list) != 2 || DST_ll_last(list) != &b) ++failures;
    DST_ll_free(list);

    if (!RCT_intersect(&r1, &r2, &out) || out.xmin != 9 || out.ymax != 9) ++failures;
    if (pxf__err != 0) ++failures;
    if (failures) fprintf(stderr, "%d failures\n", failures);
    return failures != 0;
}
