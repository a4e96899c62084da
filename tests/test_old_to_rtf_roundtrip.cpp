// The RTF written for representative old-format texts is real RTF: our own
// RTF reader reads it back to the text the old-format text shows, and every
// document consumes to its end with its groups balanced.
//
// A placeholder (\objattph) is written without a group of its own, and the
// plain-text reader treats everything after it up to the end of the enclosing
// group as picture data; the samples therefore put placeholders last.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "old_to_rtf_helpers.h"
#include "rtfconverter/PlainTextToRTF.h"

using namespace rtfconv_test;

namespace {

const std::string S = "\x03";

std::string Cmd(const std::string& body) { return "\x01" + body + "\x02"; }

// A filter answering the kind given by the attachment's index.
bool AnswerByIndex(int, const CString& cmd, AttachmentInfo& info, void*, void*)
{
    static const std::vector<BYTE> dib = SmallDib(4, 3);
    auto stream = [](const char* text) {
        IStream* p = nullptr;
        CreateStreamOnHGlobal(nullptr, TRUE, &p);
        p->Write(text, static_cast<ULONG>(std::strlen(text)), nullptr);
        return p;
    };
    switch (cmd.GetString()[3]) {
    case '0': return false;
    case '1': info.aType = AttachmentInfo::AT_PLACEHOLDER; return true;
    case '2': info.aType = AttachmentInfo::AT_OLE_FIRST; info.pStm = stream("ole data"); return true;
    case '3':
        info.aType = AttachmentInfo::AT_OLE_EMBEDDED;
        info.pStm = stream("embedded {data}");
        info.m_pDIBitmap = new CDIBitmap(dib.data(), dib.size());
        return true;
    case '4': info.aType = AttachmentInfo::AT_OLE_PICTURE; info.m_pDIBitmap = new CDIBitmap(dib.data(), dib.size()); return true;
    default:
        info.aType = AttachmentInfo::AT_OLE_LAST;
        info.pStm = stream("\\\\server\\share\\file.doc");
        info.m_pDIBitmap = new CDIBitmap(dib.data(), dib.size());
        return true;
    }
}

struct Sample {
    std::string name, text, shown;
};

std::vector<Sample> Samples()
{
    std::vector<Sample> samples = {
        {"plain", "Hello, world", "Hello, world\r"},
        {"paragraphs, lines, tabs", "a\tb\r\nc\rd", "a\tb\r\nc\rd\r"},
        {"specials and high bytes", "{x} \\y\\ caf\xE9", "{x} \\y\\ caf\xE9\r"},
        {"fonts", Cmd("F12JBIU:Times New Roman") + "bold" + Cmd("F---p\xCA:-") + " back" + Cmd("F08-Ss:Courier") + "sub",
         "bold backsub\r"},
        {"layout", Cmd("LC050100-025200.300 ") + "centred\r" + Cmd("LR000000") + "right", "centred\rright\r"},
        {"eject", "one\r" + Cmd("PE") + "two" + Cmd("P0"), "one\rtwo\r"},
        {"hyperlink and reference",
         "see " + Cmd("CH:Home {page}" + S + "http://x/{y}\\z") + " and " + Cmd("CR:Intro" + S + "doc:Intro") + ".",
         "see Home {page} and Intro.\r"},
        {"numbers", Cmd("CN:1." + S + S + "A" + S + S) + "first\r" + Cmd("CN:2." + S + S + "A" + S + "050") + "second",
         "1. first\r2.  second\r"},
        {"table tags", Cmd("CT:StartRow") + "cell" + Cmd("CT:EndCell"), "StartRowcellEndCell\r"},
        {"attachments of every kind",
         "x" + Cmd("A00") + Cmd("A02") + Cmd("A03") + Cmd("A04") + Cmd("A05") + "y\rz" + Cmd("A01"), "xy\rz\r"},
    };
    // A 100 KB body with every kind of command in every paragraph.
    Sample big{"100 KB", "", ""};
    for (int i = 0; big.text.size() < 100 * 1024; ++i) {
        std::string n = std::to_string(i);
        big.text += Cmd(i % 3 ? "F12JB:Georgia" : "F---:-") + "Paragraph " + n + " {" + n + "}\t" +
                    Cmd("LL100000+050100.") + Cmd("CH:link " + n + S + "http://h/" + n) + Cmd(i % 6 == 1 ? "A00" : "A0" + std::to_string(i % 6)) +
                    (i % 5 ? "" : Cmd("PE")) + "\r";
        big.shown += "Paragraph " + n + " {" + n + "}\tlink " + n + "\r";
    }
    samples.push_back(big);
    return samples;
}

} // namespace

TEST(OldToRTFRoundTrip, OurReaderReadsTheShownText)
{
    for (const Sample& s : Samples()) {
        SCOPED_TRACE(s.name);
        LOGFONT lf = ArialTen();
        long hr = -1;
        std::string rtf = OldToRtf(s.text, &lf, &hr, AnswerByIndex);
        ASSERT_EQ(hr, S_OK);
        EXPECT_TRUE(ReadsBalanced(rtf));
        std::string text = RtfToPlainText(rtf);
        auto diff = std::mismatch(text.begin(), text.end(), s.shown.begin(), s.shown.end());
        EXPECT_TRUE(text == s.shown) << "first difference at " << (diff.first - text.begin()) << ": read \""
                                     << text.substr(diff.first - text.begin(), 40) << "\", shown \""
                                     << s.shown.substr(diff.second - s.shown.begin(), 40) << "\"";
    }
}

TEST(PlainTextToRTFRoundTrip, OurReaderReadsTheText)
{
    const char* texts[] = {"", "x", "a\tb\r\nc\r", "{\\}} caf\xE9\x17!"};
    const char* shown[] = {"\r", "x\r", "a\tb\r\nc\r", "{\\}} caf\xE9!\r"};
    for (int i = 0; i < 4; ++i) {
        rtf_converter::CPlainTextToRTF writer;
        writer.Convert(texts[i], nullptr);
        std::string rtf = writer.Export().GetString();
        EXPECT_TRUE(ReadsBalanced(rtf)) << texts[i];
        EXPECT_EQ(RtfToPlainText(rtf), shown[i]);
    }
}
