/*
 * Reading an answer file as XML. The answers are parsed from the stream's
 * file descriptor, from its start, with the declared encoding "GB2312" and
 * without blank text nodes, by the tag readers and by the log service's
 * parsers alike.
 */
#ifndef KX_INTERNAL_XML_H
#define KX_INTERNAL_XML_H

#include <cstdio>

#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include "internal/kx_owned.h"

namespace kx {

inline void free_xml_text(xmlChar *text) { xmlFree(text); }

using XmlDoc = Owned<xmlDoc, xmlFreeDoc>;
using XmlText = Owned<xmlChar, free_xml_text>; /* xmlNodeGetContent's texts */

/* NOBLANKS | NSCLEAN | COMPACT. */
constexpr int kXmlReadOptions = XML_PARSE_NOBLANKS | XML_PARSE_NSCLEAN | XML_PARSE_COMPACT;
static_assert(kXmlReadOptions == 73984, "answers are parsed with options 73984");

/* Flushes the stream, seeks it to its start and parses its descriptor with
 * xmlReadFd. Null when the text is not XML, and also when libxml2 ran out of
 * memory on the way: it can then hand back a document with an element's text
 * missing, which must not pass for the answer. */
XmlDoc read_xml_stream(std::FILE *stream);

/* Clears libxml2's last error; xml_ran_out() then tells whether anything
 * since failed for want of memory, xml_erred() whether anything since failed
 * at all (an XPath evaluation that ran out of memory may report that only
 * through its last error, and a later one can overwrite it). */
void xml_watch();
bool xml_ran_out();
bool xml_erred();

}  // namespace kx

#endif
