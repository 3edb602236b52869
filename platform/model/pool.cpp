#include "platform/model/pool.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <vector>

#include "platform/model/address_map.h"
#include "platform/model/area.h"
#include "platform/model/causality.h"
#include "platform/model/dispatcher.h"
#include "platform/model/executor.h"
#include "platform/model/faults.h"
#include "platform/model/guard.h"
#include "platform/model/locks.h"
#include "platform/model/mdl.h"
#include "platform/model/paged_pool.h"
#include "platform/model/scheduler.h"
#include "platform/model/thread_object.h"
#include "platform/model/unload.h"
#include "platform/model/verifier.h"
#include "platform/model/verifier_state.h"

static constexpr int FreshByte = 0xC7;
static constexpr unsigned char FreedByte = 0xDF;
static constexpr uint64_t Canary = 0x7A9E'51C3'0D48'B26F;
static constexpr size_t QuarantineBlocks = 512;
static constexpr size_t QuarantineBytes = 1 << 20;

// Stands in front of every block. Behind the block stands one more canary, unless AddressSanitizer
// watches that place.
struct alignas(16) PoolHeader {
  AddressNode Node;  // by the block's address
  LIST_ENTRY Link;   // live or quarantined
  SIZE_T Bytes;
  ULONG Tag;
  POOL_TYPE Type;
  const void *Place;      // where it was allocated
  const void *FreePlace;  // and given back, once it is in quarantine
  PDRIVER_OBJECT Maker;   // the driver that was at work; null when none was
  uint64_t Front;
};
static_assert(sizeof(PoolHeader) == 80);

struct TagCount {
  ULONG Tag;
  PoolCounts Counts;
};

static constexpr size_t TailBytes = AsanOn ? 0 : sizeof Canary;

static ModelMutex poolMutex;
static AddressMap poolMap;
static LIST_ENTRY liveBlocks = {&liveBlocks, &liveBlocks};
static LIST_ENTRY quarantine = {&quarantine, &quarantine};
static size_t quarantinedBlocks;
static size_t quarantinedBytes;
static bool reuseAtOnce;
static std::map<const char *, SIZE_T> pagedBlocks;  // live ones, with their sizes
static std::vector<TagCount> tagCounts;
static PoolCounts total;

static void *BlockOf(PoolHeader *header) {
  return header + 1;
}

static std::string TagText(ULONG tag) {
  std::string text;
  for (int shift = 0; shift < 32; shift += 8) {
    char c = static_cast<char>(tag >> shift);
    text += c >= ' ' && c <= '~' ? c : '.';
  }
  return text;
}

static std::string BlockText(PoolHeader *header) {
  char text[64];
  snprintf(text, sizeof text, "%p \"%s\" %llu bytes", BlockOf(header), TagText(header->Tag).c_str(),
           static_cast<unsigned long long>(header->Bytes));
  return text + std::string(" allocated at ") + PlaceText(header->Place);
}

// --- counts ------------------------------------------------------------------------------------

static PoolCounts *CountsOf(ULONG tag) {
  for (TagCount &entry : tagCounts) {
    if (entry.Tag == tag) {
      return &entry.Counts;
    }
  }
  tagCounts.push_back({tag, {}});
  return &tagCounts.back().Counts;
}

static void CountIn(PoolHeader *header) {
  for (PoolCounts *counts : {CountsOf(header->Tag), &total}) {
    ++counts->Blocks;
    ++counts->Allocations;
    counts->Bytes += header->Bytes;
  }
  if (header->Type == PagedPool) {
    pagedBlocks[static_cast<const char *>(BlockOf(header))] = header->Bytes;
  }
}

static void CountOut(PoolHeader *header) {
  for (PoolCounts *counts : {CountsOf(header->Tag), &total}) {
    --counts->Blocks;
    counts->Bytes -= header->Bytes;
  }
  if (header->Type == PagedPool) {
    pagedBlocks.erase(static_cast<const char *>(BlockOf(header)));
  }
}

PoolCounts PoolCount(ULONG Tag) {
  Guard guard(poolMutex);
  return Tag == 0 ? total : *CountsOf(Tag);
}

bool PoolIsPaged(const void *Address) {
  const char *at = static_cast<const char *>(Address);
  Guard guard(poolMutex);
  auto after = pagedBlocks.upper_bound(at);
  return after != pagedBlocks.begin() && at < std::prev(after)->first + std::prev(after)->second;
}

SIZE_T PoolBlockBytes(const void *Block) {
  Guard guard(poolMutex);
  AddressNode *node = AddressFind(&poolMap, Block);
  const PoolHeader *header = node ? CONTAINING_RECORD(node, PoolHeader, Node) : nullptr;
  return header && !header->FreePlace ? header->Bytes : 0;
}

std::string PoolLeaks() {
  Guard guard(poolMutex);
  std::string text;
  for (PLIST_ENTRY entry = liveBlocks.Flink; entry != &liveBlocks; entry = entry->Flink) {
    text += BlockText(CONTAINING_RECORD(entry, PoolHeader, Link)) + '\n';
  }
  return text;
}

