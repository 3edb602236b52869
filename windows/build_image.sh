#!/bin/sh
# Cross-builds the Windows driver image and checks it.
#
#   build_image.sh BUILD_DIR              vorlix.sys from the driver's sources, checked
#   build_image.sh BUILD_DIR SOURCE...    the same from these sources, only built
#
# Leaves BUILD_DIR/vorlix.sys, and its debug information in BUILD_DIR/vorlix.sys.debug. Every source
# is compiled by GCC and looked at by clang; both treat warnings as errors.
set -eu

if [ $# -lt 1 ]; then
  sed -n '2,8s/^# \{0,1\}//p' "$0" >&2
  exit 2
fi
mkdir -p "$1"
build=$(cd "$1" && pwd)
shift
cd "$(dirname "$0")/.."
events=$PWD/windows/events.mc

if [ $# -gt 0 ]; then
  check=
else
  check=yes
  set -- driver/*.cpp lifecycle/*.cpp client/*.cpp pipes/*.cpp controller/*.cpp
fi

target=x86_64-w64-mingw32
kit=/usr/$target/include/ddk
library=$($target-g++ -print-file-name=include/c++)
objects=$build/objects
rm -rf "$objects"
mkdir -p "$objects"

language="-std=gnu++20 -O2 -g -ffreestanding -fno-exceptions -fno-rtti -fno-stack-protector
  -fno-threadsafe-statics -fno-use-cxa-atexit -mno-red-zone -mno-stack-arg-probe -I."
# A kernel stack is small, and nothing probes it here.
warnings="-Wall -Wextra -Werror -Wshadow -Wundef -Wvla -Wformat=2 -Wmissing-declarations
  -Wimplicit-fallthrough -Wconversion -Wframe-larger-than=1024"
# The kit reads the processor block at its low addresses, which GCC would take for a null pointer.
gcc="$(command -v ccache || true) $target-g++ $language $warnings --param=min-pagesize=0
  -isystem $kit"
clang="clang++-14 --target=x86_64-w64-windows-gnu -fsyntax-only $language $warnings
  -isystem $library -isystem $library/$target -isystem $kit"

export gcc clang objects
# shellcheck disable=SC2016
printf '%s\0' "$@" platform/windows/*.cpp | xargs -0 -n 1 -P 2 sh -euc '
  object=$(printf %s "${1%.cpp}.o" | tr / _)
  $gcc -c "$1" -o "$objects/$object"
  $clang "$1"
' compile

# Without -c, which would set the customer bit of every event code.
(
  cd "$build"
  $target-windmc -U -h . -r . "$events"
  $target-windres events.rc -O coff -o objects/events.res.o
)
$target-windres windows/version.rc -O coff -o "$objects/version.res.o"

# Not -shared, which would make a library with an export table. Linked a second time for the image
# without debug information, because strip would put the time of day into it.
link() {
  $target-g++ -nostdlib -nostartfiles -Wl,--subsystem,native:10.0 -Wl,--entry,DriverEntry \
    -Wl,--image-base,0x140000000 -Wl,--dynamicbase -Wl,--nxcompat -Wl,--enable-reloc-section \
    -Wl,--exclude-all-symbols -Wl,--no-insert-timestamp -Wl,--fatal-warnings \
    "$@" "$objects"/*.o -lntoskrnl
}
link -o "$build/unstripped.sys"
$target-objcopy --only-keep-debug "$build/unstripped.sys" "$build/vorlix.sys.debug"
link -s -o "$build/vorlix.sys"

if [ "$check" ]; then
  python3 windows/check_image.py "$build/vorlix.sys" --objects "$objects"
fi
