#include "driver/text_length.h"

constexpr SIZE_T CHARACTERS_MAX = 0x7FFFFFFF;

NTSTATUS TextLength(PCWSTR Text, SIZE_T MaximumBytes, SIZE_T *Bytes) {
  SIZE_T maximum = MaximumBytes / sizeof(WCHAR);
  if (Text == nullptr || maximum > CHARACTERS_MAX) {
    return STATUS_INVALID_PARAMETER;
  }
  for (SIZE_T count = 0; count < maximum; ++count) {
    if (Text[count] == 0) {
      *Bytes = count * sizeof(WCHAR);
      return STATUS_SUCCESS;
    }
  }
  return STATUS_INVALID_PARAMETER;
}
