#include "platform/model/irql.h"
#include "tests/model/model_run.h"

static int deletions;
static int lastHandles;

static void *NewObject() {
  return ObjectCreate(ObjectKind::Driver, 32, [](void *) { ++deletions; });
}

MODEL_TEST(Objects, LiveUntilTheLastReferenceAndHandle) {
  deletions = lastHandles = 0;
  void *body = NewObject();
  auto onLast = [](void *) { ++lastHandles; };
  HANDLE first = ObjectOpenHandle(body, onLast);
  HANDLE second = ObjectOpenHandle(body, onLast);
  EXPECT_EQ(ObjectReferences(body), 3);
  EXPECT_EQ(ObjectHandleCount(body), 2u);
  EXPECT_EQ(ObjectFromHandle(first, ObjectKind::Driver), body);
  EXPECT_EQ(ObjectFromHandle(first, ObjectKind::File), nullptr);
  ObDereferenceObject(body);
  ZwClose(first);
  EXPECT_EQ(lastHandles, 0);
  PVOID again;
  EXPECT_EQ(ObReferenceObjectByHandle(second, 0, nullptr, KernelMode, &again, nullptr),
            STATUS_SUCCESS);
  ZwClose(second);
  EXPECT_EQ(lastHandles, 1);
  EXPECT_EQ(deletions, 0);
  EXPECT_TRUE(ObjectIs(body, ObjectKind::Driver));
  EXPECT_EQ(ObDereferenceObject(again), 0);
  EXPECT_EQ(deletions, 1);
  EXPECT_FALSE(ObjectIs(body, ObjectKind::Driver));
  EXPECT_EQ(ObjectCount(ObjectKind::Driver), 0u);
}

static const BadRoutine badRoutines[] = {
    {"reference below zero", "object.dead",
     [] {
       void *body = NewObject();
       ObDereferenceObject(body);
       ObDereferenceObject(body);
     }},
    {"no object", "object.foreign",
     [] {
       int something = 0;
       ObReferenceObject(&something);
     }},
    {"handle closed twice", "handle.bad",
     [] {
       HANDLE handle = ObjectOpenHandle(NewObject(), nullptr);
       ZwClose(handle);
       ZwClose(handle);
     }},
    {"object left", "leak.object", [] { NewObject(); }},
    {"handle left", "leak.handle", [] { ObjectOpenHandle(NewObject(), nullptr); }},
    {"held lock in a deleted object", "lock.freed-held",
     [] {
       auto *lock = static_cast<PKSPIN_LOCK>(ObjectCreate(ObjectKind::Driver, 32, nullptr));
       KeInitializeSpinLock(lock);
       KeAcquireSpinLockRaiseToDpc(lock);
       ObDereferenceObject(lock);
     }},
    {"list broken", "fastfail",
     [] {
       LIST_ENTRY head;
       LIST_ENTRY entry;
       InitializeListHead(&head);
       InsertTailList(&head, &entry);
       head.Blink = &head;
       RemoveEntryList(&entry);
     }},
};

TEST(Objects, MisuseIsStopped) {
  ExpectStopped(badRoutines);
}

TEST(Verifier, HistoryIsOfOneObjectOrOfAll) {
  ExpectClean([] {
    int a = 0;
    int b = 0;
    HistoryNote("first of a", &a, 1);
    HistoryNote("only of b", &b);
    HistoryNote("second of a", &a, 2);
    std::string text = HistoryText(&a, 10);
    EXPECT_LT(text.find("first of a"), text.find("second of a"));
    EXPECT_EQ(text.find("only of b"), std::string::npos);
    EXPECT_NE(HistoryText(nullptr, 2).find("only of b"), std::string::npos);
    EXPECT_EQ(HistoryText(nullptr, 2).find("first of a"), std::string::npos);
    for (unsigned i = 0; i < 3000; ++i) {
      HistoryNote("flood", nullptr, i);
    }
    EXPECT_EQ(HistoryText(&a, 10), "");
    VerifierWarn("frowned-upon");
    VerifierWarn("frowned-upon");
    EXPECT_EQ(VerifierWarnings("frowned-upon"), 2u);
  });
}

TEST(Verifier, StopSaysWhoHeldWhatAndHowToReplay) {
  RunReport report = ModelRun({}, [] {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KeAcquireSpinLockRaiseToDpc(&lock);
    VerifierStop("some.rule", &lock, "number %d", 42);
  });
  EXPECT_TRUE(report.Stopped);
  for (const char *part :
       {"some.rule: number 42\n", "thread \"main\" at IRQL 2 holds lock", "taken at",
        "what happened to it:\n  [main, IRQL 2] lock 0x", "replay: f\n"}) {
    EXPECT_NE(report.Text.find(part), std::string::npos) << part << "\n" << report.Text;
  }
}

TEST(Verifier, OffMeansNoRules) {
  ExpectClean(
      [] {
        KSPIN_LOCK lock = {0};
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
        KeReleaseSpinLock(&lock, irql);
        IrqlRaise(DISPATCH_LEVEL);
        VerifierRequireIrql(PASSIVE_LEVEL, "nothing");
        IrqlLower(PASSIVE_LEVEL);
        EXPECT_EQ(HistoryText(nullptr, 10), "");
      },
      {.Verifier = false});
}
