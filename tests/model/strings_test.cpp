#include "platform/model/text.h"
#include "tests/model/two_drivers.h"

static const ULONG Tag = FourCharacters("Text");

static std::string Narrow(const WCHAR *Text) {
  std::string text;
  for (; *Text; ++Text) {
    text += static_cast<char>(*Text);
  }
  return text;
}

// The result, or "!" with what stands in the buffer when it does not fit.
static std::string Print(size_t Room, const wchar_t *Format, ...) {
  WCHAR buffer[64];
  for (WCHAR &character : buffer) {
    character = L'#';
  }
  buffer[63] = 0;
  va_list args;
  va_start(args, Format);
  int written = _vsnwprintf(buffer, Room, Format, args);
  va_end(args);
  if (written < 0) {
    buffer[Room] = 0;
    return "!" + Narrow(buffer);
  }
  EXPECT_EQ(buffer[written], static_cast<size_t>(written) < Room ? 0 : L'#');
  buffer[written] = 0;
  return Narrow(buffer);
}

TEST(Strings, EveryLengthOfACharacterInUtf8) {
  EXPECT_EQ(TextFromWide(L"a\u00E9\u20AC", 3), "a\u00E9\u20AC");
}

TEST(Strings, FormattedText) {
  const wchar_t *none = nullptr;
  EXPECT_EQ(Print(40, L"%ws|%s|%hs|%S|%c|%%", L"ab", L"cd", "ef", "gh", L'i'), "ab|cd|ef|gh|i|%");
  EXPECT_EQ(Print(40, L"%ws", none), "(null)");
  EXPECT_EQ(Print(40, L"%d %u %x %X", -5, 5u, 0xC000009Au, 0xABu), "-5 5 c000009a AB");
  EXPECT_EQ(Print(40, L"%5d|%-5d|%05d|%.3d|%+d", 42, 42, -42, 7, 1), "   42|42   |-0042|007|+1");
  EXPECT_EQ(Print(40, L"%08x|%#x|%5ws|%.1ws", 0x1fu, 0x1fu, L"ab", L"xyz"),
            "0000001f|0x1f|   ab|x");
  EXPECT_EQ(Print(40, L"%lu %lx %llu %I64x", 7u, 0x7fu, 1ull << 40, 1ull << 36),
            "7 7f 1099511627776 1000000000");
  EXPECT_EQ(Print(40, L"%p", reinterpret_cast<void *>(0xABCull)), "0000000000000ABC");
  EXPECT_EQ(Print(40, L"%*d", 4, 1), "   1");
}

TEST(Strings, FormattedTextThatDoesNotFit) {
  EXPECT_EQ(Print(4, L"%ws", L"abc"), "abc");
  EXPECT_EQ(Print(3, L"%ws", L"abc"), "abc");  // full, without a terminator
  EXPECT_EQ(Print(2, L"%ws", L"abc"), "!ab");
}

TEST(Strings, BoundedCopies) {
  WCHAR buffer[6] = {};
  EXPECT_EQ(RtlStringCbCopyW(buffer, 12, L"abcde"), STATUS_SUCCESS);
  EXPECT_EQ(RtlStringCbCopyW(buffer, 11, L"abcde"), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(Narrow(buffer), "abcd");
  EXPECT_EQ(RtlStringCbCatW(buffer, 12, L"xy"), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(Narrow(buffer), "abcdx");
  EXPECT_EQ(RtlStringCbPrintfW(buffer, 12, L"%s%d", L"abc", 12), STATUS_SUCCESS);
  EXPECT_EQ(Narrow(buffer), "abc12");
  EXPECT_EQ(RtlStringCbPrintfW(buffer, 12, L"%s%d", L"abc", 123), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(Narrow(buffer), "abc12");
  EXPECT_EQ(RtlStringCbCopyW(buffer, 1, L""), STATUS_INVALID_PARAMETER);
}

MODEL_TEST(Strings, CountedStrings) {
  UNICODE_STRING string;
  RtlInitUnicodeString(&string, L"abc");
  EXPECT_EQ(string.Length, 6);
  EXPECT_EQ(string.MaximumLength, 8);
  RtlInitUnicodeString(&string, nullptr);
  EXPECT_EQ(string.MaximumLength, 0);

  ANSI_STRING ansi;
  RtlInitAnsiString(&ansi, "a\xE9");
  EXPECT_EQ(RtlxAnsiStringToUnicodeSize(&ansi), 6u);
  EXPECT_EQ(RtlAnsiStringToUnicodeString(&string, &ansi, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(string.Length, 4);
  EXPECT_EQ(string.Buffer[1], 0xE9);
  EXPECT_EQ(string.Buffer[2], 0);
  Wide upper("A\xE9");
  upper.Buffer[1] = 0xC9;
  EXPECT_NE(RtlCompareUnicodeString(&string, &upper.String, FALSE), 0);
  EXPECT_EQ(RtlCompareUnicodeString(&string, &upper.String, TRUE), 0);
  upper.String.Length = 2;
  EXPECT_GT(RtlCompareUnicodeString(&string, &upper.String, TRUE), 0);
  RtlFreeUnicodeString(&string);

  WCHAR room[2];
  string.Buffer = room;
  string.MaximumLength = 4;
  EXPECT_EQ(RtlAnsiStringToUnicodeString(&string, &ansi, FALSE), STATUS_BUFFER_OVERFLOW);
  string.MaximumLength = 6;
  FaultArm({.Kinds = FaultPool});
  EXPECT_EQ(RtlAnsiStringToUnicodeString(&string, &ansi, TRUE), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(FaultDisarm());
}

static const BadRoutine BadUses[] = {
    {"paged text at raised level", "irql.paged-memory",
     [] {
       auto *paged = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, 8, Tag));
       paged[0] = 0;
       IrqlRaise(DISPATCH_LEVEL);
       WCHAR buffer[8];
       RtlStringCbPrintfW(buffer, sizeof buffer, L"%ws", paged);
     }},
    {"compared at raised level", "irql.too-high",
     [] {
       UNICODE_STRING empty = {};
       IrqlRaise(DISPATCH_LEVEL);
       RtlCompareUnicodeString(&empty, &empty, FALSE);
     }},
    {"copied onto itself", "string.overlap",
     [] {
       WCHAR buffer[8] = L"abc";
       RtlStringCbCopyW(buffer, sizeof buffer, buffer + 1);
     }},
};

TEST(Strings, BadUsesAreStopped) {
  ExpectStopped(BadUses);
}
