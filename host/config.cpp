#include "host/config.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "host/serial_line.h"

using Json = nlohmann::json;

// ---- Ports, wherever they come from ----

bool RegistryParse(const std::string &Text, RegistryValue *Value) {
  char *end = nullptr;
  errno = 0;
  bool digit = !Text.empty() && isdigit(static_cast<unsigned char>(Text[0]));
  unsigned long long number = digit ? strtoull(Text.c_str(), &end, 0) : 0;
  if (!digit || *end != '\0') {
    *Value = RegistryText(Text);
    return true;
  }
  *Value = RegistryDword(static_cast<ULONG>(number));
  return errno == 0 && number <= UINT32_MAX;
}

// Names are the same whatever their case.
static std::string Folded(std::string Name) {
  for (char &letter : Name) {
    letter = static_cast<char>(toupper(static_cast<unsigned char>(letter)));
  }
  return Name;
}

static bool NameFine(const std::string &Name) {
  constexpr size_t most = 64;
  bool fine = !Name.empty() && Name.size() <= most;
  for (char letter : Name) {
    fine = fine && (isalnum(static_cast<unsigned char>(letter)) || letter == '_' || letter == '-');
  }
  return fine;
}

static bool SameTty(const std::string &One, const std::string &Other) {
  std::error_code error;
  std::filesystem::path one = std::filesystem::canonical(One, error);
  std::filesystem::path other = error ? "" : std::filesystem::canonical(Other, error);
  return error ? One == Other : one == other;
}

bool PortsClash(const PortOptions &One, const PortOptions &Other) {
  return Folded(One.Name) == Folded(Other.Name) || SameTty(One.Tty, Other.Tty);
}

static PortsFault CheckOne(const std::vector<PortOptions> &Ports, size_t Index) {
  const PortOptions &port = Ports[Index];
  LineSettings line;
  if (port.Tty.empty() || port.Tty.find('\0') != std::string::npos) {
    return {Index, "port", "expected the path of a serial device"};
  }
  if (!NameFine(port.Name)) {
    return {Index, "name", "\"" + port.Name + "\" is no name for a port"};
  }
  if (!port.Line.empty() && !LineParse(port.Line, &line)) {
    return {Index, "line", "\"" + port.Line + "\" is no line as 9600,7E1"};
  }
  for (size_t before = 0; before < Index; ++before) {
    if (Folded(Ports[before].Name) == Folded(port.Name)) {
      return {Index, "name", port.Name + " is given twice"};
    }
    if (SameTty(Ports[before].Tty, port.Tty)) {
      return {Index, "port", port.Tty + " is given twice"};
    }
  }
  return {};
}

PortsFault PortsCheck(const std::vector<PortOptions> &Ports) {
  PortsFault fault;
  for (size_t i = 0; i < Ports.size() && fault.Key.empty(); ++i) {
    fault = CheckOne(Ports, i);
  }
  return fault;
}

// ---- The file ----

[[noreturn]] static void Fail(const std::string &Place, const std::string &Reason) {
  throw std::runtime_error(Place.empty() ? Reason : Place + ": " + Reason);
}

static std::string ReadText(const std::string &File) {
  std::error_code error;
  std::filesystem::file_status found = std::filesystem::status(File, error);
  if (std::filesystem::exists(found) && !std::filesystem::is_regular_file(found)) {
    Fail("", "not a regular file");
  }
  errno = 0;
  std::ifstream stream(File, std::ios::binary);
  std::string text(std::istreambuf_iterator<char>(stream), {});
  if (!stream) {
    Fail("", strerror(errno ? errno : EIO));
  }
  return text;
}