void PoolCheckUnloaded(PDRIVER_OBJECT Driver) {
  Guard guard(poolMutex);
  uint64_t count = 0;
  std::string text;
  for (PLIST_ENTRY entry = liveBlocks.Flink; entry != &liveBlocks; entry = entry->Flink) {
    PoolHeader *header = CONTAINING_RECORD(entry, PoolHeader, Link);
    if (header->Maker == Driver) {
      ++count;
      text += BlockText(header) + '\n';
    }
  }
  if (count > 0) {
    VerifierStop("leak.pool", Driver, "%s is unloaded and leaves %llu blocks\n%s",
                 DriverText(Driver).c_str(), static_cast<unsigned long long>(count), text.c_str());
  }
}

// --- marks -------------------------------------------------------------------------------------

static void Mark(PoolHeader *header) {
  header->Front = Canary;
  BytesForbid(&header->Front, sizeof header->Front);
  char *end = static_cast<char *>(BlockOf(header)) + header->Bytes;
  memcpy(end, &Canary, TailBytes);
  memset(BlockOf(header), FreshByte, header->Bytes);
}

static void CheckMarks(PoolHeader *header) {
  BytesAllow(&header->Front, sizeof header->Front);
  const char *end = static_cast<char *>(BlockOf(header)) + header->Bytes;
  bool before = header->Front != Canary;
  if (before || memcmp(end, &Canary, TailBytes) != 0) {
    VerifierStop("pool.overrun", BlockOf(header), "written to %s the block: %s",
                 before ? "before" : "after", BlockText(header).c_str());
  }
}

static void CheckStillFreed(PoolHeader *header) {
  const unsigned char *bytes = static_cast<unsigned char *>(BlockOf(header));
  BytesAllow(bytes, header->Bytes);
  // One comparison with itself, shifted by one, says whether all bytes are alike.
  if (bytes[0] == FreedByte && memcmp(bytes, bytes + 1, header->Bytes - 1) == 0) {
    return;
  }
  for (SIZE_T i = 0; i < header->Bytes; ++i) {
    if (bytes[i] != FreedByte) {
      VerifierStop("pool.use-after-free", bytes,
                   "byte %llu was written after the block was freed "
                   "at %s: %s",
                   static_cast<unsigned long long>(i), PlaceText(header->FreePlace).c_str(),
                   BlockText(header).c_str());
    }
  }
}

// --- allocating --------------------------------------------------------------------------------

static void CheckIrql(POOL_TYPE type, const char *service) {
  VerifierRequireIrql(type == PagedPool ? APC_LEVEL : DISPATCH_LEVEL, service);
}

static void CheckAllocate(POOL_TYPE type, SIZE_T bytes, ULONG tag) {
  if (type != NonPagedPool && type != PagedPool && type != NonPagedPoolNx) {
    VerifierStop("pool.bad-type", nullptr, "there is no pool of type %d", static_cast<int>(type));
  }
  CheckIrql(type, "ExAllocatePoolWithTag");
  if (bytes == 0) {
    VerifierStop("pool.zero-bytes", nullptr, "zero bytes of \"%s\"", TagText(tag).c_str());
  }
  if (tag == 0) {
    VerifierStop("pool.no-tag", nullptr, "an allocation without a tag");
  }
  PDRIVER_OBJECT acting = ThreadSelf()->Acting;
  if (acting && acting == UnloadingDriver()) {
    VerifierStop("pool.unloading", acting, "%s allocates \"%s\" while it is unloaded",
                 DriverText(acting).c_str(), TagText(tag).c_str());
  }
  if (ThreadSelf()->PowerDown > 0) {
    VerifierStop("power.down-call", nullptr, "pool \"%s\" is allocated in a power-down",
                 TagText(tag).c_str());
  }
}

void PoolReuseAtOnce() {
  reuseAtOnce = true;
}

// The block of this size that was freed last.
static void *TakeBack(SIZE_T bytes) {
  Guard guard(poolMutex);
  for (PLIST_ENTRY link = quarantine.Blink; link != &quarantine; link = link->Blink) {
    PoolHeader *header = CONTAINING_RECORD(link, PoolHeader, Link);
    if (header->Type != PagedPool && header->Bytes == bytes) {
      CheckStillFreed(header);
      --quarantinedBlocks;
      quarantinedBytes -= bytes;
      RemoveEntryList(&header->Link);
      AddressRemove(&poolMap, &header->Node);
      return header;
    }
  }
  return nullptr;
}

