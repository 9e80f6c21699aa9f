#pragma once

#include <cstdint>
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

// What every HTTP/1.x message has: the header lines, in arrival order and byte for byte, and the
// content. Every operation is virtual and they call each other through the virtual table, so a
// derived message that overrides one (say AddHeader) sees every path that leads to it.
class ZRT_EXPORT CHTTPPacket : public QOX::CRefCount_Base {
public:
    using HeaderList = std::list<std::pair<std::string, std::string>>;

    CHTTPPacket();
    ~CHTTPPacket() override;
    CHTTPPacket(const CHTTPPacket&) = delete;
    CHTTPPacket& operator=(const CHTTPPacket&) = delete;

    // One header line without its line end; false when it has neither a space nor a colon.
    virtual bool AddLine(const std::string& line);
    virtual void AddHeader(const std::string& name, const std::string& value);
    // Gives the first header of that name (any letter case) the value, or adds one.
    virtual void SetHeader(const std::string& name, const std::string& value);
    // Keeps its own copy of the bytes.
    virtual void AddContent(unsigned char* data, unsigned int len);
    virtual int32_t GetContentLen() const;
    virtual const HeaderList& GetHeaders() const;
    // Replaces the list; the content length keeps its old value unless the list names one.
    virtual void SetHeaders(const HeaderList& headers);
    virtual bool GetHeader(const std::string& name, std::string& value) const;
    virtual const CByteBufferList& GetContent() const;
    // Writes headers, blank line and content. A piece is written only when it fits whole; the
    // first that does not ends the writing. Returns the bytes written (0 for a null buffer).
    virtual unsigned int FillSendBuffer(unsigned char* buffer, unsigned int size) const;
    virtual unsigned int CalcSendBufferSize() const;
    // Records a content-length header; true when the name was content-length.
    virtual bool ProcessHeader(const std::string& name, const std::string& value);

protected:
    // Start-line token: skips spaces from pos, takes up to the next space; pos moves behind it.
    static bool NextToken(const std::string& line, std::string::size_type& pos, std::string& token);
    // Appends piece at buffer[written] if it fits whole in size; false (nothing written) if not.
    static bool WritePiece(unsigned char* buffer, unsigned int size, unsigned int& written,
                           const std::string& piece);

    // Declared in this order so destruction drops content before headers.
    HeaderList m_headers;
    CByteBufferList m_content;
    int32_t m_contentLen = 0;
};

} // namespace Proxy
} // namespace ZRT
