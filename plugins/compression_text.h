/*
 * The compression text a writing driver receives in info.compression: a
 * method, then settings of that method after semicolons, as in
 * "deflate;level=9;predictor=horizontal".  The method may be empty (the
 * driver's default), and so may the whole text.  Shared by the plug-ins
 * that take settings; each one decides which keys and values it knows.
 */
#ifndef PXF_PLUGIN_COMPRESSION_TEXT_H
#define PXF_PLUGIN_COMPRESSION_TEXT_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define COMPRESSION_SETTINGS_MAX 8

typedef struct {
    char method[32];
    int count;
    struct {
        char key[24];
        char value[40];
    } settings[COMPRESSION_SETTINGS_MAX];
} compression_text;

/* Copies [from, to) into a buffer of `size`, trimming blanks; 0 when it
 * does not fit. */
static int compression_take(char *buffer, size_t size, const char *from, const char *to) {
    while (from < to && (*from == ' ' || *from == '\t')) ++from;
    while (to > from && (to[-1] == ' ' || to[-1] == '\t')) --to;
    if ((size_t)(to - from) >= size) return 0;
    memcpy(buffer, from, (size_t)(to - from));
    buffer[to - from] = '\0';
    return 1;
}

/* 1 when `text` (null allowed) has the form above; else 0, with the reason
 * in `why`. */
static int compression_parse(const char *text, compression_text *out, char *why, size_t why_size) {
    const char *at = text ? text : "", *end = strchr(at, ';');
    memset(out, 0, sizeof *out);
    if (!end) end = at + strlen(at);
    if (!compression_take(out->method, sizeof out->method, at, end)) {
        snprintf(why, why_size, "compression method too long in \"%.60s\"", at);
        return 0;
    }
    while (*end == ';') {
        const char *start = end + 1, *equals;
        end = strchr(start, ';');
        if (!end) end = start + strlen(start);
        equals = (const char *)memchr(start, '=', (size_t)(end - start));
        if (out->count == COMPRESSION_SETTINGS_MAX || !equals ||
            !compression_take(out->settings[out->count].key, sizeof out->settings[0].key, start, equals) ||
            !compression_take(out->settings[out->count].value, sizeof out->settings[0].value, equals + 1, end) ||
            !out->settings[out->count].key[0] || !out->settings[out->count].value[0]) {
            snprintf(why, why_size, "compression setting \"%.*s\" is not KEY=VALUE (or too long, or too many)",
                     (int)(end - start < 60 ? end - start : 60), start);
            return 0;
        }
        ++out->count;
    }
    return 1;
}

/* An integer value from lowest to highest; -1 otherwise (both are >= 0). */
static int compression_integer(const char *value, int lowest, int highest) {
    char *end;
    long v = strtol(value, &end, 10);
    return *end || end == value || v < lowest || v > highest ? -1 : (int)v;
}

#endif
