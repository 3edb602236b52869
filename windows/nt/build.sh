#!/bin/sh
# Builds what runs on the NT kernel: vorlix.sys, our test drivers, and the native program.
#
#   build.sh BUILD_DIR     leaves BUILD_DIR/*.sys and BUILD_DIR/vxtest.exe
set -eu

if [ $# -ne 1 ]; then
  sed -n '2,4s/^# \{0,1\}//p' "$0" >&2
  exit 2
fi
mkdir -p "$1"
build=$(cd "$1" && pwd)
cd "$(dirname "$0")/../.."

windows/build_image.sh "$build/vorlix" >"$build/vorlix.log" || {
  cat "$build/vorlix.log" >&2
  exit 1
}
cp "$build/vorlix/vorlix.sys" "$build/vorlix.sys"
for driver in port check; do
  windows/build_image.sh "$build/$driver" windows/nt/$driver/*.cpp >/dev/null
  cp "$build/$driver/vorlix.sys" "$build/vx$driver.sys"
done

target=x86_64-w64-mingw32
$target-g++ -std=gnu++20 -O2 -ffreestanding -fno-exceptions -fno-rtti -fno-stack-protector \
  -fno-threadsafe-statics -Wall -Wextra -Werror -Wshadow -Wconversion \
  --param=min-pagesize=0 -I. -isystem /usr/$target/include/ddk -nostdlib -nostartfiles \
  -Wl,--entry,NtProcessStartup -Wl,--subsystem,native -o "$build/vxtest.exe" \
  windows/nt/user/*.cpp -lntdll -lntdllcrt -lgcc
