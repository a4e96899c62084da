#include "rtfconverter/BaseRTFParser.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "hostlibs/VQLogger.h"
#include "platform/WinTypes.h"
#include "rtfconverter/ReaderKeywords.h"

namespace rtf_converter {

#define RTF_CMD(kw, handler) {kw, &CBaseRTFParser::handler}

// constexpr, so that the compiler builds the index over it (KeywordIndex).
constexpr CBaseRTFParser::tagCMDASSN CBaseRTFParser::s_Cmds[CBaseRTFParser::cCmds] = {
    RTF_CMD("pard", ApplyParCommand),                      // 0
    RTF_CMD("par", ApplyCRCommand),
    RTF_CMD("line", ApplyNLCommand),
    RTF_CMD("qr", ApplyParCommand),
    RTF_CMD("qc", ApplyParCommand),
    RTF_CMD("ql", ApplyParCommand),                        // 5
    RTF_CMD("li", ApplyParCommand),
    RTF_CMD("fi", ApplyParCommand),
    RTF_CMD("ri", ApplyParCommand),
    RTF_CMD("tx", ApplyParCommand),
    RTF_CMD("tb", ApplyParCommand),                        // 10
    RTF_CMD("tldot", ApplyParCommand),
    RTF_CMD("tlhyph", ApplyParCommand),
    RTF_CMD("tlul", ApplyParCommand),
    RTF_CMD("tleq", ApplyParCommand),
    RTF_CMD("plain", ApplyPlainCommand),                   // 15
    RTF_CMD("b", ApplyCharCommand),
    RTF_CMD("ul", ApplyCharCommand),
    RTF_CMD("i", ApplyCharCommand),
    RTF_CMD("strike", ApplyCharCommand),
    RTF_CMD("super", ApplyCharCommand),                    // 20
    RTF_CMD("sub", ApplyCharCommand),
    RTF_CMD("cchs", ApplyCharCommand),
    RTF_CMD("tab", ApplyTabCommand),
    RTF_CMD("pntext", InitPNCommand),
    RTF_CMD("listtext", InitPNCommand),                    // 25
    RTF_CMD("pn", InitPNCommand),
    RTF_CMD("pnlvl", SetParagraphNumberingLevel),
    RTF_CMD("pnstart", SetParagraphNumberingStart),
    RTF_CMD("pndec", SetParagraphNumberingType),
    RTF_CMD("pnlcltr", SetParagraphNumberingType),         // 30
    RTF_CMD("pnucltr", SetParagraphNumberingType),
    RTF_CMD("pnucrm", SetParagraphNumberingType),
    RTF_CMD("pnlcrm", SetParagraphNumberingType),
    RTF_CMD("pnlcrm", SetParagraphNumberingType),          // shadowed by row 33
    RTF_CMD("pnlvlblt", SetParagraphNumberingType),        // 35
    RTF_CMD("pntxta", SetParagraphNumberingTxtAfter),
    RTF_CMD("pntxtb", SetParagraphNumberingTxtBefore),
    RTF_CMD("stylesheet", InitStyleSheet),
    RTF_CMD("sbasedon", IgnoreWholeSection),
    RTF_CMD("ssstraux", IgnoreHidden),                     // 40
    RTF_CMD("field", FieldInit),
    RTF_CMD("fldinst", FieldInstruction),
    RTF_CMD("fldrslt", FieldResult),
    RTF_CMD("fonttbl", InitFontTable),
    RTF_CMD("fnil", FillFontFamily),                       // 45
    RTF_CMD("froman", FillFontFamily),
    RTF_CMD("fswiss", FillFontFamily),
    RTF_CMD("fmodern", FillFontFamily),
    RTF_CMD("fscript", FillFontFamily),
    RTF_CMD("fdecor", FillFontFamily),                     // 50
    RTF_CMD("ftech", FillFontFamily),
    RTF_CMD("fbidi", FillFontFamily),
    RTF_CMD("fcharset", FillFontCharset),
    RTF_CMD("f", GetFontNum),
    RTF_CMD("fs", ApplyFontSize),                          // 55
    RTF_CMD("deff", GetDefaultFontNum),
    RTF_CMD("colortbl", InitColorTable),
    RTF_CMD("red", FillColorTable),
    RTF_CMD("green", FillColorTable),
    RTF_CMD("blue", FillColorTable),                       // 60
    RTF_CMD("cf", ApplyColorCommand),
    RTF_CMD("cb", ApplyBKColorCommand),
    RTF_CMD("chcfpat", ApplyBKColorCommand),
    RTF_CMD("cfpat", ApplyBKColorCommand),
    RTF_CMD(";", ProcessSpecial),                          // 65
    RTF_CMD("*", MarkOptionalSection),
    RTF_CMD("'", ProcessSpecialChar),
    RTF_CMD("lquote", InsertSpecialChar),
    RTF_CMD("rquote", InsertSpecialChar),
    RTF_CMD("objattph", InitAttachment),                   // 70
    RTF_CMD("pict", InitAttachment),
    RTF_CMD("pngblip", SetPictureType),
    RTF_CMD("jpegblip", SetPictureType),
    RTF_CMD("emfblip", SetPictureType),
    RTF_CMD("wmetafile", SetPictureType),                  // 75
    RTF_CMD("dibitmap", SetPictureType),
    RTF_CMD("bin", GetBinary),
    RTF_CMD("object", InitAttachment),
    RTF_CMD("objemb", SetPictureType),
    RTF_CMD("objlink", SetPictureType),                    // 80
    RTF_CMD("objdata", ObjectData),
    RTF_CMD("result", ObjectResult),
    RTF_CMD("trowd", ApplyStartRowCommand),
    RTF_CMD("intbl", ApplyStartRowCommand),
    RTF_CMD("row", ApplyEndRowCommand),                    // 85
    RTF_CMD("lastrow", ApplyLastRowCommand),
    RTF_CMD("cell", ApplyEndCellCommand),
    RTF_CMD("revtbl", InitRevTable),
    RTF_CMD("info", InitInfoGroup),                        // 89
};

#undef RTF_CMD

// Built by the compiler (constexpr: no reader can run before it is there),
// so that a lookup, made for every control word, needs no test that the
// index has been built.
constexpr CKeywordLookup CBaseRTFParser::s_keywordLookup = [] {
    CKeywordLookup lookup;
    for (int row = 0; row < cCmds; ++row)
        lookup.Add(s_Cmds[row].szKeyword, row);
    return lookup;
}();

const CKeywordIndex& CBaseRTFParser::KeywordIndex()
{
    return s_keywordLookup.index;
}

int CBaseRTFParser::FindKeyword(const char* szKeyword)
{
    return KeywordIndex().Find(szKeyword);
}

// --- the records of groups

namespace {

// The records a thread freed last, by size. A reader's records all have one
// size, and a thread seldom runs more than a few kinds of reader; a few
// records of each cover the groups of any depth a document goes up and down
// by. Trivially destructible, so that it stays usable to the thread's end:
// CSaveRecordReaper hands its blocks back to the heap when the thread ends,
// and records freed after that go straight to the heap.
class CSaveRecordCache {
public:
    void* Take(std::size_t cb)
    {
        for (Bin& bin : m_bins) {
            if (bin.cb == cb && bin.pHead) {
                FreeBlock* pBlock = bin.pHead;
                bin.pHead = pBlock->pNext;
                --bin.cBlocks;
                return pBlock;
            }
        }
        return nullptr;
    }
    // False when the block is not kept (the caller frees it).
    bool Keep(void* p, std::size_t cb)
    {
        if (m_bClosed || cb < sizeof(FreeBlock))
            return false;
        Bin* pBin = FindBin(cb);
        if (!pBin || pBin->cBlocks == cMaxBlocks)
            return false;
        if (!m_bReaperSet && !SetReaper())
            return false;
        pBin->cb = cb;
        pBin->pHead = new (p) FreeBlock{pBin->pHead};
        ++pBin->cBlocks;
        return true;
    }
    void Close()
    {
        m_bClosed = true;
        for (Bin& bin : m_bins) {
            while (bin.pHead) {
                FreeBlock* pNext = bin.pHead->pNext;
                ::operator delete(bin.pHead);
                bin.pHead = pNext;
            }
            bin.cBlocks = 0;
        }
    }

private:
    struct FreeBlock {
        FreeBlock* pNext;
    };
    struct Bin {
        std::size_t cb;
        FreeBlock* pHead;
        int cBlocks;
    };
    static constexpr int cMaxBlocks = 32;

