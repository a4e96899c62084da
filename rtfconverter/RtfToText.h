// RTF to 8-bit plain text, pulled by the caller in buffers of its own size.
//
//     CBytePtrRTFToPlainTextPtrParser reader(rtf, cbRtf);
//     bool bMore = true;
//     while (bMore) {
//         unsigned long n = reader.Read(buf, buf + sizeof buf, bMore);
//         consume(buf, n);
//     }
//
// The text keeps the document's bytes (no code-page conversion). A paragraph
// ends with byte 0x0D, \line gives 0x0A, \tab and \cell give 0x09; numbered
// paragraphs get their number text in front. Formatting, tables of fonts and
// colours, pictures, objects and field instructions are dropped.
#pragma once
#include "rtfconverter/Export.h"

#include "platform/AfxString.h"
#include "rtfconverter/BaseRTFParser.h"
#include "rtfconverter/ReaderPlumbing.h"

namespace rtf_converter {

class RTFCONV_API CRTFToPlainTextParser : protected CBaseRTFParser {
protected:
    CRTFToPlainTextParser() = default;
    CRTFToPlainTextParser(const CRTFToPlainTextParser&) = default;
    CRTFToPlainTextParser& operator=(const CRTFToPlainTextParser&) = default;
    ~CRTFToPlainTextParser() = default;

    bool InitBuffer() override;
    bool ParseChar(char ch) override;
    bool AttachmentHandler() override;
    bool FieldInit(const void* pKeyword, int param) override;
    bool FieldResult(const void* pKeyword, int param) override;
    bool InitAttachment(const void* pKeyword, int param) override;
    bool ObjectResult(const void* pKeyword, int param) override;
    bool ApplyCRCommand(const void* pKeyword, int param) override;
    bool ApplyNLCommand(const void* pKeyword, int param) override;
    bool ApplyTabCommand(const void* pKeyword, int param) override;
    bool ApplyEndRowCommand(const void* pKeyword, int param) override;
    bool ApplyEndCellCommand(const void* pKeyword, int param) override;
    bool FillFontFamily(const void* pKeyword, int param) override;
    bool FillFontCharset(const void* pKeyword, int param) override;
    bool GetFontNum(const void* pKeyword, int param) override;
    bool ApplyFontSize(const void* pKeyword, int param) override;
    bool FillColorTable(const void* pKeyword, int param) override;
    bool ApplyColorCommand(const void* pKeyword, int param) override;
    bool ApplyBKColorCommand(const void* pKeyword, int param) override;
    bool GetDefaultFontNum(const void* pKeyword, int param) override;
    bool ProcessSpecial(const void* pKeyword, int param) override;
    bool InsertSpecialChar(const void* pKeyword, int param) override;
    bool GetBinary(const void* pKeyword, int param) override;
    bool ApplyCharCommand(const void* pKeyword, int param) override;
    bool ApplyPlainCommand(const void* pKeyword, int param) override;
    bool SkipCharacters(const void* pKeyword, int param) override;
    bool ApplyStartRowCommand(const void* pKeyword, int param) override;
    bool ApplyLastRowCommand(const void* pKeyword, int param) override;
    bool SetPictureType(const void* pKeyword, int param) override;
    bool ObjectData(const void* pKeyword, int param) override;

    // The sink.
    virtual bool Put(const CString& s) = 0;
    virtual bool Put(char ch) = 0;
    virtual unsigned long GetCBWritten() const = 0;

    // Plain characters of the body copied a run at a time (see CRTFParser);
    // skipped destinations, pictures' hex data among them, passed over whole.
    bool ParseRun(const char* p, std::size_t cb) override;
    // Puts the first bytes of [p, p + cb) that fit, bytes that frame markup
    // in old-format text as spaces, and returns how many. One Put each by
    // default; a sink with a buffer copies them in one step.
    virtual std::size_t PutText(const char* p, std::size_t cb);

    bool Append(char ch);
    bool AppendNumberingString();
    unsigned long Read(bool& bMore);

private:
    // Writes the paragraph's number text when this is the paragraph's first
    // output; false when the sink refused it (the number is then due again).
    bool StartParagraphOutput();
    // Puts a control byte, or appends it to the numbering text being read.
    bool PutControlByte(char ch);
    bool InNumberingText() const { return m_rds == rdsPNTextBefore || m_rds == rdsPNTextAfter; }
};

class RTFCONV_API CRTFToPlainTextPtrParser : protected CRTFToPlainTextParser, protected COutputWindow {
public:
    // Converts into [pBegin, pEnd) and returns the number of bytes written;
    // bMore true means call again for the rest. No NUL is written or counted.
    unsigned long Read(char* pBegin, char* pEnd, bool& bMore);

    // The caps on what a document may make the reader allocate (ReadLimits.h).
    using CRTFParser::SetLimits;
    using CRTFParser::GetLimits;
    using CRTFParser::GetLimitsReached;

protected:
    CRTFToPlainTextPtrParser() = default;
    CRTFToPlainTextPtrParser(const CRTFToPlainTextPtrParser&) = default;
    CRTFToPlainTextPtrParser& operator=(const CRTFToPlainTextPtrParser&) = default;
    ~CRTFToPlainTextPtrParser() = default;

    bool Put(const CString& s) override;
    bool Put(char ch) override;
    std::size_t PutText(const char* p, std::size_t cb) override;
    unsigned long GetCBWritten() const override;
};

class RTFCONV_API CBytePtrRTFToPlainTextPtrParser : public CRTFToPlainTextPtrParser, protected CByteCursor {
public:
    // The bytes are not copied: they must stay valid and unchanged for the
    // object's life. A NUL byte ends the input early.
    CBytePtrRTFToPlainTextPtrParser(const unsigned char* pData, const unsigned long& cbData);
    CBytePtrRTFToPlainTextPtrParser(const CBytePtrRTFToPlainTextPtrParser&) = default;
    CBytePtrRTFToPlainTextPtrParser& operator=(const CBytePtrRTFToPlainTextPtrParser&) = default;
    ~CBytePtrRTFToPlainTextPtrParser() = default;

    // The bytes read so far; after the last Read, where the document ended.
    using CByteCursor::BytesConsumed;

protected:
    // The cursor's bytes; a derived reader that changes what Get delivers
    // must offer no runs (RunAhead returning null), see CRTFParser.
    long Get(char& ch) override;
    void MarkBacktrack(int n) override;
    void Backtrack(int n) override;
    const char* RunAhead(std::size_t& cb) const override;
    void SkipAhead(std::size_t cb) override;
    CByteCursor* StockCursor() override;
};

} // namespace rtf_converter
