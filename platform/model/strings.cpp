// Counted and bounded strings.
//
// The verifier's rules here:
//
//   string.overlap       a copy between overlapping buffers
//   string.unterminated  a string in pool that does not end within its block
//   irql.paged-memory    a string in paged pool touched at DISPATCH_LEVEL
#include <type_traits>

#include "platform/kernel.h"
#include "platform/model/pool.h"
#include "platform/model/text.h"
#include "platform/model/verifier.h"

static constexpr ULONG StringTag = 0x67727453;  // "Strg"
static constexpr size_t MostUnicodeBytes = 0xFFFE;
static constexpr size_t MostBoundedCharacters = 0x7FFFFFFF;

static void RequireReachable(const void *Text, const char *Service) {
  if (VerifierOn() && KeGetCurrentIrql() >= DISPATCH_LEVEL && PoolIsPaged(Text)) {
    VerifierStop("irql.paged-memory", Text, "%s: paged memory at DISPATCH_LEVEL", Service);
  }
}

// The number of characters before the terminator, which must stand in the same block; Most when
// there are that many.
template <typename Character>
static size_t TerminatedLength(const Character *Text, const char *Service, size_t Most = SIZE_MAX) {
  size_t room = VerifierOn() ? PoolBlockBytes(Text) / sizeof(Character) : 0;
  for (size_t length = 0;; ++length) {
    if (room != 0 && length == room && length < Most) {
      VerifierStop("string.unterminated", Text, "%s: the string does not end in its block of pool",
                   Service);
    }
    if (length == Most || Text[length] == 0) {
      return length;
    }
  }
}

// ---- counted strings ----

void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
  *DestinationString = {};
  if (!SourceString) {
    return;
  }
  RequireReachable(SourceString, "RtlInitUnicodeString");
  size_t bytes = TerminatedLength(SourceString, "RtlInitUnicodeString") * sizeof(WCHAR);
  if (bytes > MostUnicodeBytes - sizeof(WCHAR)) {
    bytes = MostUnicodeBytes - sizeof(WCHAR);
  }
  DestinationString->Length = static_cast<USHORT>(bytes);
  DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
  DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

void RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString) {
  *DestinationString = {};
  if (!SourceString) {
    return;
  }
  size_t bytes = TerminatedLength(SourceString, "RtlInitAnsiString");
  if (bytes > MostUnicodeBytes) {
    bytes = MostUnicodeBytes;
  }
  DestinationString->Length = static_cast<USHORT>(bytes);
  DestinationString->MaximumLength = static_cast<USHORT>(bytes + 1);
  DestinationString->Buffer = const_cast<PCHAR>(SourceString);
}

ULONG RtlxAnsiStringToUnicodeSize(PCANSI_STRING AnsiString) {
  VerifierRequireIrql(PASSIVE_LEVEL, "RtlxAnsiStringToUnicodeSize");
  return static_cast<ULONG>((AnsiString->Length + 1u) * sizeof(WCHAR));
}

NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                      BOOLEAN AllocateDestinationString) {
  VerifierRequireIrql(PASSIVE_LEVEL, "RtlAnsiStringToUnicodeString");
  ULONG bytes = RtlxAnsiStringToUnicodeSize(SourceString);
  if (bytes > MostUnicodeBytes) {
    return STATUS_INVALID_PARAMETER;
  }
  USHORT length = static_cast<USHORT>(bytes - sizeof(WCHAR));
  if (AllocateDestinationString) {
    DestinationString->Buffer =
        static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, StringTag));
    if (!DestinationString->Buffer) {
      return STATUS_INSUFFICIENT_RESOURCES;
    }
    DestinationString->MaximumLength = static_cast<USHORT>(bytes);
  } else if (length >= DestinationString->MaximumLength) {
    return STATUS_BUFFER_OVERFLOW;
  }
  DestinationString->Length = length;
  for (USHORT i = 0; i < SourceString->Length; ++i) {
    DestinationString->Buffer[i] = static_cast<UCHAR>(SourceString->Buffer[i]);
  }
  // Room for Length but not for the terminator is legal when the caller brought the buffer.
  if (length + sizeof(WCHAR) <= DestinationString->MaximumLength) {
    DestinationString->Buffer[SourceString->Length] = 0;
  }
  return STATUS_SUCCESS;
}

