// Whole lives of a port: everybody at work at once, under random schedules and on real threads,
// also while the port is pulled out. Nothing is lost, and nothing is left.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>

#include "tests/support/world.h"

constexpr int Rounds = 30;

// What the parties saw, each written by one thread and read after it was joined.
struct Seen {
  std::string ClientWrote, ClientRead;
  std::string ZkFromClient, ZkFromPort, ZkWrote;
  int Replies = 0;
};

static void Client(World *World, Seen *Seen, uint64_t Seed) {
  std::mt19937_64 random(Seed);
  for (int i = 0; i < Rounds; ++i) {
    Io write, read;
    std::string text = "c" + std::to_string(i) + ";";
    StartWrite(World->Client, &write, text);
    StartRead(World->Client, &read, 1 + random() % 8);
    if (FileWait(&write) == STATUS_SUCCESS) {
      Seen->ClientWrote += text;
    }
    // The bytes may go to ZK alone while the stream is locked: a read is not waited for.
    FileCancel(&read);
    NTSTATUS status = FileWait(&read);
    EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED);
    if (status == STATUS_SUCCESS) {
      Seen->ClientRead += read.Text();
    }
  }
}

// Requests that the driver only keeps on a list while they are below; of two threads.
static void Flush(World *World) {
  for (int i = 0; i < Rounds; ++i) {
    FileRequest flush;
    flush.Major = IRP_MJ_FLUSH_BUFFERS;
    FileSend(World->Client, &flush);
    EXPECT_EQ(FileWait(&flush), STATUS_SUCCESS);
  }
}

static void Port(World *World, std::string *Fed) {
  for (int i = 0; i < Rounds; ++i) {
    std::string text = "p" + std::to_string(i) + ";";
    *Fed += text;
    LowerFeed(&World->Lower, text);
  }
}