// A key that is given twice would otherwise count once, as the last one says.
static Json ParseText(const std::string &Text) {
  std::vector<std::set<std::string>> open;
  auto refuseTwins = [&open](int, Json::parse_event_t event, Json &parsed) {
    if (event == Json::parse_event_t::object_start) {
      open.emplace_back();
    } else if (event == Json::parse_event_t::object_end) {
      open.pop_back();
    } else if (event == Json::parse_event_t::key && !open.back().insert(parsed).second) {
      Fail("", "an object has \"" + parsed.get<std::string>() + "\" twice");
    }
    return true;
  };
  try {
    return Json::parse(Text, refuseTwins);
  } catch (const Json::exception &error) {
    // Without the library's own number of the error in front.
    std::string reason = error.what();
    size_t number = reason.find("] ");
    Fail("", number == std::string::npos ? reason : reason.substr(number + 2));
  }
}

static std::string TextOf(const Json &Value, const std::string &Place) {
  if (!Value.is_string()) {
    Fail(Place, "expected text");
  }
  return Value.get<std::string>();
}

static RegistryValue RegistryOf(const Json &Value, const std::string &Place) {
  RegistryValue value;
  bool text = Value.is_string();
  if (!text && !Value.is_number_unsigned()) {
    Fail(Place, "expected a number of 32 bits or text");
  }
  if (!RegistryParse(text ? Value.get<std::string>() : Value.dump(), &value)) {
    Fail(Place, Value.dump() + " does not fit 32 bits");
  }
  return value;
}

static void TakeRegistry(const Json &Values, const std::string &Place, PortOptions *Port) {
  if (!Values.is_object()) {
    Fail(Place, "expected an object");
  }
  for (const auto &[name, value] : Values.items()) {
    if (name.empty()) {
      Fail(Place, "a value without a name");
    }
    Port->Registry[name] = RegistryOf(value, Place + "." + name);
  }
}

static PortOptions PortOf(const Json &Entry, const std::string &Place,
                          const PortOptions &Defaults) {
  PortOptions port = Defaults;
  if (!Entry.is_object()) {
    Fail(Place, "expected an object");
  }
  for (const char *needed : {"port", "name"}) {
    if (!Entry.contains(needed)) {
      Fail(Place, std::string("\"") + needed + "\" is missing");
    }
  }
  for (const auto &[key, value] : Entry.items()) {
    const std::string place = Place + "." + key;
    if (key == "port") {
      port.Tty = TextOf(value, place);
    } else if (key == "name") {
      port.Name = TextOf(value, place);
    } else if (key == "line") {
      port.Line = TextOf(value, place);
    } else if (key == "registry") {
      TakeRegistry(value, place, &port);
    } else {
      Fail(place, "unknown");
    }
  }
  return port;
}

static std::string PlaceOf(size_t Index) {
  return "ports[" + std::to_string(Index) + "]";
}

static void AppendPorts(const Json &File, const PortOptions &Defaults,
                        std::vector<PortOptions> *Ports) {
  size_t others = Ports->size();
  if (!File.is_object() || !File.contains("ports") || !File["ports"].is_array()) {
    Fail("", "expected an object with the array \"ports\"");
  }
  for (const auto &[key, value] : File.items()) {
    if (key != "ports") {
      Fail(key, "unknown");
    }
  }
  for (const Json &entry : File["ports"]) {
    Ports->push_back(PortOf(entry, PlaceOf(Ports->size() - others), Defaults));
  }
  PortsFault fault = PortsCheck(*Ports);
  if (!fault.Key.empty()) {
    // Those that were there before have been checked: it is one of the file's.
    Fail(PlaceOf(fault.Index - others) + "." + fault.Key, fault.Reason);
  }
}

bool ConfigRead(const std::string &File, const PortOptions &Defaults,
                std::vector<PortOptions> *Ports, std::string *Error) {
  try {
    std::vector<PortOptions> all = *Ports;
    AppendPorts(ParseText(ReadText(File)), Defaults, &all);
    *Ports = std::move(all);
    return true;
  } catch (const std::runtime_error &error) {
    *Error = File + ": " + error.what();
    return false;
  }
}
