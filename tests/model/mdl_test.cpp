#include "platform/model/mdl.h"
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

static char Bytes[3 * PAGE_SIZE];

static PMDL MdlOf(ULONG Count) {
  return IoAllocateMdl(Bytes, Count, FALSE, FALSE, nullptr);
}

static PMDL Built(PMDL Mdl) {
  MmBuildMdlForNonPagedPool(Mdl);
  return Mdl;
}

static PMDL Freed() {
  PMDL mdl = MdlOf(8);
  IoFreeMdl(mdl);
  return mdl;
}

// With a packet that pends.
static PMDL SentWith(PMDL Mdl) {
  OnLower = HoldIt;
  PIRP irp = OwnRead();
  irp->MdlAddress = Mdl;
  IofCallDriver(Two.Upper, irp);
  return Mdl;
}

static const BadRoutine BadUses[] = {
    {"freed twice", "mdl.double-free", [] { IoFreeMdl(Freed()); }},
    {"mapped when freed", "mdl.unknown", [] { Map(Freed()); }},
    {"no MDL freed", "mdl.unknown", [] { IoFreeMdl(reinterpret_cast<PMDL>(Bytes + PAGE_SIZE)); }},
    {"a user's locked pages freed", "mdl.freed-locked", [] { IoFreeMdl(MdlMakeLocked(Bytes, 8)); }},
    {"built twice", "mdl.already-mapped", [] { Built(Built(MdlOf(8))); }},
    {"partial of what nobody has locked", "mdl.not-locked",
     [] { IoBuildPartialMdl(MdlOf(1), MdlOf(1), Bytes, 1); }},
    {"partial of more pages than it has room for", "mdl.target-too-small",
     [] { IoBuildPartialMdl(Built(MdlOf(sizeof Bytes)), MdlOf(1), Bytes, 0); }},
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
    {"mapped though nonpaged", "mdl.already-mapped", [] { Map(Built(MdlOf(8))); }},
    {"mapped without locked pages", "mdl.not-locked", [] { Map(MdlOf(8)); }},
    {"partial outside of the source", "mdl.outside",
     [] { IoBuildPartialMdl(Built(MdlOf(8)), MdlOf(16), Bytes + 4, 5); }},
    {"freed under a packet", "mdl.in-use", [] { IoFreeMdl(SentWith(Built(MdlOf(8)))); }},
    {"its pool freed under a packet", "mdl.pool-freed",
     [] {
       PVOID pool = ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag);
       SentWith(Built(IoAllocateMdl(pool, 8, FALSE, FALSE, nullptr)));
       ExFreePoolWithTag(pool, Tag);
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
