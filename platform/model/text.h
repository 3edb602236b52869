// Text between the kernel's UTF-16 and the model's UTF-8.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/kernel.h"

std::string TextFromWide(const WCHAR *Characters, size_t Count);
// Up to the terminator; libc's routines take wide characters of another size.
size_t WideLength(const WCHAR *Text);
std::string TextFromString(PCUNICODE_STRING String);
// Without a terminator.
std::vector<WCHAR> TextToWide(std::string_view Text);
// As names are compared: letters of the basic Latin alphabet in upper case.
std::string TextUpper(std::string_view Text);
WCHAR WideUpper(WCHAR Character);
