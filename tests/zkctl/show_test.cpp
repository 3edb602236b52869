#include "zkctl/show.h"

#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <random>

#include "zkctl/frame.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr ShowStyle TEXT = {.Json = false, .Colour = false};
constexpr ShowStyle JSON = {.Json = true, .Colour = false};
constexpr uint64_t NOON = 133'801'632'001'234'560;  // 2025-01-01T00:00:00.123456Z

Bytes Report(uint32_t tag, uint32_t code, const Bytes &payload) {
  Bytes packet = FrameBuild(FRAME_REPORT, tag, code, payload);
  std::memcpy(packet.data() + offsetof(FrameHeader, Timestamp), &NOON, sizeof(NOON));
  return packet;
}

Bytes Message(uint32_t level, std::u16string_view text) {
  Bytes payload(sizeof(level) + text.size() * 2);
  std::memcpy(payload.data(), &level, sizeof(level));
  std::memcpy(payload.data() + sizeof(level), text.data(), text.size() * 2);
  return Report(TAG_DRIVER, 0, payload);
}

TEST(Show, TimesAreUtcWithMicroseconds) {
  struct Case {
    uint64_t Time;
    const char *Text;
  };
  const Case cases[] = {
      {0, "1601-01-01T00:00:00.000000Z"},
      {9, "1601-01-01T00:00:00.000000Z"},
      {116'444'736'000'000'000, "1970-01-01T00:00:00.000000Z"},
      {133'537'247'999'999'999, "2024-02-29T23:59:59.999999Z"},
      {NOON, "2025-01-01T00:00:00.123456Z"},
      {INT64_MAX, "30828-09-14T02:48:05.477580Z"},
      {UINT64_MAX, "30828-09-14T02:48:05.477580Z"},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(TimeText(c.Time), c.Text) << c.Time;
  }
  EXPECT_EQ(TimeText(TimeNow()).substr(0, 2), "20");
}

TEST(Show, BytesComeAsHexadecimalAndCharactersSixteenALine) {
  Bytes bytes;
  for (int i = 0; i < 18; ++i) {
    bytes.push_back(static_cast<uint8_t>("Hello, \x7f\xff\nworld!~ab"[i]));
  }
  EXPECT_EQ(ShowPacket(TEXT, Report(TAG_CLIENT, 0, bytes), ""),
            "2025-01-01T00:00:00.123456Z client wrote 18 bytes\n"
            "  00000000  48 65 6c 6c 6f 2c 20 7f  ff 0a 77 6f 72 6c 64 21  |Hello, ...world!|\n"
            "  00000010  7e 61                                             |~a|\n");
  EXPECT_EQ(ShowPacket(TEXT, Report(TAG_LOWER, 0xC0000120, {}), ""),
            "2025-01-01T00:00:00.123456Z port sent 0 bytes, cancelled (0xc0000120)\n");
}

TEST(Show, RepliesAndCompletionsNameTheirCommand) {
  auto reply = [](uint32_t code, uint32_t value, std::string_view command) {
    Bytes payload(4);
    std::memcpy(payload.data(), &value, sizeof(value));
    std::string text = ShowPacket(TEXT, FrameBuild(FRAME_CONTROL_REPLY, 7, code, payload), command);
    return text.substr(text.find(' ') + 1);
  };
  EXPECT_EQ(reply(0, 0, "setmode"), "setmode: success\n");
  EXPECT_EQ(reply(0, 2, "getmode"), "getmode: NORMAL (2)\n");
  EXPECT_EQ(reply(0, 5, "getlevel"), "getlevel: 5\n");
  EXPECT_EQ(reply(0xC00000BB, 0, "setmode"), "setmode: not supported (0xc00000bb)\n");
  EXPECT_EQ(reply(0xDEADBEEF, 1, ""), "reply 7: 0xdeadbeef, value 1\n");
  EXPECT_EQ(ShowWritten(TEXT, "send", 0, 29, NOON),
            "2025-01-01T00:00:00.123456Z send: written, 29 bytes\n");
  EXPECT_EQ(ShowWritten(TEXT, "send", 0xC000000D, 0, NOON),
            "2025-01-01T00:00:00.123456Z send: written, 0 bytes, invalid parameter (0xc000000d)\n");
}

TEST(Show, ColourIsOnlyAddedAround) {
  ShowStyle colour = {.Json = false, .Colour = true};
  std::string text = ShowPacket(colour, Message(4, u"hello"), "");
  EXPECT_EQ(text, "2025-01-01T00:00:00.123456Z \033[33mdriver (4) hello\033[0m\n");
}

TEST(Show, MessagesBecomeOneLineOfUtf8) {
  struct Case {
    std::u16string Utf16;
    const char *Json;
    const char *Text;
  };
  const Case cases[] = {
      {u"ZK setmode NORMAL on \\DosDevices\\VORLIX_COM3\n",
       "ZK setmode NORMAL on \\DosDevices\\VORLIX_COM3\n",
       "ZK setmode NORMAL on \\DosDevices\\VORLIX_COM3"},
      {{u'a', 0, u'b'}, "a", "a"},
      {u"\u00e4\u20ac\U0001F50C", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x94\x8C",
       "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x94\x8C"},
      {{u'x', 0xD83D}, "x\xEF\xBF\xBD", "x\xEF\xBF\xBD"},
      {{0xDD0C, u'x'}, "\xEF\xBF\xBDx", "\xEF\xBF\xBDx"},
      {u"two\nlines\033[2J", "two\nlines\033[2J", "two lines [2J"},
  };
  for (const Case &c : cases) {
    nlohmann::json object = nlohmann::json::parse(ShowPacket(JSON, Message(5, c.Utf16), ""));
    EXPECT_EQ(object["event"], "message");
    EXPECT_EQ(object["level"], 5);
    EXPECT_EQ(object["text"], c.Json);
    EXPECT_EQ(ShowPacket(TEXT, Message(5, c.Utf16), ""),
              std::string("2025-01-01T00:00:00.123456Z driver (5) ") + c.Text + "\n");
  }
}

TEST(Show, JsonIsOneObjectALineWithFixedNames) {
  EXPECT_EQ(ShowPacket(JSON, Report(TAG_LOWER, 0xC0000120, {0x00, 0xAB}), ""),
            R"({"event":"report","tag":"lower","code":3221225760,)"
            R"("time":"2025-01-01T00:00:00.123456Z","data":"00ab"})"
            "\n");
  EXPECT_EQ(
      ShowPacket(JSON, FrameBuild(FRAME_CONTROL_REPLY, 0xFFFFFFFF, 0, Bytes{1, 0, 0, 0x80}), ""),
      R"({"event":"reply","tag":4294967295,"code":0,"value":2147483649})"
      "\n");
  EXPECT_EQ(ShowWritten(JSON, "send", 0xC000000D, 0, NOON),
            R"({"event":"written","status":3221225485,"information":0})"
            "\n");
  EXPECT_EQ(ShowClosed(JSON, NOON), "{\"event\":\"closed\"}\n");
}

// Whatever comes, it is shown as one event or as malformed, never read beyond its end (which the
// exact size of each packet's own allocation lets a sanitizer see).
TEST(Show, PacketsThatLieAreMalformed) {
  auto malformed = [](const Bytes &packet) {
    Bytes exact(packet);
    exact.shrink_to_fit();
    return nlohmann::json::parse(ShowPacket(JSON, exact, ""))["event"] == "malformed";
  };
  Bytes whole = Message(5, u"text");
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_TRUE(malformed(Bytes(whole.begin(), whole.begin() + size))) << size;
  }
  for (uint32_t length : {0u, 23u, 24u, 0xFFFFFFFFu, static_cast<uint32_t>(whole.size() + 1)}) {
    Bytes lying = whole;
    std::memcpy(lying.data(), &length, sizeof(length));
    EXPECT_TRUE(malformed(lying)) << length;
  }
  EXPECT_TRUE(malformed(Report(TAG_DRIVER, 0, {1, 2, 3})));  // no room for a level
  EXPECT_TRUE(malformed(Report(2, 0, {1})));
  EXPECT_TRUE(malformed(FrameBuild(FRAME_CONTROL_REPLY, 1, 0, Bytes(3))));
  EXPECT_TRUE(malformed(FrameBuild(FRAME_CONTROL_REPLY, 1, 0, Bytes(5))));
  EXPECT_TRUE(malformed(FrameBuild(FRAME_CONTROL, 1, 0, Bytes(4))));
}

TEST(Show, AnyBytesGiveWholeLines) {
  std::mt19937 random(1);
  for (int round = 0; round < 4'000; ++round) {
    Bytes payload(random() % 60);
    for (uint8_t &byte : payload) {
      byte = static_cast<uint8_t>(random());
    }
    auto code = static_cast<uint32_t>(random());
    Bytes packet = FrameBuild(random() % 6, random() % 6, code, payload);
    std::string line = ShowPacket(JSON, packet, "");
    ASSERT_TRUE(nlohmann::json::accept(line)) << round << ": " << line;
    ASSERT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << round;
    ASSERT_EQ(ShowPacket(TEXT, packet, "").back(), '\n') << round;
  }
}

}  // namespace
