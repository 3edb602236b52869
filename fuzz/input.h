// What all fuzzers share: taking an input apart, and failing so that libFuzzer keeps the input.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "platform/model/model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size);

struct Input {
  const uint8_t *At;
  size_t Left;
};

// Behind the end there are zeros.
inline uint32_t Take(Input *Input, size_t Bytes) {
  uint32_t value = 0;
  size_t there = std::min(Bytes, Input->Left);
  memcpy(&value, Input->At, there);
  Input->At += there;
  Input->Left -= there;
  return value;
}
inline uint8_t TakeByte(Input *Input) {
  return static_cast<uint8_t>(Take(Input, 1));
}
inline std::string TakeText(Input *Input, size_t Bytes) {
  std::string text(reinterpret_cast<const char *>(Input->At), std::min(Bytes, Input->Left));
  Input->At += text.size();
  Input->Left -= text.size();
  return text;
}

[[noreturn]] inline void Fail(const std::string &What) {
  fprintf(stderr, "%s\n", What.c_str());
  abort();
}
inline void Require(bool Holds, const char *What) {
  if (!Holds) {
    Fail(What);
  }
}
// A stopped run: what, where, and how it is played again.
inline void RequireNotStopped(const RunReport &Report) {
  if (Report.Stopped) {
    Fail(Report.Text + "\nreplay: " + Report.Replay);
  }
}
