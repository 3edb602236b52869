#include "platform/model/stack_rules.h"

#include "platform/model/power.h"
#include "platform/model/verifier.h"

// How a driver above the bus's own may deal with a request.
enum class Duty {
  MustSucceed,  // it cannot fail
  MayFail,      // it may fail, or be passed on; success is the bus's to say as well
  MayAnswer,    // it may be answered without the bus
  Unknown,      // only the bus answers it: passed on as it came
};

static Duty PnpDuty(const IO_STACK_LOCATION *Location) {
  switch (Location->MinorFunction) {
  case IRP_MN_REMOVE_DEVICE:
  case IRP_MN_SURPRISE_REMOVAL:
  case IRP_MN_STOP_DEVICE:
  case IRP_MN_CANCEL_STOP_DEVICE:
  case IRP_MN_CANCEL_REMOVE_DEVICE:
    return Duty::MustSucceed;
  case IRP_MN_START_DEVICE:
  case IRP_MN_QUERY_STOP_DEVICE:
  case IRP_MN_QUERY_REMOVE_DEVICE:
  case IRP_MN_QUERY_CAPABILITIES:
  case IRP_MN_QUERY_PNP_DEVICE_STATE:
  case IRP_MN_FILTER_RESOURCE_REQUIREMENTS:
  case IRP_MN_QUERY_RESOURCE_REQUIREMENTS:
  case IRP_MN_DEVICE_USAGE_NOTIFICATION:
    return Duty::MayFail;
  case IRP_MN_QUERY_DEVICE_RELATIONS:
    return Location->Parameters.QueryDeviceRelations.Type == TargetDeviceRelation ? Duty::Unknown
                                                                                  : Duty::MayFail;
  case IRP_MN_QUERY_INTERFACE:
    return Duty::MayAnswer;
  default:
    return Duty::Unknown;
  }
}

// Of a device that is gone.
static bool SaysGone(NTSTATUS Status) {
  return Status == STATUS_DELETE_PENDING || Status == STATUS_NO_SUCH_DEVICE ||
         Status == STATUS_DEVICE_NOT_CONNECTED || Status == STATUS_DEVICE_REMOVED;
}

[[noreturn]] static void Stop(const char *Rule, const LocationShadow *At, PIRP Irp,
                              const char *What) {
  const IO_STACK_LOCATION *location = PacketLocation(Irp, At->Number);
  VerifierStop(Rule, Irp,
               "device %p, minor function 0x%02x: %s (came with 0x%08x, now 0x%08x; information "
               "%#llx, now %#llx)",
               static_cast<void *>(At->Device), location->MinorFunction, What,
               static_cast<unsigned>(At->Came.Status), static_cast<unsigned>(Irp->IoStatus.Status),
               static_cast<unsigned long long>(At->Came.Information),
               static_cast<unsigned long long>(Irp->IoStatus.Information));
}

static bool Differs(const IO_STATUS_BLOCK &One, const IO_STATUS_BLOCK &Other) {
  return One.Status != Other.Status || One.Information != Other.Information;
}

// ---- down ----

static void RequireUnspoilt(const char *Rule, const LocationShadow *From, PIRP Irp, bool Unknown) {
  NTSTATUS status = Irp->IoStatus.Status;
  if (!NT_SUCCESS(status) && status != STATUS_NOT_SUPPORTED && status != From->Came.Status) {
    Stop(Rule, From, Irp, "passed down failed, where it should have been completed");
  }
  if (Unknown && Differs(From->Came, Irp->IoStatus)) {
    Stop(Rule, From, Irp, "passed down changed, though a filter does not know it");
  }
}