static void *TakeMemory(POOL_TYPE type, SIZE_T bytes) {
  if (PagedForced && type == PagedPool) {
    return PagedTake(sizeof(PoolHeader), bytes + TailBytes);
  }
  void *freed = reuseAtOnce && type != PagedPool ? TakeBack(bytes) : nullptr;
  return freed ? freed : malloc(sizeof(PoolHeader) + bytes + TailBytes);
}

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
  SwitchPoint(SwitchReason::Allocate, nullptr);
  if (VerifierEnabled) {
    CheckAllocate(PoolType, NumberOfBytes, Tag);
  }
  if (FaultHere(FaultPool, Tag)) {
    return nullptr;
  }
  void *memory = TakeMemory(PoolType, NumberOfBytes);
  if (!memory) {
    return nullptr;
  }
  PoolHeader *header = static_cast<PoolHeader *>(memory);
  header->Bytes = NumberOfBytes;
  header->Tag = Tag;
  header->Type = PoolType;
  header->Place = __builtin_return_address(0);
  header->FreePlace = nullptr;
  header->Maker = ThreadSelf()->Acting;
  if (VerifierEnabled) {
    Mark(header);
  }
  HistoryNote("allocate", BlockOf(header), NumberOfBytes, Tag);
  Guard guard(poolMutex);
  AddressAdd(&poolMap, &header->Node, BlockOf(header));
  InsertTailList(&liveBlocks, &header->Link);
  CountIn(header);
  return BlockOf(header);
}

// --- freeing -----------------------------------------------------------------------------------

static void Drop(PoolHeader *header) {
  RemoveEntryList(&header->Link);
  AddressRemove(&poolMap, &header->Node);
  BytesAllow(header, sizeof *header + header->Bytes);
  if (PagedForced && header->Type == PagedPool) {
    PagedGive(header);
  } else {
    free(header);
  }
}

static void LeaveQuarantine() {
  PoolHeader *oldest = CONTAINING_RECORD(quarantine.Flink, PoolHeader, Link);
  if (PagedForced && oldest->Type == PagedPool) {
    PagedReach(oldest);
  }
  CheckStillFreed(oldest);
  --quarantinedBlocks;
  quarantinedBytes -= oldest->Bytes;
  Drop(oldest);
}

static void EnterQuarantine(PoolHeader *header, const void *place) {
  CausalCease(BlockOf(header), header->Bytes);
  header->FreePlace = place;
  memset(BlockOf(header), FreedByte, header->Bytes);
  BytesForbid(BlockOf(header), header->Bytes);
  RemoveEntryList(&header->Link);
  InsertTailList(&quarantine, &header->Link);
  ++quarantinedBlocks;
  quarantinedBytes += header->Bytes;
  while (quarantinedBlocks > QuarantineBlocks || quarantinedBytes > QuarantineBytes) {
    LeaveQuarantine();
  }
}

static PoolHeader *FindLive(PVOID block, ULONG tag, const void *place) {
  Guard guard(poolMutex);
  AddressNode *node = AddressFind(&poolMap, block);
  if (!node) {
    VerifierStop("pool.foreign-free", block, "%p, freed at %s, is no block of the pool", block,
                 PlaceText(place).c_str());
  }
  PoolHeader *header = CONTAINING_RECORD(node, PoolHeader, Node);
  if (header->FreePlace) {
    VerifierStop("pool.double-free", block, "freed at %s and again at %s: %s",
                 PlaceText(header->FreePlace).c_str(), PlaceText(place).c_str(),
                 BlockText(header).c_str());
  }
  if (VerifierEnabled && tag != 0 && tag != header->Tag) {
    VerifierStop("pool.wrong-tag", block, "freed as \"%s\": %s", TagText(tag).c_str(),
                 BlockText(header).c_str());
  }
  return header;
}

static void CheckFree(PoolHeader *header) {
  CheckIrql(header->Type, "ExFreePoolWithTag");
  CheckMarks(header);
  LockLeaveMemory(BlockOf(header), header->Bytes);
  MdlPoolFreed(BlockOf(header), header->Bytes);
  if (WaitsWithin(BlockOf(header), header->Bytes)) {
    VerifierStop("dispatcher.freed-waited", BlockOf(header), "a thread waits within %s",
                 BlockText(header).c_str());
  }
}

void ExFreePoolWithTag(PVOID Block, ULONG Tag) {
  const void *place = __builtin_return_address(0);
  HistoryNote("free", Block, Tag);
  PoolHeader *header = FindLive(Block, Tag, place);
  if (VerifierEnabled) {
    CheckFree(header);
  }
  Guard guard(poolMutex);
  CountOut(header);
  if (VerifierEnabled) {
    EnterQuarantine(header, place);
  } else {
    Drop(header);
  }
}

// --- the area ----------------------------------------------------------------------------------

static void Boot() {
  InitializeListHead(&liveBlocks);
  InitializeListHead(&quarantine);
  quarantinedBlocks = quarantinedBytes = 0;
  reuseAtOnce = false;
  pagedBlocks.clear();
  tagCounts.clear();
  total = {};
}

static void Check() {
  while (!IsListEmpty(&quarantine)) {
    LeaveQuarantine();
  }
  if (total.Blocks > 0) {
    VerifierStop("leak.pool", nullptr, "%llu blocks are left\n%s",
                 static_cast<unsigned long long>(total.Blocks), PoolLeaks().c_str());
  }
}

static void Shutdown() {
  for (PLIST_ENTRY list : {&liveBlocks, &quarantine}) {
    while (!IsListEmpty(list)) {
      Drop(CONTAINING_RECORD(list->Flink, PoolHeader, Link));
    }
  }
}

const ModelArea PoolArea = {Boot, Check, Shutdown};
