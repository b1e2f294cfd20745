#include "internal/kx_xml.h"

#include <libxml/encoding.h>
#include <libxml/xmlerror.h>

namespace kx {

namespace {

/* libxml2 reaches GB2312 through iconv; where iconv lacks it the document's
 * own declaration (or UTF-8) is used instead of failing every parse. */
const char *declared_encoding()
{
    static const char *const encoding = []() -> const char * {
        xmlCharEncodingHandlerPtr handler = xmlFindCharEncodingHandler("GB2312");
        if (handler == nullptr)
            return nullptr;
        xmlCharEncCloseFunc(handler);
        return "GB2312";
    }();
    return encoding;
}

}  // namespace

void xml_watch() { xmlResetLastError(); }

bool xml_ran_out()
{
    const xmlError *last = xmlGetLastError();
    return last != nullptr && last->code == XML_ERR_NO_MEMORY;
}

bool xml_erred()
{
    const xmlError *last = xmlGetLastError();
    return last != nullptr && last->code != XML_ERR_OK;
}

XmlDoc read_xml_stream(std::FILE *stream)
{
    std::fflush(stream);
    std::fseek(stream, 0, SEEK_SET);
    xml_watch();
    XmlDoc doc(xmlReadFd(fileno(stream), nullptr, declared_encoding(), kXmlReadOptions));
    if (doc && xml_ran_out())
        doc.reset();
    return doc;
}

}  // namespace kx
