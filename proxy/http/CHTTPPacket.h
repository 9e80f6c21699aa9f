#pragma once

#include <list>
#include <string>
#include <utility>

#include "runtime/CRefCount_Base.h"
#include "runtime/Export.h"
#include "transport/CByteBufferList.h"

namespace ZRT {
namespace Proxy {

// Pieces of the HTTP wire form, shared by every message class.
ZRT_EXPORT extern const std::string HTTP_LINE_END;         // "\r\n"
ZRT_EXPORT extern const std::string HTTP_HEADER_SEPARATOR; // ": "
ZRT_EXPORT extern const std::string HTTP_FIELD_SEPARATOR;  // " "

// What every HTTP/1.x message has: the field lines, in arrival order, and the content. Every
// operation is virtual and they call each other through the virtual table, so a derived message
// that overrides one (say AddHeader) sees every path that leads to it.
//
// Used on the connection's thread only.
class ZRT_EXPORT CHTTPPacket : public QOX::CRefCount_Base {
public:
    using HeaderList = std::list<std::pair<std::string, std::string>>;

    CHTTPPacket();
    ~CHTTPPacket() override;
    CHTTPPacket(const CHTTPPacket&) = delete;
    CHTTPPacket& operator=(const CHTTPPacket&) = delete;

    // One field line without its line end: a token, a colon, the value. The value loses the SP
    // and HTAB at its ends and keeps every other byte. False, adding nothing, for a line that
    // starts with white space (a folded line), has white space or any other non-token byte
    // before the colon, has no name, or holds a control byte other than HTAB.
    virtual bool AddLine(const std::string& line);
    // Trusts the caller: the name a token, the value without CR, LF or NUL.
    virtual void AddHeader(const std::string& name, const std::string& value);
    // The first field of that name (any letter case) gets the value and later ones go; without
    // one, the field is added at the end.
    virtual void SetHeader(const std::string& name, const std::string& value);
    // Keeps its own copy of the bytes.
    virtual void AddContent(unsigned char* data, unsigned int len);
    virtual const HeaderList& GetHeaders() const;
    virtual void SetHeaders(const HeaderList& headers);
    // The value of the first field of that name (any letter case).
    virtual bool GetHeader(const std::string& name, std::string& value) const;
    virtual const CByteBufferList& GetContent() const;
    // The start line (with that version, or the message's own when empty), the field lines
    // ("Name: value", or "Name:" for an empty value) and the blank line; no content.
    virtual std::string GetHead(const std::string& version = std::string()) const;
    // Writes the head and the content when both fit in size; otherwise nothing. Returns the
    // bytes written (0 for a null buffer).
    virtual unsigned int FillSendBuffer(unsigned char* buffer, unsigned int size) const;
    virtual unsigned int CalcSendBufferSize() const;

protected:
    // Appends the start line with its line end; a bare field block has none.
    virtual void AppendStartLine(std::string& head, const std::string& version) const;

    // The field lines and the blank line, as GetHead writes them.
    std::string::size_type GetFieldBlockSize() const;

    // Declared in this order so destruction drops content before headers.
    HeaderList m_headers;
    CByteBufferList m_content;
};

} // namespace Proxy
} // namespace ZRT
