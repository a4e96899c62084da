// The one-call API over the converter classes: the pull loops, the streams
// and the attachment filters that every host of the classes writes, written
// once, with the framework's exceptions turned into ConversionError.
#include "rtfconverter/rtfconverter.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "hostlibs/KVBase.h"
#include "hostlibs/MFCKVUtils.h"
#include "platform/AfxExceptions.h"
#include "platform/ObjBase.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/OldToRTF.h"
#include "rtfconverter/PlainTextToRTF.h"
#include "rtfconverter/RTFToOld.h"
#include "rtfconverter/ReaderPlumbing.h"
#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"
#include "rtfconverter/Utf8ToRTF.h"

namespace rtf_converter {

ConversionError::ConversionError(std::size_t offset, const std::string& reason)
    : std::runtime_error(reason + " (at byte offset " + std::to_string(offset) + ")"), m_offset(offset), m_reason(reason)
{
}

namespace {

// The importer and the writer keep what a document holds unless the caller
// asks for the exact bytes hosts rely on.
template <class TConverter>
void ChooseExactness(TConverter& converter, bool exact)
{
    converter.SetLossless(!exact);
}

// The first size of a read buffer; a piece that does not fit makes it grow
// (ReadOnce).
constexpr std::size_t cbFirstPull = 65536;

// The converters count in unsigned long and int; a larger input cannot be
// described to them.
constexpr std::size_t cbLargestInput = 0x7FFFFFFF;

void RequireSize(std::string_view input)
{
    if (input.size() > cbLargestInput)
        throw ConversionError(cbLargestInput, "the input is larger than the converters can address (2 GiB)");
}

// The writers take NUL-terminated texts: a NUL would silently end the text.
void RequireNoNul(std::string_view text)
{
    const std::size_t nul = text.find('\0');
    if (nul != std::string_view::npos)
        throw ConversionError(nul, "the text holds a NUL byte, which RTF cannot carry");
}

void RequireKnownCodePage(int codePage)
{
    if (codePage != 0 && !CCodePage::Get(codePage))
        throw std::invalid_argument("unknown code page " + std::to_string(codePage));
}

// Runs `convert`, turning the framework's and the host libraries' exceptions
// into ConversionError at the offset `where()` tells.
template <class TConvert, class TWhere>
auto Guarded(TConvert&& convert, TWhere&& where) -> decltype(convert())
{
    try {
        return convert();
    } catch (const CMemoryException&) {
        throw std::bad_alloc();
    } catch (const CException& e) {
        throw ConversionError(where(), std::string("the converter stopped: ") + e.GetErrorText());
    } catch (const CKVWException& e) {
        throw ConversionError(where(), "the converter stopped: " + e.GetText());
    }
}

const unsigned char* BytesOf(std::string_view s)
{
    static const unsigned char empty = 0;
    return s.empty() ? &empty : reinterpret_cast<const unsigned char*>(s.data());
}

// ---------------------------------------------------------------------------
// The text readers, behind one interface that also tells the read position.

class CTextSource {
public:
    virtual ~CTextSource() = default;
    virtual std::size_t Read(char* pBegin, char* pEnd, bool& bMore) = 0;
    virtual std::size_t BytesConsumed() const = 0;
};

template <class TReader>
class CTextSourceOf final : public CTextSource, private TReader {
public:
    // The reader copies the count it is given.
    explicit CTextSourceOf(std::string_view rtf) : TReader(BytesOf(rtf), static_cast<unsigned long>(rtf.size())) {}
    TReader& Reader() { return *this; }
    std::size_t Read(char* pBegin, char* pEnd, bool& bMore) override { return TReader::Read(pBegin, pEnd, bMore); }
    std::size_t BytesConsumed() const override { return TReader::BytesConsumed(); }
};

CRTFToUTF8Parser::Newline NewlineOf(Newline newline)
{
    switch (newline) {
    case Newline::crlf: return CRTFToUTF8Parser::newlineCRLF;
    case Newline::cr: return CRTFToUTF8Parser::newlineCR;
    default: return CRTFToUTF8Parser::newlineLF;
    }
}

std::unique_ptr<CTextSource> MakeTextSource(std::string_view rtf, const TextOptions& options)
{
    RequireSize(rtf);
    if (options.exact)
        return std::make_unique<CTextSourceOf<CBytePtrRTFToPlainTextPtrParser>>(rtf);
    RequireKnownCodePage(options.codepage);
    auto source = std::make_unique<CTextSourceOf<CBytePtrRTFToUTF8PtrParser>>(rtf);
    source->Reader().SetNewline(NewlineOf(options.newline));
    source->Reader().SetCodePage(options.codepage);
    return source;
}

// A reading that stopped early, as the caller sees it.
[[noreturn]] void ThrowReadFailure(ReadResult result, std::size_t offset)
{
    if (result == ReadResult::overrun)
        throw ConversionError(offset, "the converter reported more bytes than its buffer holds");
    throw ConversionError(offset, "a piece of the output does not fit in 16 MiB");
}

// ReadOnce or ReadAll under Guarded; a reading that stopped early throws.
template <class TReader, class TRead>
bool ReadGuarded(TReader& reader, TRead&& read)
{
    const ReadResult result = Guarded(read, [&] { return reader.BytesConsumed(); });
    if (result == ReadResult::stalled || result == ReadResult::overrun)
        ThrowReadFailure(result, reader.BytesConsumed());
    return result == ReadResult::more;
}

// The text of a reader, pulled into a buffer of its own and handed out from
// there, so that the caller's buffer may have any size.
struct CTextPuller {
    explicit CTextPuller(std::unique_ptr<CTextSource> textSource) : source(std::move(textSource)) {}