void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
  VerifierRequireIrql(APC_LEVEL, "RtlFreeUnicodeString");
  if (UnicodeString->Buffer) {
    ExFreePoolWithTag(UnicodeString->Buffer, 0);
    *UnicodeString = {};
  }
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                             BOOLEAN CaseInSensitive) {
  VerifierRequireIrql(PASSIVE_LEVEL, "RtlCompareUnicodeString");
  size_t length1 = String1->Length / sizeof(WCHAR);
  size_t length2 = String2->Length / sizeof(WCHAR);
  for (size_t i = 0; i < length1 && i < length2; ++i) {
    WCHAR one = String1->Buffer[i];
    WCHAR other = String2->Buffer[i];
    if (CaseInSensitive) {
      one = WideUpper(one);
      other = WideUpper(other);
    }
    if (one != other) {
      return static_cast<LONG>(one) - static_cast<LONG>(other);
    }
  }
  return static_cast<LONG>(String1->Length) - static_cast<LONG>(String2->Length);
}

// ---- bounded strings ----

static bool BadRoom(SIZE_T Bytes) {
  SIZE_T characters = Bytes / sizeof(WCHAR);
  return characters == 0 || characters > MostBoundedCharacters;
}

static NTSTATUS CopyAt(PWSTR Destination, SIZE_T Characters, SIZE_T At, PCWSTR Source) {
  RequireReachable(Source, "RtlStringCbCopyW");
  RequireReachable(Destination, "RtlStringCbCopyW");
  TerminatedLength(Source, "RtlStringCbCopyW", Characters - At);
  if (VerifierOn() && Source >= Destination && Source < Destination + Characters) {
    VerifierStop("string.overlap", Destination, "a string copied onto itself");
  }
  while (At + 1 < Characters && *Source) {
    Destination[At++] = *Source++;
  }
  Destination[At] = 0;
  return *Source ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS RtlStringCbCopyW(PWSTR Destination, SIZE_T DestinationBytes, PCWSTR Source) {
  if (BadRoom(DestinationBytes)) {
    return STATUS_INVALID_PARAMETER;
  }
  return CopyAt(Destination, DestinationBytes / sizeof(WCHAR), 0, Source);
}

NTSTATUS RtlStringCbCatW(PWSTR Destination, SIZE_T DestinationBytes, PCWSTR Source) {
  if (BadRoom(DestinationBytes)) {
    return STATUS_INVALID_PARAMETER;
  }
  SIZE_T characters = DestinationBytes / sizeof(WCHAR);
  SIZE_T at = 0;
  while (at < characters && Destination[at]) {
    ++at;
  }
  if (at == characters) {
    return STATUS_INVALID_PARAMETER;
  }
  return CopyAt(Destination, characters, at, Source);
}

NTSTATUS RtlStringCbPrintfW(PWSTR Destination, SIZE_T DestinationBytes, PCWSTR Format, ...) {
  if (BadRoom(DestinationBytes)) {
    return STATUS_INVALID_PARAMETER;
  }
  size_t most = DestinationBytes / sizeof(WCHAR) - 1;
  va_list args;
  va_start(args, Format);
  int written = _vsnwprintf(Destination, most, Format, args);
  va_end(args);
  if (written < 0) {
    Destination[most] = 0;
    return STATUS_BUFFER_OVERFLOW;
  }
  Destination[written] = 0;
  return STATUS_SUCCESS;
}

// ---- formatted text ----

struct Sink {
  WCHAR *Buffer;
  size_t Room;
  size_t Count;  // of the whole text, written or not
};

struct Conversion {
  bool Left;
  bool Zeros;
  bool Plus;
  bool Space;
  bool Alternate;
  bool HasPrecision;
  size_t Width;
  size_t Precision;
  unsigned Bits;  // of an integer argument
  bool Narrow;    // h
  bool Wide;      // l or w
};

static void Put(Sink *Out, WCHAR Character) {
  if (Out->Count < Out->Room) {
    Out->Buffer[Out->Count] = Character;
  }
  ++Out->Count;
}

static void PutMany(Sink *Out, WCHAR Character, size_t Times) {
  while (Times-- > 0) {
    Put(Out, Character);
  }
}

template <typename Character>
static void PutText(Sink *Out, const Conversion &How, const Character *Text, size_t Length) {
  size_t shown = How.HasPrecision && How.Precision < Length ? How.Precision : Length;
  size_t padding = How.Width > shown ? How.Width - shown : 0;
  if (!How.Left) {
    PutMany(Out, How.Zeros ? L'0' : L' ', padding);
  }
  for (size_t i = 0; i < shown; ++i) {
    Put(Out, static_cast<WCHAR>(static_cast<std::make_unsigned_t<Character>>(Text[i])));
  }
  if (How.Left) {
    PutMany(Out, L' ', padding);
  }
}

template <typename Character>
static void PutString(Sink *Out, const Conversion &How, const Character *Text) {
  static const Character null[] = {'(', 'n', 'u', 'l', 'l', ')', 0};
  if (!Text) {
    Text = null;
  }
  RequireReachable(Text, "_vsnwprintf");
  size_t length = 0;
  while (!(How.HasPrecision && length == How.Precision) && Text[length]) {
    ++length;
  }
  PutText(Out, How, Text, length);
}

static void PutInteger(Sink *Out, const Conversion &How, ULONGLONG Value, bool Negative,
                       unsigned Base, bool Upper) {
  char digits[24];
  size_t count = 0;
  const char *set = Upper ? "0123456789ABCDEF" : "0123456789abcdef";
  for (ULONGLONG rest = Value; rest || (count == 0 && !(How.HasPrecision && !How.Precision));
       rest /= Base) {
    digits[count++] = set[rest % Base];
  }
  const char *prefix = Negative ? "-" : How.Plus ? "+" : How.Space ? " " : "";
  if (How.Alternate && Base == 16 && Value) {
    prefix = Upper ? "0X" : "0x";
  }
  size_t prefixLength = __builtin_strlen(prefix);
  size_t zeros = How.HasPrecision && How.Precision > count ? How.Precision - count : 0;
  size_t used = prefixLength + zeros + count;
  size_t padding = How.Width > used ? How.Width - used : 0;
  bool zeroPadding = How.Zeros && !How.Left && !How.HasPrecision;
  if (!How.Left && !zeroPadding) {
    PutMany(Out, L' ', padding);
  }
  for (; *prefix; ++prefix) {
    Put(Out, static_cast<WCHAR>(*prefix));
  }
  PutMany(Out, L'0', zeros + (zeroPadding ? padding : 0));
  while (count > 0) {
    Put(Out, static_cast<WCHAR>(digits[--count]));
  }
  if (How.Left) {
    PutMany(Out, L' ', padding);
  }
}

static size_t Number(const wchar_t **Format, va_list *Args, bool *Negative) {
  if (**Format == L'*') {
    ++*Format;
    int value = va_arg(*Args, int);
    *Negative = value < 0;
    return static_cast<size_t>(value < 0 ? -value : value);
  }
  size_t value = 0;
  for (; **Format >= L'0' && **Format <= L'9'; ++*Format) {
    value = value * 10 + static_cast<size_t>(**Format - L'0');
  }
  return value;
}

static bool SetFlag(Conversion *How, wchar_t Character) {
  switch (Character) {
  case L'-':
    return How->Left = true;
  case L'0':
    return How->Zeros = true;
  case L'+':
    return How->Plus = true;
  case L' ':
    return How->Space = true;
  case L'#':
    return How->Alternate = true;
  default:
    return false;
  }
}

// "l" is 32 bits for integers, as long is on the systems that this format comes from.
static void ReadSize(Conversion *How, const wchar_t **Format) {
  How->Bits = 32;
  for (;; ++*Format) {
    switch (**Format) {
    case L'h':
      How->Narrow = true;
      break;
    case L'w':
      How->Wide = true;
      break;
    case L'l':
      How->Bits = How->Wide ? 64 : 32;
      How->Wide = true;
      break;
    case L'z':
      How->Bits = 64;
      break;
    case L'I':
      How->Bits = 64;
      if ((*Format)[1] == L'6' && (*Format)[2] == L'4') {
        *Format += 2;
      } else if ((*Format)[1] == L'3' && (*Format)[2] == L'2') {
        How->Bits = 32;
        *Format += 2;
      }
      break;
    default:
      return;
    }
  }
}

static Conversion ReadConversion(const wchar_t **Format, va_list *Args) {
  Conversion how = {};
  while (SetFlag(&how, **Format)) {
    ++*Format;
  }
  bool negative = false;
  how.Width = Number(Format, Args, &negative);
  how.Left = how.Left || negative;
  if (**Format == L'.') {
    ++*Format;
    negative = false;
    how.Precision = Number(Format, Args, &negative);
    how.HasPrecision = !negative;
  }
  ReadSize(&how, Format);
  return how;
}

static void PutUnsigned(Sink *Out, Conversion How, va_list *Args, unsigned Base, bool Upper) {
  ULONGLONG value = How.Bits == 64 ? va_arg(*Args, unsigned long long) : va_arg(*Args, unsigned);
  How.Plus = How.Space = false;
  PutInteger(Out, How, How.Narrow ? static_cast<USHORT>(value) : value, false, Base, Upper);
}

static void PutSigned(Sink *Out, const Conversion &How, va_list *Args) {
  LONGLONG value = How.Bits == 64 ? va_arg(*Args, long long) : va_arg(*Args, int);
  if (How.Narrow) {
    value = static_cast<SHORT>(value);
  }
  ULONGLONG size = value < 0 ? 0 - static_cast<ULONGLONG>(value) : static_cast<ULONGLONG>(value);
  PutInteger(Out, How, size, value < 0, 10, false);
}

static void PutConversion(Sink *Out, Conversion How, wchar_t Letter, va_list *Args) {
  bool narrow = How.Narrow || ((Letter == L'S' || Letter == L'C') && !How.Wide);
  switch (Letter) {
  case L'd':
  case L'i':
    PutSigned(Out, How, Args);
    break;
  case L'u':
    PutUnsigned(Out, How, Args, 10, false);
    break;
  case L'o':
    PutUnsigned(Out, How, Args, 8, false);
    break;
  case L'x':
  case L'X':
    PutUnsigned(Out, How, Args, 16, Letter == L'X');
    break;
  case L'p':
    How.HasPrecision = true;
    How.Precision = 2 * sizeof(PVOID);
    PutInteger(Out, How, reinterpret_cast<ULONG_PTR>(va_arg(*Args, void *)), false, 16, true);
    break;
  case L'c':
  case L'C': {
    int value = va_arg(*Args, int);
    WCHAR character = narrow ? static_cast<UCHAR>(value) : static_cast<WCHAR>(value);
    How.HasPrecision = false;
    PutText(Out, How, &character, 1);
    break;
  }
  case L's':
  case L'S':
    if (narrow) {
      PutString(Out, How, va_arg(*Args, const char *));
    } else {
      PutString(Out, How, va_arg(*Args, const wchar_t *));
    }
    break;
  default:  // "%%", and what no format knows
    Put(Out, Letter);
    break;
  }
}

int _vsnwprintf(wchar_t *Buffer, size_t Count, const wchar_t *Format, va_list Args) {
  Sink out = {Buffer, Count, 0};
  va_list args;
  va_copy(args, Args);
  while (*Format) {
    wchar_t character = *Format++;
    if (character != L'%') {
      Put(&out, character);
      continue;
    }
    Conversion how = ReadConversion(&Format, &args);
    if (!*Format) {
      break;
    }
    PutConversion(&out, how, *Format++, &args);
  }
  va_end(args);
  if (out.Count > Count) {
    return -1;
  }
  if (out.Count < Count) {
    Buffer[out.Count] = 0;
  }
  return static_cast<int>(out.Count);
}
