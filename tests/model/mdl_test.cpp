#include "tests/model/two_drivers.h"

static const ULONG Tag = FourCharacters("Test");

MODEL_TEST(Mdl, NonPagedPoolAndPartial) {
  char *pool = static_cast<char *>(ExAllocatePoolWithTag(NonPagedPoolNx, 6000, Tag));
  PMDL whole = IoAllocateMdl(pool, 6000, FALSE, FALSE, nullptr);
  EXPECT_EQ(MmGetMdlVirtualAddress(whole), pool);
  EXPECT_EQ(MmGetMdlByteCount(whole), 6000u);
  MmBuildMdlForNonPagedPool(whole);
  EXPECT_EQ(whole->MappedSystemVa, pool);

  PMDL part = IoAllocateMdl(pool + 4100, 100, FALSE, FALSE, nullptr);
  IoBuildPartialMdl(whole, part, pool + 4100, 100);
  EXPECT_EQ(part->MappedSystemVa, pool + 4100);
  EXPECT_EQ(part->MdlFlags, MDL_PARTIAL | MDL_SOURCE_IS_NONPAGED_POOL);
  IoBuildPartialMdl(whole, part, pool + 5900, 0);  // to the end
  EXPECT_EQ(MmGetMdlByteCount(part), 100u);
  IoFreeMdl(part);
  IoFreeMdl(whole);

  PMDL empty = IoAllocateMdl(pool, 0, FALSE, FALSE, nullptr);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(MmGetMdlByteCount(empty), 0u);
  IoFreeMdl(empty);
  ExFreePoolWithTag(pool, Tag);
  EXPECT_EQ(MdlCount(), 0u);
}

static PVOID Map(PMDL Mdl) {
  return MmMapLockedPagesSpecifyCache(Mdl, KernelMode, MmCached, nullptr, FALSE,
                                      MdlMappingNoExecute);
}

// A user's pages: mapped on demand, a partial MDL over them has a mapping of its own.
TWO_DRIVERS_TEST(Mdl, UserPagesAreMappedAndMayFail) {
  Buffer(DO_DIRECT_IO);
  OnLower = [](PDEVICE_OBJECT, PIRP Irp) {
    PMDL mdl = Irp->MdlAddress;
    EXPECT_EQ(mdl->MdlFlags, MDL_PAGES_LOCKED);
    FaultArm({.Kinds = FaultMapping});
    EXPECT_EQ(Map(mdl), nullptr);
    EXPECT_TRUE(FaultDisarm());

    char *user = static_cast<char *>(MmGetMdlVirtualAddress(mdl));
    PMDL part = IoAllocateMdl(user + 2, 2, FALSE, FALSE, nullptr);
    IoBuildPartialMdl(mdl, part, user + 2, 2);
    void *mapped = Map(part);
    EXPECT_EQ(part->MdlFlags, MDL_PARTIAL | MDL_PARTIAL_HAS_BEEN_MAPPED | MDL_MAPPED_TO_SYSTEM_VA);
    memcpy(mapped, "cd", 2);
    IoFreeMdl(part);
    memcpy(Map(mdl), "ab", 2);
    return CompleteWith(Irp, STATUS_SUCCESS, 4);
  };
  HANDLE handle = OpenLow();
  std::vector<uint8_t> bytes;
  EXPECT_EQ(FileRead(handle, 4, &bytes), STATUS_SUCCESS);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "abcd");
  FileClose(handle);
}

static char Bytes[PAGE_SIZE];

static PMDL MdlOf(ULONG Count) {
  return IoAllocateMdl(Bytes, Count, FALSE, FALSE, nullptr);
}

static const BadRoutine BadUses[] = {
    {"freed twice", "mdl.double-free",
     [] {
       PMDL mdl = MdlOf(8);
       IoFreeMdl(mdl);
       IoFreeMdl(mdl);
     }},
    {"left", "leak.mdl",
     [] {
       MdlOf(1);
       TwoUnload();
     }},
    {"built over paged pool", "mdl.paged",
     [] {
       PVOID paged = ExAllocatePoolWithTag(PagedPool, 8, Tag);
       MmBuildMdlForNonPagedPool(IoAllocateMdl(paged, 8, FALSE, FALSE, nullptr));
     }},
    {"mapped though nonpaged", "mdl.already-mapped",
     [] {
       PMDL mdl = MdlOf(8);
       MmBuildMdlForNonPagedPool(mdl);
       Map(mdl);
     }},
    {"mapped without locked pages", "mdl.not-locked", [] { Map(MdlOf(8)); }},
    {"partial outside of the source", "mdl.outside",
     [] {
       PMDL source = MdlOf(8);
       MmBuildMdlForNonPagedPool(source);
       IoBuildPartialMdl(source, MdlOf(16), Bytes + 4, 5);
     }},
    {"freed under a packet", "mdl.in-use",
     [] {
       OnLower = HoldIt;
       PIRP irp = OwnRead();
       PMDL mdl = IoAllocateMdl(Bytes, 8, FALSE, FALSE, irp);
       MmBuildMdlForNonPagedPool(mdl);
       IofCallDriver(Two.Upper, irp);
       IoFreeMdl(mdl);
     }},
    {"mapping that may not fail", "bugcheck",
     [] {
       Buffer(DO_DIRECT_IO);
       OnLower = [](PDEVICE_OBJECT Device, PIRP Irp) {
         FaultArm({.Kinds = FaultMapping});
         MmMapLockedPagesSpecifyCache(Irp->MdlAddress, KernelMode, MmCached, nullptr, TRUE,
                                      MdlMappingNoExecute);
         return Succeed(Device, Irp);
       };
       FileWrite(OpenLow(), {1});
     }},
};

TEST(Mdl, BadUsesAreStopped) {
  ExpectTwoStopped(BadUses);
}
