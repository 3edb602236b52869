// Pool and memory descriptor lists.
#pragma once

#include "platform/kernel/types.h"

typedef enum _POOL_TYPE { NonPagedPool = 0, PagedPool = 1, NonPagedPoolNx = 512 } POOL_TYPE;

NTKERNELAPI PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI void ExFreePoolWithTag(PVOID Block, ULONG Tag);

typedef struct _MDL {
  struct _MDL *Next;
  CSHORT Size;
  CSHORT MdlFlags;
  PVOID Process;
  PVOID MappedSystemVa;
  PVOID StartVa;
  ULONG ByteCount;
  ULONG ByteOffset;
} MDL;

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_PARTIAL 0x0010
#define MDL_PARTIAL_HAS_BEEN_MAPPED 0x0020

typedef enum _MEMORY_CACHING_TYPE { MmNonCached = 0, MmCached = 1 } MEMORY_CACHING_TYPE;
#define LowPagePriority 0
#define NormalPagePriority 16
#define HighPagePriority 32
#define MdlMappingNoExecute 0x40000000

#define PAGE_SIZE 0x1000
#define MmGetMdlVirtualAddress(Mdl) \
  (static_cast<PVOID>(static_cast<PCHAR>((Mdl)->StartVa) + (Mdl)->ByteOffset))
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)

NTKERNELAPI PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer,
                               BOOLEAN ChargeQuota, PIRP Irp);
NTKERNELAPI void IoFreeMdl(PMDL Mdl);
NTKERNELAPI void IoBuildPartialMdl(PMDL SourceMdl, PMDL TargetMdl, PVOID VirtualAddress,
                                   ULONG Length);
NTKERNELAPI void MmBuildMdlForNonPagedPool(PMDL Mdl);
NTKERNELAPI PVOID MmMapLockedPagesSpecifyCache(PMDL Mdl, KPROCESSOR_MODE AccessMode,
                                               MEMORY_CACHING_TYPE CacheType,
                                               PVOID RequestedAddress, ULONG BugCheckOnFailure,
                                               ULONG Priority);
