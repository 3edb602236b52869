#!/bin/sh
# Cross-builds the Windows driver image and checks it.
#
#   build_image.sh BUILD_DIR              vorlix.sys from the driver's sources, checked
#   build_image.sh BUILD_DIR SOURCE...    the same from these sources, only built
#
# Leaves BUILD_DIR/vorlix.sys, and its debug information in BUILD_DIR/vorlix.sys.debug; likewise in
# BUILD_DIR/clang what clang makes of the same sources. Warnings are errors for GCC and clang.
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
cache=$(command -v ccache || true)

language="-std=gnu++20 -O2 -g -ffreestanding -fno-exceptions -fno-rtti -fno-stack-protector
  -fasynchronous-unwind-tables -fno-threadsafe-statics -fno-use-cxa-atexit -mno-red-zone
  -mno-stack-arg-probe -I."
# A kernel stack is small, and nothing probes it here.
warnings="-Wall -Wextra -Werror -Wshadow -Wundef -Wvla -Wformat=2 -Wmissing-declarations
  -Wimplicit-fallthrough -Wconversion -Wframe-larger-than=1024"
# The kit reads the processor block at its low addresses, which GCC would take for a null pointer.
gcc="$cache $target-g++ $language $warnings --param=min-pagesize=0 -isystem $kit"
clang="$cache clang++-14 --target=x86_64-w64-windows-gnu $language $warnings
  -isystem $library -isystem $library/$target -isystem $kit"

# Without -c, which would set the customer bit of every event code.
(
  cd "$build"
  $target-windmc -U -h . -r . "$events"
  $target-windres events.rc -O coff -o events.res.o
)
$target-windres windows/version.rc -O coff -o "$build/version.res.o"

# Not -shared, which would make a library with an export table. Versions as of the first system that
# is served: below 5 a kernel takes the image for one of an old system, and leaves its code writable.
link() {
  $target-g++ -nostdlib -nostartfiles -Wl,--subsystem,native:10.0 -Wl,--entry,DriverEntry \
    -Wl,--major-os-version,10,--minor-os-version,0 \
    -Wl,--major-image-version,10,--minor-image-version,0 \
    -Wl,--image-base,0x140000000 -Wl,--dynamicbase -Wl,--nxcompat -Wl,--enable-reloc-section \
    -Wl,--exclude-all-symbols -Wl,--no-insert-timestamp -Wl,--fatal-warnings \
    "$@" "$objects"/*.o "$build"/*.res.o -lntoskrnl
}

# make_image COMPILER DIR SOURCE...   Linked a second time for the image without debug information,
# because strip would put the time of day into it.
make_image() {
  compiler=$1
  place=$2
  objects=$place/objects
  shift 2
  rm -rf "$objects"
  mkdir -p "$objects"
  export compiler objects
  # shellcheck disable=SC2016
  printf '%s\0' "$@" platform/windows/*.cpp | xargs -0 -n 1 -P 2 sh -euc '
    object=$(printf %s "${1%.cpp}.o" | tr / _)
    $compiler -c "$1" -o "$objects/$object"
  ' compile
  link -o "$place/unstripped.sys"
  $target-objcopy --only-keep-debug "$place/unstripped.sys" "$place/vorlix.sys.debug"
  link -s -o "$place/vorlix.sys"
  python3 windows/finish_image.py "$place/vorlix.sys"
  if [ "$check" ]; then
    python3 windows/check_image.py "$place/vorlix.sys" --objects "$objects"
  fi
}

make_image "$gcc" "$build" "$@"
echo "the same by clang:"
make_image "$clang" "$build/clang" "$@"
