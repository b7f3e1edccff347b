/*
 * qorcfg/xml.h - the XML document tree: parsing, navigation, serialising and
 * editing of the in-memory tree that holds the configuration.
 *
 * The parser works in place: names, attribute values and texts point into the
 * buffer handed to it wherever decoding did not lengthen them, so that buffer
 * belongs to the tree until ezxml_free. A failed parse still returns a root;
 * it is recognised by a non-empty ezxml_error().
 */
#ifndef QORCFG_XML_H
#define QORCFG_XML_H

#include <stdarg.h>
#include <stdio.h>

#include "qorcfg/base.h"

/* Ownership bits of ezxml_node.flags. */
#define EZXML_COPY 0x20 /* strings handed to the editing calls are copies the tree takes over */
#define EZXML_TXT_OWNED 0x40  /* txt (or, in an attribute list, the value) is allocated */
#define EZXML_NAME_OWNED 0x80 /* name is allocated */

/* Size of the buffer steps of the serialiser and stream reader. */
#define EZXML_BUFSIZE 1024
/* Size of ezxml_root.err, terminating zero included. */
#define EZXML_ERRL 128

typedef struct ezxml_node ezxml_node;

/* One element. Children of a parent are linked twice: grouped by name
 * (child -> first group, sibling -> next group, next -> within a group) and in
 * document order (ordered). */
struct ezxml_node {
    char *name;          /* tag name */
    char **attr;         /* name, value, ..., NULL, ownership string; EZXML_NIL when none */
    char *txt;           /* character content, all pieces concatenated; "" when none */
    size_t off;          /* length of the parent's txt when this element opened */
    ezxml_node *next;    /* next element of the same name under the same parent */
    ezxml_node *sibling; /* first element of the next name group under the same parent */
    ezxml_node *ordered; /* next element under the same parent in document order */
    ezxml_node *child;   /* first child element */
    ezxml_node *parent;  /* parent element; NULL at the root */
    uint16_t flags;      /* EZXML_COPY, EZXML_TXT_OWNED, EZXML_NAME_OWNED */
};

/* A document: the document element followed by the parse state. */
typedef struct ezxml_root {
    ezxml_node xml;       /* the document element; a root pointer is also an ezxml_node pointer */
    ezxml_node *cur;      /* element open during parsing; the root itself at start */
    char *m;              /* the buffer handed to the parser */
    size_t len;           /* 0 caller's buffer, (size_t)-1 allocated, else mapped length */
    char *u;              /* UTF-8 copy of a UTF-16 input, or NULL */
    char *s;              /* start of the parsed text */
    char *e;              /* end of the parsed text */
    char **ent;           /* entity pairs ("name;", replacement), NULL-terminated */
    char ***attr;         /* default attribute lists from <!ATTLIST, one per tag */
    char ***pi;           /* processing instruction lists, one per target */
    short standalone;     /* 1 when the XML declaration says standalone="yes" */
    char err[EZXML_ERRL]; /* last error message; "" after a successful parse */
} ezxml_root;

QORCFG_BEGIN_DECLS

/* The shared empty attribute list (only the terminating NULL); never freed. */
QORCFG_API extern char *EZXML_NIL[];

/* ---- navigation (a NULL node gives NULL, or the empty result) ---- */

/* First child of `xml` named `name` exactly, or NULL. */
QORCFG_API ezxml_node *ezxml_child(ezxml_node *xml, const char *name);
/* The `idx`-th element of xml's name group counted from xml (0 = xml), or NULL. */
QORCFG_API ezxml_node *ezxml_idx(ezxml_node *xml, int idx);
/* Value of attribute `attr`: the node's own, else the ATTLIST default for its tag; NULL when
 * neither. */
