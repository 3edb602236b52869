// Every pool tag of the driver. A tag is written here as the pool shows it in memory: its first
// character stands at the lowest address.
#pragma once

#include "platform/kernel.h"

constexpr ULONG PoolTag(const char (&Text)[5]) {
  return static_cast<ULONG>(Text[0]) | static_cast<ULONG>(Text[1]) << 8 |
         static_cast<ULONG>(Text[2]) << 16 | static_cast<ULONG>(Text[3]) << 24;
}

constexpr ULONG POOL_PROXY_BUFFER = PoolTag("ZK00");
constexpr ULONG POOL_PROXY_CLIENT_REQUEST = PoolTag("ZK01");
constexpr ULONG POOL_PORT_DATA = PoolTag("ZK02");
constexpr ULONG POOL_PROXY_ZK_REQUEST = PoolTag("ZK03");
constexpr ULONG POOL_CLIENT_READER = PoolTag("ZK04");
constexpr ULONG POOL_CONTROL_REPLY = PoolTag("ZK06");
constexpr ULONG POOL_ZK_READER = PoolTag("ZK07");
constexpr ULONG POOL_CLIENT_WRITE = PoolTag("ZK09");
constexpr ULONG POOL_PASS_THROUGH = PoolTag("ZK0A");
constexpr ULONG POOL_REGISTRY_VALUE = PoolTag("ZK0B");
constexpr ULONG POOL_CONTROL_LINK = PoolTag("ZK0D");
constexpr ULONG POOL_SERIALIZER_ITEM = PoolTag("ZK0E");
constexpr ULONG POOL_MESSAGE_TEXT = PoolTag("ZK0F");
constexpr ULONG POOL_MESSAGE = PoolTag("ZK10");
constexpr ULONG POOL_DOS_NAME = PoolTag("ZK11");
constexpr ULONG POOL_PORT_NAME = PoolTag("ZK12");
constexpr ULONG POOL_DEVICE_NAME = PoolTag("ZK16");
constexpr ULONG POOL_CALL_DOWN = PoolTag("ZK17");
constexpr ULONG POOL_STRINGS = PoolTag("ZK19");
constexpr ULONG POOL_PNP_ANSWER = PoolTag("ZK21");
constexpr ULONG POOL_TRACE = PoolTag("Sevx");
constexpr ULONG POOL_SERVICE_PATH = PoolTag("XXXX");