static void Steer(World *World, Seen *Seen, uint64_t Seed) {
  std::mt19937_64 random(Seed);
  for (int i = 0; i < Rounds; ++i) {
    switch (random() % 4) {
    case 0:
      EXPECT_EQ(SendCommand(World, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
      EXPECT_EQ(SendCommand(World, COMMAND_UNLOCK_STREAM), STATUS_SUCCESS);
      break;
    case 1: {
      Io write;
      StartWrite(World->Zk, &write, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "z"));
      EXPECT_EQ(FileWait(&write), STATUS_SUCCESS);
      Seen->ZkWrote += "z";
      break;
    }
    default:
      EXPECT_EQ(SendCommand(World, COMMAND_GET_MODE), STATUS_SUCCESS);
      break;
    }
  }
  // Whatever is still parked goes on.
  EXPECT_EQ(SendCommand(World, COMMAND_UNLOCK_STREAM), STATUS_SUCCESS);
}

static void Take(Seen *Seen, const Frame &Frame) {
  if (Frame.Header.Type == FRAME_CONTROL_REPLY) {
    ++Seen->Replies;
  } else if (Frame.Header.Tag == TAG_CLIENT) {
    Seen->ZkFromClient += Frame.Payload;
  } else if (Frame.Header.Tag == TAG_LOWER) {
    Seen->ZkFromPort += Frame.Payload;
  }
}

// Reads until the end frame: the reply to a command with a tag of its own.
constexpr ULONG EndTag = 0xE0D;

static void Watch(World *World, Seen *Seen) {
  for (;;) {
    Io read;
    StartRead(World->Zk, &read, 4096);
    NTSTATUS status = FileWait(&read);
    if (status == STATUS_CANCELLED) {
      continue;  // a stop overtook the proxy read that this read sent: it failed inside the call
    }
    EXPECT_EQ(status, STATUS_SUCCESS);
    Frame frame = DecodeFrame(read);
    if (frame.Header.Type == FRAME_CONTROL_REPLY && frame.Header.Tag == EndTag) {
      return;
    }
    Take(Seen, frame);
  }
}

static void BusyLife(uint64_t Seed, ULONG Buffering) {
  World world;
  WorldOptions options;
  options.Buffering = Buffering;
  WorldLoad(&world, options);
  EXPECT_EQ(WorldAdd(&world, options), STATUS_SUCCESS);
  GoNormal(&world);
  Seen client, steering, watching;
  std::string fed;
  PKTHREAD threads[] = {
      ThreadStart("client", [&] { Client(&world, &client, Seed); }),
      ThreadStart("port", [&] { Port(&world, &fed); }),
      ThreadStart("steer", [&] { Steer(&world, &steering, Seed + 1); }),
      ThreadStart("flush", [&] { Flush(&world); }),
      ThreadStart("flush too", [&] { Flush(&world); }),
  };
  PKTHREAD watcher = ThreadStart("watch", [&] { Watch(&world, &watching); });
  for (PKTHREAD thread : threads) {
    ThreadJoin(thread);
  }
  EXPECT_EQ(SendCommand(&world, COMMAND_GET_MODE, EndTag), STATUS_SUCCESS);
  ThreadJoin(watcher);

  EXPECT_EQ(watching.ZkFromClient, client.ClientWrote);
  std::string written = LowerWritten(&world.Lower);
  EXPECT_EQ(written.size(), client.ClientWrote.size() + steering.ZkWrote.size());
  // Every byte that left the port was seen by ZK, in order; the client saw some of them, in order.
  EXPECT_EQ(watching.ZkFromPort, fed.substr(0, watching.ZkFromPort.size()));
  size_t at = 0;
  for (char byte : client.ClientRead) {
    at = fed.find(byte, at);
    ASSERT_NE(at, std::string::npos);
    ++at;
  }
  CloseClient(&world);
  CloseZk(&world);
  ThreadSettle();
  EXPECT_EQ(WorldPort(&world)->RequestCount, 1);
  WorldEnd(&world);
}

TEST(Lives, BusyUnderRandomSchedules) {
  for (uint64_t seed = 1; seed <= 60; ++seed) {
    RunOptions options;
    options.Schedule.How = SchedulePolicy::Kind::Random;
    options.Schedule.Seed = seed;
    ULONG buffering = seed % 2 != 0 ? DO_BUFFERED_IO : DO_DIRECT_IO;
    RunReport report = ModelRun(options, [&] { BusyLife(seed, buffering); });
    ASSERT_FALSE(report.Stopped) << "seed " << seed << "\n" << report.Text;
    ASSERT_FALSE(HasFailure()) << "seed " << seed << "\nreplay: " << report.Replay;
  }
}

// As many lives as fit the time: VORLIX_SECONDS, or two.
TEST(Lives, BusyOnRealThreads) {
  const char *seconds = getenv("VORLIX_SECONDS");
  auto end = std::chrono::steady_clock::now() +
             std::chrono::seconds(seconds != nullptr ? atoi(seconds) : 2);
  uint64_t seed = 1;
  do {
    RunOptions options;
    options.Executor = ExecutorKind::Threads;
    ULONG buffering = seed % 2 != 0 ? DO_BUFFERED_IO : DO_DIRECT_IO;
    RunReport report = ModelRun(options, [&] { BusyLife(seed, buffering); });
    ASSERT_FALSE(report.Stopped) << "seed " << seed << "\n" << report.Text;
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
    ++seed;
  } while (std::chrono::steady_clock::now() < end);
  RecordProperty("lives", std::to_string(seed - 1));
}

// Clients and controllers that come and go on real threads while the port is pulled out.
TEST(Lives, PulledOutOnRealThreads) {
  for (int round = 0; round < 40; ++round) {
    RunOptions options;
    options.Executor = ExecutorKind::Threads;
    RunReport report = ModelRun(options, [&] {
      World world;
      WorldLoad(&world);
      ASSERT_EQ(WorldAdd(&world), STATUS_SUCCESS);
      auto comeAndGo = [&](const char *name, Account who) {
        for (int i = 0; i < 20; ++i) {
          HANDLE handle;
          if (FileOpen(name, who, &handle) == STATUS_SUCCESS) {
            Io write, read;
            StartWrite(handle, &write,
                       MakeFrame(FRAME_CONTROL, 0, COMMAND_SET_MODE, MakeArgument(MODE_NORMAL)));
            StartRead(handle, &read, 64);
            FileWait(&write);
            FileCancel(&read);
            FileWait(&read);
            FileClose(handle);
          }
        }
      };
      PKTHREAD client =
          ThreadStart("client", [&] { comeAndGo("\\DosDevices\\COM3", Account::User); });
      PKTHREAD zk =
          ThreadStart("zk", [&] { comeAndGo("\\DosDevices\\VORLIX_COM3", Account::LocalSystem); });
      PKTHREAD puller = ThreadStart("pull", [&] { PnpSurpriseRemove(world.Node); });
      ThreadJoin(client);
      ThreadJoin(zk);
      ThreadJoin(puller);
      WorldEnd(&world);
    });
    ASSERT_FALSE(report.Stopped) << report.Text;
  }
}
