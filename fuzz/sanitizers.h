// AddressSanitizer asks a program for its settings before anything else runs.
#pragma once

extern "C" __attribute__((used, visibility("default"))) const char *__asan_default_options();