    std::unique_ptr<CTextSource> source;
    std::vector<char> buffer = std::vector<char>(cbFirstPull);
    std::size_t pos = 0;  // [pos, end) of buffer is pulled but not yet handed out
    std::size_t end = 0;
    bool bMore = true;

    // Pulls until there is text to hand out or the text has ended.
    void Fill()
    {
        while (pos == end && bMore) {
            pos = 0;
            bMore = ReadGuarded(*source, [this] { return ReadOnce(*source, buffer, end); });
        }
    }
};

// ---------------------------------------------------------------------------
// Streams and fonts.

CComPtr<IStream> NewStream()
{
    CComPtr<IStream> stream;
    if (FAILED(CreateStreamOnHGlobal(nullptr, TRUE, &stream)) || !stream)
        throw std::bad_alloc();
    return stream;
}

CComPtr<IStream> StreamWith(const void* p, std::size_t cb)
{
    CComPtr<IStream> stream = NewStream();
    if (cb && FAILED(stream->Write(p, static_cast<ULONG>(cb), nullptr)))
        throw std::bad_alloc();
    LARGE_INTEGER start{};
    stream->Seek(start, STREAM_SEEK_SET, nullptr);
    return stream;
}

// The first cb bytes of a memory stream (all of them when cb is npos).
std::string StreamBytes(IStream* pStream, std::size_t cb = std::string::npos)
{
    HGLOBAL hGlobal = nullptr;
    if (!pStream || FAILED(GetHGlobalFromStream(pStream, &hGlobal)))
        return std::string();
    if (cb == std::string::npos) {
        STATSTG stat{};
        cb = SUCCEEDED(pStream->Stat(&stat, STATFLAG_NONAME)) ? static_cast<std::size_t>(stat.cbSize.QuadPart) : 0;
    }
    const char* p = static_cast<const char*>(GlobalLock(hGlobal));
    std::string bytes(p ? p : "", p ? std::min(cb, GlobalSize(hGlobal)) : 0);
    GlobalUnlock(hGlobal);
    return bytes;
}

// The base font for the writers; null keeps theirs (Arial 10).
const LOGFONT* BaseFont(const std::string& face, int points, LOGFONT& lf)
{
    if (face.empty() && points == 10)
        return nullptr;
    if (points < 1 || points > 1638)
        throw std::invalid_argument("font size out of range: " + std::to_string(points));
    if (face.size() >= LF_FACESIZE)
        throw std::invalid_argument("font face longer than " + std::to_string(LF_FACESIZE - 1) + " bytes: " + face);
    InitDefaultScreenFont(lf, face.empty() ? "Arial" : face.c_str(), points, 96);
    return &lf;
}

std::string ToString(const CString& s) { return std::string(s.GetString(), static_cast<std::size_t>(s.GetLength())); }

std::vector<std::byte> ToBytes(const std::string& s)
{
    const auto* p = reinterpret_cast<const std::byte*>(s.data());
    return std::vector<std::byte>(p, p + s.size());
}

// ---------------------------------------------------------------------------
// Attachment kinds, both ways.

struct KindName {
    LONG aType;
    const char* name;
};
// The first row of a type names it when read; every row is accepted when written.
constexpr std::array<KindName, 10> kKindNames{{
    {AttachmentInfo::AT_DIB, "dib"},
    {AttachmentInfo::AT_PNG, "png"},
    {AttachmentInfo::AT_JPEG, "jpeg"},
    {AttachmentInfo::AT_EMF, "emf"},
    {AttachmentInfo::AT_WMF, "wmf"},
    {AttachmentInfo::AT_OLE_FIRST, "object"},
    {AttachmentInfo::AT_OLE_EMBEDDED, "object"},
    {AttachmentInfo::AT_OLE_PICTURE, "picture"},
    {AttachmentInfo::AT_OLE_LAST, "link"},
    {AttachmentInfo::AT_PLACEHOLDER, "placeholder"},
}};

const char* KindOf(LONG aType)
{
    for (const KindName& row : kKindNames)
        if (row.aType == aType)
            return row.name;
    return nullptr;
}

// What the writer makes of a kind: an OLE type, or AT_NONE for kinds it cannot write.
LONG WrittenTypeOf(const std::string& kind)
{
    if (kind == "object") return AttachmentInfo::AT_OLE_EMBEDDED;
    if (kind == "link") return AttachmentInfo::AT_OLE_LAST;
    if (kind == "picture" || kind == "dib") return AttachmentInfo::AT_OLE_PICTURE;
    if (kind == "placeholder") return AttachmentInfo::AT_PLACEHOLDER;
    return AttachmentInfo::AT_NONE;
}

// A bitmap from a .bmp file's bytes or a packed DIB; null when neither.
std::unique_ptr<CDIBitmap> BitmapOf(const std::vector<std::byte>& bytes)
{
    if (bytes.empty())
        return nullptr;
    auto bitmap = std::make_unique<CDIBitmap>();
    const bool bFile = bytes.size() > 2 && bytes[0] == std::byte{'B'} && bytes[1] == std::byte{'M'};
    const bool bLoaded =
        bFile ? bitmap->LoadBmpFile(bytes.data(), bytes.size()) : bitmap->LoadPackedDib(bytes.data(), bytes.size());
    return bLoaded ? std::move(bitmap) : nullptr;
}

// ---------------------------------------------------------------------------
// RTF to old-format text: the importer's attachment filter collects.

constexpr std::size_t kMaxAttachments = 100;

struct CAttachmentCollector {
    const OldOptions& options;
    std::vector<Attachment>& attachments;
};

bool CollectAttachment(AttachmentInfo& info, CString& text, void* pCollector, void*)
{
    auto& collector = *static_cast<CAttachmentCollector*>(pCollector);
    const char* kind = KindOf(info.aType);
    // A placeholder has no data: its character stays in the text.
    if (!kind || info.aType == AttachmentInfo::AT_PLACEHOLDER || collector.attachments.size() >= kMaxAttachments)
        return false;
    Attachment attachment{kind, ToBytes(StreamBytes(info.pStm, info.dwDataSize)), {}};
    if (collector.options.keep_attachment && !collector.options.keep_attachment(attachment))
        return false;
    text.Format(CAttachmentCmd::lpszFormat, static_cast<int>(collector.attachments.size()));
    collector.attachments.push_back(std::move(attachment));
    return true;
}

// ---------------------------------------------------------------------------
// Old-format text to RTF: the writer's attachment filter answers.

struct CAttachmentSupplier {
    const std::vector<Attachment>& attachments;
    const OldToRtfOptions& options;
    std::exception_ptr error;  // the writer swallows exceptions; the caller's are raised after it
};

const Attachment* FindAttachment(CAttachmentSupplier& supplier, int index, std::optional<Attachment>& held)
{
    if (supplier.options.attachment_source) {
        held = supplier.options.attachment_source(index);
        return held ? &*held : nullptr;
    }
    return index >= 0 && static_cast<std::size_t>(index) < supplier.attachments.size() ? &supplier.attachments[index]
                                                                                      : nullptr;
}

bool FillAttachmentInfo(const Attachment& attachment, AttachmentInfo& info)
{
    info.aType = WrittenTypeOf(attachment.kind);
    info.pStm = nullptr;
    info.m_pDIBitmap = nullptr;
    if (info.aType == AttachmentInfo::AT_NONE)
        return false;
    if (info.aType == AttachmentInfo::AT_PLACEHOLDER)
        return true;
    if (info.aType == AttachmentInfo::AT_OLE_PICTURE) {
        info.m_pDIBitmap = BitmapOf(attachment.picture.empty() ? attachment.data : attachment.picture).release();
        return info.m_pDIBitmap != nullptr;
    }
    info.pStm = StreamWith(attachment.data.data(), attachment.data.size()).Detach();
    info.dwDataSize = static_cast<DWORD>(attachment.data.size());
    info.m_pDIBitmap = BitmapOf(attachment.picture).release();
    return true;
}

bool SupplyAttachment(int, const CString& cmd, AttachmentInfo& info, void* pSupplier, void*)
{
    auto& supplier = *static_cast<CAttachmentSupplier*>(pSupplier);
    if (cmd.GetLength() < CAttachmentCmd::CmdLength)
        return false;
    const int index = static_cast<int>(
        Str2DWORD(std::string(cmd.GetString() + CAttachmentCmd::posIndex, CAttachmentCmd::lenIndex).c_str()));
    try {
        std::optional<Attachment> held;
        const Attachment* attachment = FindAttachment(supplier, index, held);
        return attachment && FillAttachmentInfo(*attachment, info);
    } catch (...) {
        supplier.error = std::current_exception();
        return false;
    }
}

} // namespace

// ---------------------------------------------------------------------------

struct TextReader::Impl : CTextPuller {
    using CTextPuller::CTextPuller;
};

TextReader::TextReader(std::string_view rtf, const TextOptions& options)
    : m_impl(std::make_unique<Impl>(MakeTextSource(rtf, options)))
{
}

TextReader::~TextReader() = default;
TextReader::TextReader(TextReader&&) noexcept = default;
TextReader& TextReader::operator=(TextReader&&) noexcept = default;

std::size_t TextReader::read(char* buffer, std::size_t size)
{
    if (size == 0)
        return 0;
    m_impl->Fill();
    const std::size_t cb = std::min(size, m_impl->end - m_impl->pos);
    std::memcpy(buffer, m_impl->buffer.data() + m_impl->pos, cb);
    m_impl->pos += cb;
    return cb;
}

bool TextReader::done() const
{
    m_impl->Fill();
    return m_impl->pos == m_impl->end;
}

std::size_t TextReader::offset() const { return m_impl->source->BytesConsumed(); }

void rtf_to_text(std::string_view rtf, const TextOptions& options, const std::function<void(std::string_view)>& sink)
{
    CTextPuller reader(MakeTextSource(rtf, options));
    for (reader.Fill(); reader.pos < reader.end; reader.pos = reader.end, reader.Fill())
        sink(std::string_view(reader.buffer.data() + reader.pos, reader.end - reader.pos));
}

std::string rtf_to_text(std::string_view rtf, const TextOptions& options)
{
    std::string text;
    rtf_to_text(rtf, options, [&text](std::string_view piece) { text.append(piece); });
    return text;
}

std::string text_to_rtf(std::string_view utf8, const RtfOptions& options)
{
    RequireSize(utf8);
    RequireNoNul(utf8);
    LOGFONT lf{};
    const LOGFONT* pFont = BaseFont(options.font_face, options.font_points, lf);
    const std::string text(utf8);
    if (options.exact) {
        CPlainTextToRTF writer;
        writer.Convert(text.c_str(), pFont);
        return ToString(writer.Export());
    }
    RequireKnownCodePage(options.codepage);
    CUTF8TextToRTF writer;
    writer.SetCodePage(options.codepage);
    writer.Convert(text.c_str(), pFont);
    return ToString(writer.Export());
}

OldText rtf_to_old(std::string_view rtf, const OldOptions& options)
{
    RequireSize(rtf);
    OldText result;
    CComPtr<IStream> input = StreamWith(rtf.data(), rtf.size());
    auto reader = std::make_unique<CRTFStreamImport>(input);
    ChooseExactness(*reader, options.exact);
    reader->SetPasteWithTableTags(options.table_tags);
    CAttachmentCollector collector{options, result.attachments};
    reader->SetAttachmentFilter(CollectAttachment, &collector, nullptr);

    ReadGuarded(*reader, [&] {
        return ReadAll(*reader, [&](const char* p, std::size_t cb) { result.text.append(p, cb); }, cbFirstPull);
    });
    return result;
}

std::string old_to_rtf(std::string_view old, const std::vector<Attachment>& attachments, const OldToRtfOptions& options)
{
    RequireSize(old);
    RequireNoNul(old);
    LOGFONT lf{};
    const LOGFONT* pFont = BaseFont(options.font_face, options.font_points, lf);
    const std::string text(old);
    CComPtr<IStream> output = NewStream();
    COldToRTF writer(*output);
    ChooseExactness(writer, options.exact);
    CAttachmentSupplier supplier{attachments, options, nullptr};
    writer.SetAttachmentFilter(SupplyAttachment, &supplier, nullptr);
    const long hr = writer.Convert(text.c_str(), pFont);
    if (supplier.error)
        std::rethrow_exception(supplier.error);
    if (FAILED(hr))
        throw ConversionError(0, "the old-format text could not be converted to RTF");
    return StreamBytes(output);
}

} // namespace rtf_converter
