/*
 * Shell-style wildcard matching of names.
 *
 * Patterns: '*' matches any run of characters (also none), '?' any one
 * character, '[...]' one character of a class: ranges "a-z", negation by a
 * leading '!' or '^', a ']' or '-' first (or '-' last) taken literally, and
 * the named classes "[:alpha:]", "[:digit:]", ... of the C locale.  A
 * backslash takes the next character literally.  A '[' without its closing
 * ']' is an ordinary character.  Characters compare as bytes; collating
 * symbols and equivalence classes ("[.a.]", "[=a=]") are not recognised.
 *
 * Matching time is bounded by the product of the pattern and name lengths,
 * whatever the pattern: no pattern makes it backtrack exponentially.
 */
#ifndef PXF_WCD_H
#define PXF_WCD_H

#include "common.h"

PXF_BEGIN_DECLS

/* Flags of WCD_match_flags. */
#define WCD_NOESCAPE 1 /* a backslash is an ordinary character */
#define WCD_PATHNAME 2 /* wildcards and classes never match '/' */
#define WCD_PERIOD 4   /* a leading '.' (after a '/' too, with WCD_PATHNAME) matches only a literal '.' */
#define WCD_CASEFOLD 8 /* letters match regardless of case */

/* 1 when `name` matches `pattern` as a whole, 0 when not or either is null. */
PXF_API int WCD_match(const char *pattern, const char *name);
/* WCD_match with the WCD_ flags above or'ed together. */
PXF_API int WCD_match_flags(const char *pattern, const char *name, int flags);
/* 1 when `pattern` holds an unescaped '*', '?' or '[' (so it is a pattern, not a plain name). */
PXF_API int WCD_has_wildcards(const char *pattern);

PXF_END_DECLS

#endif /* PXF_WCD_H */
