/*
 * Reports errors through a handler chain: a per-error handler that counts,
 * a global handler that tags application errors, and the default handler
 * that prints "SEVERITY, text" on standard error.
 */
#include <stdio.h>
#include <string.h>

#include <pxf/err.h>
#include <pxf/rct.h>

static ERR_DESCRIPTOR disk_full = {0, ERR_WARNING, 0, "app.disk_full",
                                   "disk %s is %d%% full", 0, NULL, NULL, 0, 0, NULL};

static int count_disk_reports(const char *name, int severity, const char *text,
                              ERR_DESCRIPTOR *descriptor, void *data) {
    (void)name; (void)severity; (void)text; (void)descriptor;
    ++*(int *)data;
    return 1; /* pass it on */
}

static int tag_application_errors(const char *name, int severity, const char *text,
                                  ERR_DESCRIPTOR *descriptor, void *data) {
    (void)severity; (void)descriptor; (void)data;
    if (name && strncmp(name, "app.", 4) == 0) {
        printf("application handler saw [%s]: %s\n", name, text);
        return 0; /* handled: stop here */
    }
    return 1;
}

int main(void) {
    int disk_reports = 0;
    RCT_RECT a = {0, 0, 9, 9}, b = {3, 3, 5, 5}, strips[RCT_DIFFERENCE_MAX];
    int n = 0, i;

    setvbuf(stdout, NULL, _IONBF, 0); /* keep our lines in order with the reports on stderr */

    ERR_dcl_handler(&disk_full, count_disk_reports, &disk_reports);
    ERR_dcl_handler(NULL, tag_application_errors, NULL);

    ERR_report(&disk_full, "/scratch", 97);          /* both handlers, stopped by the global one */
    ERR_printf(ERR_WARNING, "plain warning %d", 1);  /* reaches the default handler */
    ERR_report_errno(2, "frames/shot.0007.rla");      /* an error from errno */

    RCT_difference(&a, &b, &n, strips);
    printf("the symmetric difference of two rectangles is %d strips:", n);
    for (i = 0; i < n; ++i)
        printf(" (%d,%d,%d,%d)", strips[i].xmin, strips[i].ymin, strips[i].xmax, strips[i].ymax);
    printf("\n");

    printf("disk reports counted: %d; reports so far: %u\n", disk_reports, ERR_stats(-1));
    ERR_can_handler(NULL);
    ERR_can_handler(&disk_full);
    return 0;
}
