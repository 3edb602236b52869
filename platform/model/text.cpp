#include "platform/model/text.h"

static void AppendUtf8(std::string *Text, uint32_t Point) {
  if (Point < 0x80) {
    Text->push_back(static_cast<char>(Point));
  } else if (Point < 0x800) {
    Text->push_back(static_cast<char>(0xC0 | Point >> 6));
    Text->push_back(static_cast<char>(0x80 | (Point & 0x3F)));
  } else if (Point < 0x10000) {
    Text->push_back(static_cast<char>(0xE0 | Point >> 12));
    Text->push_back(static_cast<char>(0x80 | (Point >> 6 & 0x3F)));
    Text->push_back(static_cast<char>(0x80 | (Point & 0x3F)));
  } else {
    Text->push_back(static_cast<char>(0xF0 | Point >> 18));
    Text->push_back(static_cast<char>(0x80 | (Point >> 12 & 0x3F)));
    Text->push_back(static_cast<char>(0x80 | (Point >> 6 & 0x3F)));
    Text->push_back(static_cast<char>(0x80 | (Point & 0x3F)));
  }
}

std::string TextFromWide(const WCHAR *Characters, size_t Count) {
  std::string text;
  text.reserve(Count);
  for (size_t i = 0; i < Count; ++i) {
    uint32_t point = static_cast<uint16_t>(Characters[i]);
    if (point >= 0xD800 && point < 0xDC00 && i + 1 < Count) {
      uint32_t low = static_cast<uint16_t>(Characters[i + 1]);
      if (low >= 0xDC00 && low < 0xE000) {
        point = 0x10000 + ((point - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
    }
    AppendUtf8(&text, point);
  }
  return text;
}

size_t WideLength(const WCHAR *Text) {
  size_t length = 0;
  while (Text[length]) {
    ++length;
  }
  return length;
}

std::string TextFromString(PCUNICODE_STRING String) {
  return TextFromWide(String->Buffer, String->Length / sizeof(WCHAR));
}

std::vector<WCHAR> TextToWide(std::string_view Text) {
  std::vector<WCHAR> wide;
  for (size_t i = 0; i < Text.size();) {
    unsigned char lead = static_cast<unsigned char>(Text[i++]);
    unsigned more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    uint32_t point = more == 0 ? lead : lead & (0x3Fu >> more);
    for (; more > 0 && i < Text.size(); --more) {
      point = point << 6 | (static_cast<unsigned char>(Text[i++]) & 0x3F);
    }
    if (point >= 0x10000) {
      point -= 0x10000;
      wide.push_back(static_cast<WCHAR>(0xD800 + (point >> 10)));
      point = 0xDC00 + (point & 0x3FF);
    }
    wide.push_back(static_cast<WCHAR>(point));
  }
  return wide;
}

std::string TextUpper(std::string_view Text) {
  std::string upper(Text);
  for (char &c : upper) {
    if (c >= 'a' && c <= 'z') {
      c = static_cast<char>(c - 'a' + 'A');
    }
  }
  return upper;
}

WCHAR WideUpper(WCHAR Character) {
  bool latin = Character >= L'a' && Character <= L'z';
  bool accented = Character >= 0xE0 && Character <= 0xFE && Character != 0xF7;
  return latin || accented ? static_cast<WCHAR>(Character - 0x20) : Character;
}