QORCFG_API const char *ezxml_attr(ezxml_node *xml, const char *attr);
/* Walk (name, index) pairs ended by "" or NULL; a negative index stops at that child. */
QORCFG_API ezxml_node *ezxml_get(ezxml_node *xml, ...);
/* ezxml_get with the pairs in a va_list. */
QORCFG_API ezxml_node *ezxml_vget(ezxml_node *xml, va_list ap);
/* NULL-terminated instruction texts stored for `target` in xml's document (the empty list when
 * none). */
QORCFG_API char **ezxml_pi(ezxml_node *xml, const char *target);
/* The document's last error message; "" after success or for NULL. */
QORCFG_API const char *ezxml_error(ezxml_node *xml);

/* ---- parsing: each returns the document root; check ezxml_error() ---- */

/* Parse `len` bytes of `s` in place; the caller keeps `s` alive until ezxml_free and frees it
 * after. */
QORCFG_API ezxml_node *ezxml_parse_str(char *s, size_t len);
/* Parse an open file (mapped, or read when mapping fails); NULL for a negative descriptor. */
QORCFG_API ezxml_node *ezxml_parse_fd(int fd);
/* Parse the file at `path`; NULL when it cannot be opened. */
QORCFG_API ezxml_node *ezxml_parse_file(const char *path);
/* Read `fp` to its end (not closed) and parse it; NULL when the first allocation fails. */
QORCFG_API ezxml_node *ezxml_parse_fp(FILE *fp);
/* Read `fp` to its end (not closed) and parse only the element at the dotted
 * path `prefix` (textual search; NULL prefix = whole stream). NULL when the
 * element is not found, an index is not decimal, or memory runs out. */
QORCFG_API ezxml_node *ezxml_parse_fp_by_prefix(FILE *fp, const char *prefix);

/* ---- serialising ---- */

/* `xml` and its subtree as XML text (malloc'ed, caller frees); "" for NULL. */
QORCFG_API char *ezxml_toxml(ezxml_node *xml);
/* Append `s` (`len` bytes, or to its NUL when (size_t)-1) escaped to *dst at
 * *dlen, growing *dst (size *max) by realloc; `a` non-zero = attribute value. Returns *dst. */
QORCFG_API char *ezxml_ampencode(const char *s, size_t len, char **dst, size_t *dlen, size_t *max,
                                 short a);

/* ---- editing (a NULL node gives NULL or does nothing) ---- */

/* New empty document whose element is named `name` (not copied); free with ezxml_free. */
QORCFG_API ezxml_node *ezxml_new(const char *name);
/* New child `name` (not copied) of `xml` at text offset `off`; NULL for a NULL parent. */
QORCFG_API ezxml_node *ezxml_add_child(ezxml_node *xml, const char *name, size_t off);
/* Link the unlinked node `xml` under `dest` at text offset `off`; returns xml. */
QORCFG_API ezxml_node *ezxml_insert(ezxml_node *xml, ezxml_node *dest, size_t off);
/* Replace the text (an owned old text is freed; the new one is not owned); returns xml. */
QORCFG_API ezxml_node *ezxml_set_txt(ezxml_node *xml, const char *txt);
/* Set, add or (value NULL) remove attribute `name`; with EZXML_COPY set the tree
 * takes over both strings. Returns xml. */
QORCFG_API ezxml_node *ezxml_set_attr(ezxml_node *xml, const char *name, const char *value);
/* OR `flag` into xml's flags; returns xml. */
QORCFG_API ezxml_node *ezxml_set_flag(ezxml_node *xml, short flag);
/* Unlink `xml` (with its subtree) from its parent; returns xml. */
QORCFG_API ezxml_node *ezxml_cut(ezxml_node *xml);
/* Free `xml`, its children and the elements after it in document order; at
 * the root also the document's buffer and data. */
QORCFG_API void ezxml_free(ezxml_node *xml);
/* Free an attribute list and its owned strings; EZXML_NIL and NULL are left alone. */
QORCFG_API void ezxml_free_attr(char **attr);

QORCFG_END_DECLS

#endif /* QORCFG_XML_H */