void StackRulesPassDown(const LocationShadow *From, PIRP Irp) {
  if (From->Role < StackRole::Function || From->PassedOn) {
    return;
  }
  const IO_STACK_LOCATION *location = PacketLocation(Irp, From->Number);
  bool filter = From->Role == StackRole::Filter;
  if (location->MajorFunction == IRP_MJ_PNP) {
    RequireUnspoilt("pnp.status-changed", From, Irp, filter && PnpDuty(location) == Duty::Unknown);
  } else if (location->MajorFunction == IRP_MJ_POWER) {
    RequireUnspoilt("power.status-changed", From, Irp,
                    filter && !PowerTakesTurn(location->MinorFunction));
  }
}

// ---- up, by the driver that completes it ----

static void JudgePnpAnswer(const LocationShadow *At, PIRP Irp) {
  Duty duty = PnpDuty(PacketLocation(Irp, At->Number));
  NTSTATUS status = Irp->IoStatus.Status;
  if (duty == Duty::MustSucceed && !NT_SUCCESS(status)) {
    Stop("pnp.must-succeed", At, Irp, "failed by a driver, though it may not fail");
  }
  bool answered = NT_SUCCESS(status) ? duty == Duty::MayAnswer
                                     : duty != Duty::Unknown && status != STATUS_NOT_SUPPORTED;
  if (!answered) {
    Stop("pnp.not-forwarded", At, Irp, "completed without the devices below");
  }
}

static void JudgePowerAnswer(const LocationShadow *At, PIRP Irp) {
  const IO_STACK_LOCATION *location = PacketLocation(Irp, At->Number);
  NTSTATUS status = Irp->IoStatus.Status;
  bool owner = At->Role == StackRole::Function;  // of the stack's power policy
  bool turn = PowerTakesTurn(location->MinorFunction);
  if (SaysGone(status)) {
    return;
  }
  bool kept = turn ? NT_SUCCESS(status) || status == STATUS_NOT_SUPPORTED
                   : !owner || location->MinorFunction > IRP_MN_QUERY_POWER;
  if (kept) {
    Stop("power.not-forwarded", At, Irp, "completed without the devices below");
  }
  if (turn && !owner) {
    Stop("power.failed", At, Irp, "failed by a filter, which owns no power policy");
  }
}

static void JudgeSystemControl(const LocationShadow *At, PIRP Irp) {
  const IO_STACK_LOCATION *location = PacketLocation(Irp, At->Number);
  bool own = location->Parameters.WMI.ProviderId == reinterpret_cast<ULONG_PTR>(At->Device);
  if (!own && !SaysGone(Irp->IoStatus.Status)) {
    Stop("system-control.not-forwarded", At, Irp, "completed without the devices below");
  }
}

// ---- up, by a driver that had passed it on ----

static void RequireKept(const char *Rule, const LocationShadow *At, PIRP Irp, bool AsItWas) {
  if (Irp->IoStatus.Status == STATUS_NOT_SUPPORTED && At->Back.Status != STATUS_NOT_SUPPORTED) {
    Stop(Rule, At, Irp, "completed as not supported, though it came back otherwise");
  }
  if (AsItWas && Differs(At->Back, Irp->IoStatus)) {
    Stop(Rule, At, Irp, "completed otherwise than it came back, though it is not the filter's");
  }
}

void StackRulesLeave(const LocationShadow *At, PIRP Irp) {
  if (At->Role < StackRole::Function) {
    return;
  }
  const IO_STACK_LOCATION *location = PacketLocation(Irp, At->Number);
  bool filter = At->Role == StackRole::Filter;
  switch (location->MajorFunction) {
  case IRP_MJ_PNP:
    if (!At->PassedOn) {
      JudgePnpAnswer(At, Irp);
    } else {
      RequireKept("pnp.status-changed", At, Irp, filter && PnpDuty(location) == Duty::Unknown);
    }
    break;
  case IRP_MJ_POWER:
    if (!At->PassedOn) {
      JudgePowerAnswer(At, Irp);
    } else {
      RequireKept("power.status-changed", At, Irp, filter);
    }
    break;
  default:
    if (!At->PassedOn) {
      JudgeSystemControl(At, Irp);
    }
    break;
  }
}