    // The bin of that size, or an empty one to take it.
    Bin* FindBin(std::size_t cb)
    {
        Bin* pEmpty = nullptr;
        for (Bin& bin : m_bins) {
            if (bin.cb == cb)
                return &bin;
            if (!pEmpty && bin.cBlocks == 0)
                pEmpty = &bin;
        }
        return pEmpty;
    }
    bool SetReaper();

    Bin m_bins[4];
    bool m_bReaperSet;
    bool m_bClosed;
};

thread_local CSaveRecordCache t_saveRecords;

struct CSaveRecordReaper {
    ~CSaveRecordReaper() { t_saveRecords.Close(); }
};

// The reaper's destructor is registered when the thread first touches it,
// which is before the first block is kept.
bool CSaveRecordCache::SetReaper()
{
    thread_local CSaveRecordReaper s_reaper;
    (void)s_reaper;
    m_bReaperSet = true;
    return true;
}

} // namespace

void* CBaseRTFParser::CBaseRTFParserSave::operator new(std::size_t cb)
{
    void* p = t_saveRecords.Take(cb);
    return p ? p : ::operator new(cb);
}

void* CBaseRTFParser::CBaseRTFParserSave::operator new(std::size_t cb, const std::nothrow_t&) noexcept
{
    void* p = t_saveRecords.Take(cb);
    return p ? p : ::operator new(cb, std::nothrow);
}

void CBaseRTFParser::CBaseRTFParserSave::operator delete(void* p, std::size_t cb) noexcept
{
    if (p && !t_saveRecords.Keep(p, cb))
        ::operator delete(p);
}

void CBaseRTFParser::CBaseRTFParserSave::operator delete(void* p, const std::nothrow_t&) noexcept
{
    ::operator delete(p);
}

void* CBaseRTFParser::CBaseRTFParserSave::operator new(std::size_t cb, std::align_val_t align)
{
    return ::operator new(cb, align);
}

void* CBaseRTFParser::CBaseRTFParserSave::operator new(std::size_t cb, std::align_val_t align,
                                                       const std::nothrow_t&) noexcept
{
    return ::operator new(cb, align, std::nothrow);
}

void CBaseRTFParser::CBaseRTFParserSave::operator delete(void* p, std::size_t, std::align_val_t align) noexcept
{
    ::operator delete(p, align);
}

void CBaseRTFParser::CBaseRTFParserSave::operator delete(void* p, std::align_val_t align, const std::nothrow_t&) noexcept
{
    ::operator delete(p, align);
}

// --- life cycle and the group stack

CBaseRTFParser::CBaseRTFParser(const CBaseRTFParser& other)
    : CRTFParser(other),
      m_rds(other.m_rds),
      m_rdsBeforeHidden(other.m_rdsBeforeHidden),
      m_bOptionalDest(other.m_bOptionalDest),
      m_pnInfo(other.m_pnInfo),
      m_numbering(other.m_numbering),
      m_bParagraphStart(other.m_bParagraphStart),
      m_pSave(other.m_pSave)
{
    AddRefSave(m_pSave);
}

CBaseRTFParser& CBaseRTFParser::operator=(const CBaseRTFParser& other)
{
    if (this != &other) {
        AddRefSave(other.m_pSave);
        ReleaseSave(m_pSave);
        CRTFParser::operator=(other);
        m_rds = other.m_rds;
        m_rdsBeforeHidden = other.m_rdsBeforeHidden;
        m_bOptionalDest = other.m_bOptionalDest;
        m_pnInfo = other.m_pnInfo;
        m_numbering = other.m_numbering;
        m_bParagraphStart = other.m_bParagraphStart;
        m_pSave = other.m_pSave;
    }
    return *this;
}

CBaseRTFParser::~CBaseRTFParser()
{
    ReleaseSave(m_pSave);
}

void CBaseRTFParser::AddRefSave(CBaseRTFParserSave* pSave)
{
    if (pSave)
        ++pSave->cRef;
}

// Iterative, so that releasing a stack many thousands of groups deep cannot
// overflow the call stack.
void CBaseRTFParser::ReleaseSave(CBaseRTFParserSave* pSave)
{
    while (pSave && --pSave->cRef == 0) {
        CBaseRTFParserSave* pNext = pSave->pNext;
        delete pSave;
        pSave = pNext;
    }
}

void CBaseRTFParser::Init()
{
    m_rds = rdsNorm;
    m_rdsBeforeHidden = rdsNorm;
    m_bOptionalDest = false;
    ReleaseSave(m_pSave);
    m_pSave = nullptr;
    m_bParagraphStart = true;
    CRTFParser::Init();
}

CBaseRTFParser::CBaseRTFParserSave* CBaseRTFParser::CreateSave()
{
    return new (std::nothrow) CBaseRTFParserSave;
}

bool CBaseRTFParser::PushRtfState()
{
    CBaseRTFParserSave* pSave = CreateSave();
    if (!pSave) {
        VQTRACE("PushRtfState: no mem\n");
        return false;
    }
    pSave->pNext = m_pSave;  // the stack's reference to the old top moves here
    pSave->rds = m_rds;
    m_pSave = pSave;
    return CRTFParser::PushRtfState();
}

bool CBaseRTFParser::PopRtfState()
{
    VQASSERT(m_cGroup > 0);
    if (!m_pSave) {
        VQTRACE("PopRtfState: underflow\n");
        return false;
    }
    EndGroupAction(m_rds, m_pSave->rds);

    CBaseRTFParserSave* pSaveOld = m_pSave;
    VQASSERT(pSaveOld);
    m_rds = pSaveOld->rds;
    m_pSave = pSaveOld->pNext;
    // The stack's reference moves from the old top to the record below it.
    // When that was the old top's last, the old top goes and its own
    // reference to the record below passes to the stack: the count below is
    // then unchanged, and nothing further down can be released.
    if (--pSaveOld->cRef == 0)
        delete pSaveOld;
    else
        AddRefSave(m_pSave);
    return CRTFParser::PopRtfState();
}

// --- dispatch

bool CBaseRTFParser::TranslateKeyword(const char* szKeyword, int param)
{
    // The word the tokenizer is handing on (nearly every call) is looked up
    // by the key it made; any other text is measured first, out of line, so
    // that this path keeps no registers of its own across the handler call.
    const KeywordKey* pKey = TokenWordKey(szKeyword);
    if (!pKey)
        return TranslateKeywordText(szKeyword, param);
    return TranslateTokenWordKey(*pKey, param);
}

RTFCONV_OUT_OF_LINE bool CBaseRTFParser::TranslateKeywordText(const char* szKeyword, int param)
{
    // As in a skipped destination TranslateTokenWordKey does nothing.
    if (m_rds == rdsSkip)
        return true;
    return DispatchRow(FindKeyword(szKeyword), szKeyword, param);
}

bool CBaseRTFParser::TranslateKeywordAt(int row, const char* szKeyword, int param)
{
    return DispatchRow(row, szKeyword, param);
}

bool CBaseRTFParser::EndGroupAction(RDS rdsOld, RDS rdsNew)
{
    if (rdsOld == rdsPNCommand && rdsNew != rdsPNCommand)
        ApplyParagraphNumbering();
    return true;
}

// --- destinations

bool CBaseRTFParser::InitFontTable(const void*, int)
{
    m_rds = rdsFontTable;
    return true;
}

bool CBaseRTFParser::InitColorTable(const void*, int)
{
    m_rds = rdsColorTable;
    return true;
}

bool CBaseRTFParser::InitStyleSheet(const void*, int)
{
    if (m_rds != rdsSkip)
        m_rds = rdsStyleSheet;
    return true;
}

bool CBaseRTFParser::InitRevTable(const void*, int)
{
    m_rds = rdsRevTable;
    return true;
}

bool CBaseRTFParser::InitInfoGroup(const void*, int)
{
    m_rds = rdsInfo;
    return true;
}

bool CBaseRTFParser::FieldInit(const void*, int)
{
    if (m_rds != rdsSkip)
        m_rds = rdsField;
    return true;
}

bool CBaseRTFParser::FieldInstruction(const void*, int)
{
    if (m_rds != rdsSkip)
        m_rds = rdsFieldInst;
    return true;
}

bool CBaseRTFParser::IgnoreWholeSection(const void*, int)
{
    m_rds = rdsSkip;
    return true;
}

bool CBaseRTFParser::MarkOptionalSection(const void*, int)
{
    m_bOptionalDest = true;
    return true;
}

bool CBaseRTFParser::IgnoreHidden(const void*, int)
{
    if (m_rds == rdsHidden) {
        m_rds = m_rdsBeforeHidden;
    } else {
        m_rdsBeforeHidden = m_rds;
        m_rds = rdsHidden;
    }
    return true;
}

// --- the hexadecimal escape \'hh

int CBaseRTFParser::ParseHexParam(char first)
{
    // Two hex digits the source offers are the two bytes Get would give:
    // taken without a call each. Anything else (a digit missing, the end of
    // the offer) goes through Get, whose rewinds the callers count on.
    std::size_t cbAhead = 0;
    const char* p = first == '\0' ? RunAhead(cbAhead) : nullptr;
    if (p && cbAhead >= 2) {
        const int high = HexDigitValue(p[0]);
        const int low = HexDigitValue(p[1]);
        if (high >= 0 && low >= 0) {
            SkipAhead(2);
            return high * 16 + low;
        }
    }
    char ch = first;
    int value = 0;
    for (int k = 1; k <= 2; ++k) {
        if (k == 2 || ch == '\0')
            Get(ch);  // result ignored: at the end of input ch stays as it was
        const int digit = HexDigitValue(ch);
        if (digit < 0) {
            Backtrack(k);
            return noParam;
        }
        value = value * 16 + digit;
    }
    return value;
}

bool CBaseRTFParser::ProcessSpecialChar(const void*, int)
{
    const int value = ParseHexParam('\0');
    return value == noParam || TakeHexEscape(value);
}

// --- paragraphs and numbering

bool CBaseRTFParser::ApplyParCommand(const void* pKeyword, int)
{
    if (IsKeyword(pKeyword, "pard"))
        m_numbering.ResetParagraph();
    return true;
}

bool CBaseRTFParser::ApplyCRCommand(const void*, int)
{
    // A list may start anywhere, \pnstart without a parameter at the largest
    // int: the counter wraps around as 32-bit arithmetic does rather than
    // overflow.
    m_numbering.m_number = static_cast<int>(static_cast<unsigned>(m_numbering.m_number) + 1u);
    m_bParagraphStart = true;
    return true;
}

// A text within the limit and without a NUL would come back from the cut
// and the C-string setter as it is: it is left alone, uncopied.
void CBaseRTFParser::ApplyParagraphNumbering()
{
    if (!StaysAsCut(m_pnInfo.TextBefore()))
        m_pnInfo.SetTextBefore(CutNumberingText(m_pnInfo.GetTextBefore()));
    if (!StaysAsCut(m_pnInfo.TextAfter()))
        m_pnInfo.SetTextAfter(CutNumberingText(m_pnInfo.GetTextAfter()));
    m_numbering.SetCurrentInfo(std::move(m_pnInfo));
    m_pnInfo.Clear();
}

bool CBaseRTFParser::StaysAsCut(const CString& text) const
{
    const std::size_t cch = static_cast<std::size_t>(text.GetLength());
    return cch <= static_cast<std::size_t>(m_limits.maxNumberingText) && std::strlen(text.GetString()) == cch;
}

// The text at the numbering text limit, not cutting a markup command (0x01 up
// to its 0x02) in two.
CString CBaseRTFParser::CutNumberingText(const CString& text)
{
    const std::size_t limit = static_cast<std::size_t>(m_limits.maxNumberingText);
    if (WithinLimit(static_cast<std::size_t>(text.GetLength()), limit, limitNumberingText))
        return text;
    int cch = static_cast<int>(limit);
    const int iCommandStart = text.Left(cch).ReverseFind('\x01');
    if (iCommandStart >= 0 && text.Left(cch).Find('\x02', iCommandStart) < 0)
        cch = iCommandStart;
    return text.Left(cch);
}

bool CBaseRTFParser::InitPNCommand(const void*, int)
{
    m_rds = m_rds == rdsHyperlink ? rdsSkip : rdsPNCommand;
    return true;
}

bool CBaseRTFParser::SetParagraphNumberingLevel(const void*, int param)
{
    VQASSERT(rdsPNCommand == m_rds);
    m_pnInfo.SetLevel(param);
    return true;
}

bool CBaseRTFParser::SetParagraphNumberingStart(const void*, int param)
{
    VQASSERT(rdsPNCommand == m_rds);
    m_pnInfo.SetStartNum(param);
    return true;
}

namespace {

struct NumberingKeyword {
    const char* szKeyword;
    NumberingType type;
};

constexpr NumberingKeyword kNumberingKeywords[] = {
    {"pndec", pntDecimal},       {"pnlcltr", pntLowerLetter}, {"pnucltr", pntUpperLetter},
    {"pnucrm", pntUpperRoman},   {"pnlcrm", pntLowerRoman},   {"pnlvlblt", pntBullet},
};

} // namespace

bool CBaseRTFParser::SetParagraphNumberingType(const void* pKeyword, int)
{
    VQASSERT(rdsPNCommand == m_rds);
    for (const NumberingKeyword& k : kNumberingKeywords) {
        if (std::strcmp(static_cast<const char*>(pKeyword), k.szKeyword) == 0) {
            m_pnInfo.SetNumberingType(k.type);
            return true;
        }
    }
    VQASSERT(FALSE);
    return true;
}

bool CBaseRTFParser::SetParagraphNumberingTxtAfter(const void*, int)
{
    if (m_rds != rdsSkip)
        m_rds = rdsPNTextAfter;
    return true;
}

bool CBaseRTFParser::SetParagraphNumberingTxtBefore(const void*, int)
{
    if (m_rds != rdsSkip)
        m_rds = rdsPNTextBefore;
    return true;
}

bool CBaseRTFParser::InitPNTxtCommand(const void*, int)
{
    m_rds = rdsPNText;
    return true;
}

} // namespace rtf_converter
