// The way to a port's control device: the driver's host program over a socket, or the driver
// itself. Only the platform can wait for a device, for standard input and for an interrupt at once,
// so the channel is where a session waits for all of them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

enum EventKind {
  EVENT_FRAME,        // Bytes: one packet from the device
  EVENT_WRITTEN,      // the write completed with Status, Information
  EVENT_CLOSED,       // the device is gone; nothing follows
  EVENT_INPUT,        // Bytes: some of standard input
  EVENT_INPUT_ENDED,  // nothing more from there
  EVENT_INTERRUPTED,  // asked to stop
  EVENT_TIMED_OUT,    // the deadline has come
};

struct Event {
  EventKind Kind;
  std::vector<uint8_t> Bytes;
  uint32_t Status = 0;
  uint32_t Information = 0;
};

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

struct Channel;

// Gives null and says why in `error`. `directory` is where the host program keeps its sockets,
// empty for the usual place; the driver has no use for it.
Channel *ChannelOpen(const std::string &name, const std::string &directory, std::string *error);
void ChannelClose(Channel *channel);

// Starts the write of one frame; EVENT_WRITTEN or EVENT_CLOSED follows. One write at a time.
void ChannelWrite(Channel *channel, std::span<const uint8_t> frame);

// The next thing that happens. Standard input is read only when wanted, and not after its end.
Event ChannelWait(Channel *channel, bool wantInput, Deadline deadline);
