#include "zkctl/session.h"

#include <fmt/format.h>

#include <cstdio>

#include "zkctl/frame.h"

namespace {

using Clock = std::chrono::steady_clock;

// A reply may come behind the completion of its write. One that does not come at all is no reason
// to stay.
constexpr std::chrono::seconds LAST_REPLIES(1);

void Print(const std::string &text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

void WriteControl(Session *session, const Command &command) {
  uint32_t argument = command.Argument;
  std::span<const uint8_t> payload(reinterpret_cast<const uint8_t *>(&argument),
                                   command.HasArgument ? sizeof(argument) : 0);
  session->Writing = CommandName(command.Code);
  session->Written.push_back(session->Writing);
  // A change to IDLE is itself still answered; what follows it is not.
  bool setsMode = command.Code == COMMAND_SET_MODE;
  if (session->Normal || (setsMode && argument == MODE_NORMAL)) {
    session->RepliesDue++;
  }
  if (setsMode) {
    session->Normal = argument == MODE_NORMAL;
  }
  uint32_t tag = static_cast<uint32_t>(session->Written.size());
  ChannelWrite(session->Port, FrameBuild(FRAME_CONTROL, tag, command.Code, payload));
}

void Begin(Session *session, const Command &command) {
  switch (command.Kind) {
  case DO_CONTROL:
    WriteControl(session, command);
    return;
  case DO_SEND:
    session->Writing = "send";
    ChannelWrite(session->Port, FrameBuild(FRAME_DATA, TAG_LOWER, 0, command.Bytes));
    return;
  case DO_WAIT:
    session->Until = Clock::now() + std::chrono::milliseconds(command.Milliseconds);
    return;
  case DO_STAY:
    session->Stay = true;
    return;
  case DO_QUIT:
    session->Quit = true;
    session->Commands.clear();
    return;
  }
}

bool IsBusy(const Session *session) {
  return !session->Writing.empty() || session->Until;
}

void BeginCommands(Session *session) {
  while (!IsBusy(session) && !session->Commands.empty()) {
    Command command = std::move(session->Commands.front());
    session->Commands.pop_front();
    Begin(session, command);
  }
}

void TakeLine(Session *session) {
  Command command;
  std::string error;
  session->LineNumber++;
  if (!CommandIsBlank(session->Line)) {
    if (CommandParse(session->Line, &command, &error)) {
      session->Commands.push_back(std::move(command));
    } else {
      fmt::print(stderr, "zkctl: line {}: {}\n", session->LineNumber, error);
    }
  }
  session->Line.clear();
}

void TakeInput(Session *session, std::span<const uint8_t> bytes) {
  for (uint8_t byte : bytes) {
    if (byte == '\n') {
      TakeLine(session);
    } else {
      session->Line.push_back(static_cast<char>(byte));
    }
  }
}

void TakePacket(Session *session, std::span<const uint8_t> packet) {
  std::string command;
  std::optional<Frame> frame = FrameDecode(packet);
  if (frame && frame->Header.Type == FRAME_CONTROL_REPLY) {
    uint32_t tag = frame->Header.Tag;
    if (tag > 0 && tag <= session->Written.size()) {
      command = session->Written[tag - 1];
    }
    session->RepliesDue -= session->RepliesDue > 0;
  }
  Print(ShowPacket(session->Style, packet, command));
}

void TakeWritten(Session *session, const Event &event) {
  Print(ShowWritten(session->Style, session->Writing, event.Status, event.Information, TimeNow()));
  if (event.Status != 0 && session->Writing != "send") {
    session->RepliesDue -= session->RepliesDue > 0;
  }
  session->Writing.clear();
}

bool AtEnd(const Session *session) {
  return !IsBusy(session) && session->Commands.empty() &&
         (session->Quit || (session->InputEnded && !session->Stay));
}

}  // namespace

SessionEnd SessionRun(Session *session) {
  Deadline lastReplies;
  for (;;) {
    BeginCommands(session);
    bool ending = AtEnd(session);
    if (ending && session->RepliesDue == 0) {
      return SESSION_DONE;
    }
    if (ending && !lastReplies) {
      lastReplies = Clock::now() + LAST_REPLIES;
    }
    bool wantInput = !session->InputEnded && !session->Quit && session->Commands.empty();
    Event event =
        ChannelWait(session->Port, wantInput, session->Until ? session->Until : lastReplies);
    switch (event.Kind) {
    case EVENT_FRAME:
      TakePacket(session, event.Bytes);
      break;
    case EVENT_WRITTEN:
      TakeWritten(session, event);
      break;
    case EVENT_CLOSED:
      Print(ShowClosed(session->Style, TimeNow()));
      return SESSION_DEVICE_GONE;
    case EVENT_INPUT:
      TakeInput(session, event.Bytes);
      break;
    case EVENT_INPUT_ENDED:
      if (!session->Line.empty()) {
        TakeLine(session);
      }
      session->InputEnded = true;
      break;
    case EVENT_INTERRUPTED:
      return SESSION_DONE;
    case EVENT_TIMED_OUT:
      if (!session->Until) {
        return SESSION_DONE;
      }
      session->Until.reset();
      break;
    }
  }
}
