#include "tests/model/two_drivers.h"

static const char Path[] = "\\Registry\\Machine\\Some";
static const WCHAR WidePath[] = L"\\REGISTRY\\Machine\\Some";

// A value as the kernel lays it out: the data starts at a multiple of 8.
MODEL_TEST(Registry, FullInformation) {
  PortDescription port;
  port.Values["Abc"] = RegistryDword(0x11223344);
  port.Values["Name"] = RegistryText("COM3", false);
  PnpNode *node = PnpAdd(port);
  HANDLE key;
  ASSERT_EQ(IoOpenDeviceRegistryKey(PnpPdo(node), PLUGPLAY_REGKEY_DEVICE, 0, &key), STATUS_SUCCESS);
  alignas(8) UCHAR buffer[64];
  memset(buffer, 0xFF, sizeof buffer);
  auto *full = reinterpret_cast<PKEY_VALUE_FULL_INFORMATION>(buffer);
  ULONG length = 0;
  Wide abc("ABC");
  auto query = [&](UNICODE_STRING *Name, ULONG Room) {
    return ZwQueryValueKey(key, Name, KeyValueFullInformation, buffer, Room, &length);
  };
  EXPECT_EQ(query(&abc.String, 36), STATUS_SUCCESS);
  EXPECT_EQ(length, 36u);
  EXPECT_EQ(full->Type, static_cast<ULONG>(REG_DWORD));
  EXPECT_EQ(full->NameLength, 6u);
  EXPECT_EQ(full->DataOffset, 32u);
  EXPECT_EQ(full->DataLength, 4u);
  EXPECT_EQ(full->Name[0], L'A');
  EXPECT_EQ(full->Name[1], L'b');
  EXPECT_EQ(buffer[32], 0x44);
  EXPECT_EQ(buffer[36], 0xFF);

  EXPECT_EQ(query(&abc.String, 35), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(length, 36u);
  EXPECT_EQ(query(&abc.String, 19), STATUS_BUFFER_TOO_SMALL);
  Wide name("Name");
  EXPECT_EQ(query(&name.String, 64), STATUS_SUCCESS);
  EXPECT_EQ(full->DataOffset, 32u);
  EXPECT_EQ(full->DataLength, 8u);
  Wide absent("Absent");
  EXPECT_EQ(query(&absent.String, 64), STATUS_OBJECT_NAME_NOT_FOUND);
  FaultArm({.Kinds = FaultRegistry});
  EXPECT_EQ(query(&abc.String, 64), STATUS_INSUFFICIENT_RESOURCES);
  FaultDisarm();
  PnpRemove(node);
  EXPECT_EQ(query(&abc.String, 64), STATUS_SUCCESS);  // the open handle keeps the key
  ZwClose(key);
}

static NTSTATUS QueryInto(ULONG Relative, PCWSTR From, const WCHAR *Name, PVOID Into,
                          ULONG DefaultType = 0) {
  static ULONG defaultValue = 99;
  RTL_QUERY_REGISTRY_TABLE table[2] = {};
  table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
  table[0].Name = const_cast<PWSTR>(Name);
  table[0].EntryContext = Into;
  table[0].DefaultType = DefaultType;
  table[0].DefaultData = &defaultValue;
  table[0].DefaultLength = sizeof defaultValue;
  return RtlQueryRegistryValues(Relative, From, table, nullptr, nullptr);
}

MODEL_TEST(Registry, DirectValuesAndDefaults) {
  RegistrySet(Path, "Number", RegistryDword(7));
  RegistrySet(Path, "Text", RegistryText("hello"));
  RegistrySet(Path, "Bytes", {REG_BINARY, {1, 2, 3, 4, 5}});
  ULONG number = 1;
  EXPECT_EQ(QueryInto(0, WidePath, L"NUMBER", &number), STATUS_SUCCESS);
  EXPECT_EQ(number, 7u);
  EXPECT_EQ(QueryInto(0, WidePath, L"Absent", &number), STATUS_SUCCESS);
  EXPECT_EQ(number, 7u);
  EXPECT_EQ(QueryInto(0, WidePath, L"Absent", &number, REG_DWORD), STATUS_SUCCESS);
  EXPECT_EQ(number, 99u);

  number = 1;
  EXPECT_EQ(QueryInto(0, L"\\Nowhere", L"Number", &number, REG_DWORD),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(number, 1u);
  EXPECT_EQ(QueryInto(RTL_REGISTRY_OPTIONAL, L"\\Nowhere", L"Number", &number, REG_DWORD),
            STATUS_SUCCESS);
  EXPECT_EQ(number, 99u);

  UNICODE_STRING text = {};
  EXPECT_EQ(QueryInto(0, WidePath, L"Text", &text), STATUS_SUCCESS);
  EXPECT_EQ(text.Length, 10);
  RtlFreeUnicodeString(&text);
  struct {
    LONG Head;
    UCHAR Rest[12];
  } bytes = {-16, {}};
  EXPECT_EQ(QueryInto(0, WidePath, L"Bytes", &bytes), STATUS_SUCCESS);
  EXPECT_EQ(memcmp(&bytes, "\1\2\3\4\5", 5), 0);
  bytes.Head = -4;
  EXPECT_EQ(QueryInto(0, WidePath, L"Bytes", &bytes), STATUS_BUFFER_TOO_SMALL);
}
