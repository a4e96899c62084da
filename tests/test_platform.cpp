// The framework stand-ins: the behaviour the converters rely on.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/AfxColl.h"
#include "platform/AfxString.h"
#include "platform/WinTypes.h"

TEST(Platform, StringEditing)
{
    CString s("Hello, world");
    EXPECT_EQ(s.GetLength(), 12);
    EXPECT_EQ(s.Find('o'), 4);
    EXPECT_EQ(s.Find('o', 5), 8);
    EXPECT_EQ(s.Find("world"), 7);
    EXPECT_EQ(s.Find('o', 99), -1);
    EXPECT_EQ(s.Mid(7), "world");
    EXPECT_EQ(s.Mid(7, 3), "wor");
    EXPECT_EQ(s.Left(5), "Hello");
    EXPECT_EQ(s.Right(5), "world");
    EXPECT_EQ(s.Mid(50), "");

    s.Insert(5, '!');
    EXPECT_EQ(s, "Hello!, world");
    s.Delete(5, 2);
    EXPECT_EQ(s, "Hello world");
    EXPECT_EQ(s.Replace("o", "0"), 2);
    EXPECT_EQ(s, "Hell0 w0rld");
    s.MakeUpper();
    EXPECT_EQ(s, "HELL0 W0RLD");
    EXPECT_EQ(s.CompareNoCase("hell0 w0rld"), 0);

    // Bytes above 0x7F are kept and compare as unsigned.
    CString high("\xe9t\xe9");
    high.MakeUpper();
    EXPECT_EQ(high, "\xe9T\xe9");
    EXPECT_GT(CString("\xe9").Compare("a"), 0);

    CString f;
    f.Format("%d-%s", 42, "x");
    f.AppendFormat("/%03d", 7);
    EXPECT_EQ(f, "42-x/007");
    f.Format("%s", std::string(1000, 'y').c_str());
    EXPECT_EQ(f.GetLength(), 1000);

    CString b;
    char* p = b.GetBuffer(10);
    std::strcpy(p, "abc");
    b.ReleaseBuffer();
    EXPECT_EQ(b, "abc");
    EXPECT_EQ(CString('x', 3), "xxx");
    EXPECT_EQ(CString("abcdef", 3), "abc");

    EXPECT_THROW(b.GetAt(3), CInvalidArgException);
    EXPECT_THROW(b.SetAt(-1, 'x'), CInvalidArgException);
}

TEST(Platform, ArrayBoundsRaiseInvalidArgument)
{
    CArray<int, int> a;
    EXPECT_THROW(a[0], CInvalidArgException);
    a.Add(1);
    a.Add(3);
    a.InsertAt(1, 2);
    EXPECT_EQ(a.GetSize(), 3);
    EXPECT_EQ(a[1], 2);
    EXPECT_THROW(a.GetAt(-1), CInvalidArgException);
    EXPECT_THROW(a.SetAt(3, 0), CInvalidArgException);
    a.SetSize(5);
    EXPECT_EQ(a[4], 0);
    a.RemoveAt(0, 2);
    EXPECT_EQ(a[0], 3);
    EXPECT_THROW(a.RemoveAt(2, 5), CInvalidArgException);

    CDWordArray d;
    d.Add(0xFFFFFFFFu);
    EXPECT_EQ(d[0], 0xFFFFFFFFu);
}

TEST(Platform, ResultCodesAreNegativeWhenWidened)
{
    const long widened = E_UNEXPECTED;
    EXPECT_LT(widened, 0);
    EXPECT_TRUE(FAILED(E_FAIL));
    EXPECT_TRUE(SUCCEEDED(S_FALSE));
    EXPECT_EQ(RGB(1, 2, 3), 0x030201u);
    EXPECT_EQ(GetBValue(RGB(1, 2, 3)), 3);
}
