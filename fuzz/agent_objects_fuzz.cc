// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The input is what the device cloud agent says, one letter after the other:
//   A PATH line, INTERFACES        an object appears
//   R PATH line, NAMES             interfaces of it go
//   P PATH line, NAME line, PROPERTIES, NAMES   properties change
//   M (PATH line, INTERFACES)... up to an empty line   the objects that are
//     told when they are asked for; each of these is told once
//   O NAME line    the bus tells of another owner of the agent's name
//   S NAME line    who sends the signals from here on
//   B member letter, SIGNATURE line, BODY line   one of the messages above with
//     any content
//   x and how the identity provider answers its oldest request: g well, b
//     badly, f not at all, - not yet
// Before the first of them:
//   a  the agent is not there at first
//   p  a credential is there
//   k, e, w  how the agent answers: well, with an error, with nonsense
// INTERFACES are (NAME line, PROPERTIES) up to an empty name; C and M stand for
// the agent's own. PROPERTIES are (NAME line, VALUE) up to an empty name. NAMES
// end with an empty line. A VALUE is a letter and what belongs to it:
//   s TEXT line, b or i DIGITS line, a NAMES, { PROPERTIES, v VALUE
//   !  SIGNATURE line, BYTES line: anything

#include <signal.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "dosset/dbus-proxies.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/raw_peer.h"
#include "fuzz/url_model.h"
#include "platform/actions/cloud-actions/cloud_action_manager.h"
#include "tests/support/fake_transport.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/temp_directory.h"

namespace {

using fuzz::PeerPlan;
using fuzz::Script;
using fuzz::WireMessage;
using fuzz::WireWriter;
using halvex::actions::CloudActionManager;
using halvex::actions::kAllowedEndpointsFile;
using halvex::actions::kRefreshTokenFile;

constexpr char kOwner[] = ":1.7";
constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kRoot[] = "/org/vantrel/Dosset";
constexpr char kManagerPath[] = "/org/vantrel/Dosset/Manager";
constexpr char kManager[] = "org.vantrel.Dosset.Manager";
constexpr char kCommand[] = "org.vantrel.Dosset.Command";
constexpr char kSet[] = "_cloudActionConfiguration._setCredential";
constexpr char kRemove[] = "_cloudActionConfiguration._removeCredential";
constexpr char kGoodReply[] = R"({"access_token":"a","refresh_token":"r"})";
constexpr uint64_t kDeadlineUs = 20'000'000;
constexpr int kMaxDepth = 12;

// A value as far as it matters: one of another type has only that.
struct Value {
  std::string type;
  std::string text;
  std::vector<std::string> lines;
  std::map<std::string, Value> items;
};

using Properties = std::vector<std::pair<std::string, Value>>;

struct Interface {
  std::string name;
  Properties properties;
};

struct Object {
  std::string path;
  std::vector<Interface> interfaces;
};

// Something that happens, as far as it matters.
struct Event {
  enum Kind { kAdded, kRemoved, kOwnerChanged, kIgnored };

  Kind kind = kIgnored;
  std::string sender;
  Object object;
  std::vector<std::string> names;
  std::string owner;
};

struct Story {
  bool absent = false;
  bool provisioned = false;
  PeerPlan plan;
  std::vector<std::vector<Object>> managed_objects;
  std::vector<std::vector<Event>> phases{1};
  // How each phase ends.
  std::string endings;
  // Nothing in it is malformed, so that what has to come of it is certain.
  bool certain = true;
};

bool IsPlain(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c >= ' ' && c <= '~'; });
}

bool IsPath(const std::string& text) {
  if (text == "/") return true;
  if (text.empty() || text[0] != '/' || text.ends_with('/')) return false;
  if (text.find("//") != std::string::npos) return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
           (c >= 'a' && c <= 'z') || c == '_' || c == '/';
  });
}

// Reads the input: writes what the agent says and tells what it means.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : script_(data, size) {}

  Story Read() {
    ReadPreamble();
    while (!script_.AtEnd()) ReadAction();
    EndPhase('-');
    // At last the agent goes.
    AddOwnerChange("");
    EndPhase('-');
    story_.phases.pop_back();
    story_.plan.phases.pop_back();
    return std::move(story_);
  }

 private:
  void ReadPreamble() {
    story_.plan.phases.resize(1);
    story_.plan.first_owner = kOwner;
    for (;;) {
      const Script before = script_;
      switch (const char c = script_.TakeChar()) {
        case 'a':
          story_.plan.first_owner.clear();
          continue;
        case 'p':
          story_.provisioned = true;
          continue;
        case 'k':
        case 'e':
        case 'w':
          story_.plan.answers += c;
          continue;
        default:
          script_ = before;
          return;
      }
    }
  }

  void ReadAction() {
    switch (script_.TakeChar()) {
      case 'A': {
        WireWriter body;
        Event event{Event::kAdded, sender_, {}, {}, {}};
        event.object = ReadObject(&body);
        Add(std::move(event), Signal('A', "oa{sa{sv}}", body));
        return;
      }
      case 'R': {
        WireWriter body;
        Event event{Event::kRemoved, sender_, {}, {}, {}};
        event.object.path = ReadPath(&body);
        event.names = ReadNames(&body);
        for (std::string& name : event.names) name = Expand(name);
        Add(std::move(event), Signal('R', "oas", body));
        return;
      }
      case 'P': {
        WireWriter path, body;
        WireMessage signal = Signal('P', "sa{sv}as", body);
        signal.path = ReadPath(&path);
        body.PutString(Expand(Text()));
        ReadProperties(&body, 0);
        ReadNames(&body);
        signal.body = body.bytes();
        Add({}, signal);
        return;
      }
      case 'M': {
        WireWriter body;
        std::vector<Object> objects;
        const size_t array = body.OpenArray(8);
        while (HasLine()) {
          body.Align(8);
          objects.push_back(ReadObject(&body));
        }
        body.CloseArray(array, 8);
        WireMessage reply;
        reply.signature = "a{oa{sa{sv}}}";
        reply.body = body.bytes();
        story_.plan.managed_objects.push_back(reply);
        story_.managed_objects.push_back(std::move(objects));
        return;
      }
      case 'O':
        AddOwnerChange(Text());
        return;
      case 'S':
        sender_ = Text();
        // The library gives up on a message with a bad name in its header.
        if (sender_ != kOwner && sender_ != ":1.8") story_.certain = false;
        return;
      case 'B': {
        story_.certain = false;
        const char kind = script_.TakeChar();
        const std::string signature = script_.TakeLine();
        WireWriter body;
        body.PutRaw(script_.TakeLine());
        WireMessage message = Signal(kind, signature, body);
        if (kind == 'M') {
          story_.plan.managed_objects.push_back(message);
          story_.managed_objects.emplace_back();
        } else {
          Add({}, message);
        }
        return;
      }
      case 'x':
        EndPhase(script_.TakeChar());
        return;
      default:
        return;
    }
  }

  void Add(Event event, WireMessage message) {
    story_.phases.back().push_back(std::move(event));
    story_.plan.phases.back().push_back(std::move(message));
  }

  void AddOwnerChange(const std::string& owner) {
    WireWriter body;
    body.PutString("org.vantrel.Dosset");
    body.PutString("");
    body.PutString(owner);
    WireMessage signal = Signal('O', "sss", body);
    signal.sender = kBusName;
    // Whoever follows is told to be asked: it must be a name.
    if (!owner.empty() && owner != kOwner && owner != ":1.8") {
      story_.certain = false;
    }
    Add({Event::kOwnerChanged, kBusName, {}, {}, owner}, signal);
  }

  void EndPhase(char ending) {
    story_.endings += ending;
    story_.phases.emplace_back();
    story_.plan.phases.emplace_back();
  }

  WireMessage Signal(char kind, const std::string& signature,
                     const WireWriter& body) {
    WireMessage signal;
    signal.path = kRoot;
    signal.interface = "org.freedesktop.DBus.ObjectManager";
    signal.sender = sender_;
    signal.signature = signature;
    signal.body = body.bytes();
    if (kind == 'A') {
      signal.member = "InterfacesAdded";
    } else if (kind == 'R') {
      signal.member = "InterfacesRemoved";
    } else if (kind == 'P') {
      signal.interface = "org.freedesktop.DBus.Properties";
      signal.member = "PropertiesChanged";
    } else {
      signal.path = "/org/freedesktop/DBus";
      signal.interface = kBusName;
      signal.member = "NameOwnerChanged";
    }
    return signal;
  }

  // Whether the list goes on. An empty line ends it.
  bool HasLine() {
    if (script_.AtEnd()) return false;
    const Script before = script_;
    if (script_.TakeLine().empty()) return false;
    script_ = before;
    return true;
  }

  std::string Text() {
    const std::string text = script_.TakeLine();
    if (!IsPlain(text)) story_.certain = false;
    return text;
  }

  static std::string Expand(const std::string& name) {
    return name == "C" ? kCommand : name == "M" ? kManager : name;
  }

  std::string ReadPath(WireWriter* body) {
    const std::string path = Text();
    if (!IsPath(path)) story_.certain = false;
    body->PutString(path);
    return path;
  }

  std::vector<std::string> ReadNames(WireWriter* body) {
    std::vector<std::string> names;
    const size_t array = body->OpenArray(4);
    while (HasLine()) {
      names.push_back(Text());
      body->PutString(Expand(names.back()));
    }
    body->CloseArray(array, 4);
    return names;
  }

  Object ReadObject(WireWriter* body) {
    Object object;
    object.path = ReadPath(body);
    const size_t array = body->OpenArray(8);
    while (HasLine()) {
      body->Align(8);
      Interface& interface = object.interfaces.emplace_back();
      interface.name = Expand(Text());
      body->PutString(interface.name);
      interface.properties = ReadProperties(body, 0);
    }
    body->CloseArray(array, 8);
    return object;
  }

  Properties ReadProperties(WireWriter* body, int depth) {
    Properties properties;
    const size_t array = body->OpenArray(8);
    while (HasLine()) {
      body->Align(8);
      auto& [name, value] = properties.emplace_back();
      name = Text();
      body->PutString(name);
      value = ReadVariant(body, depth + 1);
    }
    body->CloseArray(array, 8);
    return properties;
  }

  Value ReadVariant(WireWriter* body, int depth) {
    Value value;
    const char type = depth < kMaxDepth ? script_.TakeChar() : 's';
    switch (type) {
      case 'b':
      case 'i': {
        value.type = std::string(1, type);
        body->PutSignature(value.type);
        const long number = strtol(Text().c_str(), nullptr, 10);
        if (type == 'b' && number != 0 && number != 1) story_.certain = false;
        body->PutUint32(static_cast<uint32_t>(number));
        return value;
      }
      case 'a':
        value.type = "as";
        body->PutSignature(value.type);
        value.lines = ReadStrings(body);
        return value;
      case '{':
        value.type = "a{sv}";
        body->PutSignature(value.type);
        for (auto& [name, item] : ReadProperties(body, depth)) {
          value.items[name] = item;
        }
        return value;
      case 'v':
        value.type = "v";
        body->PutSignature(value.type);
        ReadVariant(body, depth + 1);
        return value;
      case '!':
        story_.certain = false;
        body->PutSignature(script_.TakeLine().substr(0, 255));
        body->PutRaw(script_.TakeLine());
        return value;
      default:
        value.type = "s";
        body->PutSignature(value.type);
        value.text = Text();
        body->PutString(value.text);
        return value;
    }
  }

  std::vector<std::string> ReadStrings(WireWriter* body) {
    std::vector<std::string> strings;
    const size_t array = body->OpenArray(4);
    while (HasLine()) {
      strings.push_back(Text());
      body->PutString(strings.back());
    }
    body->CloseArray(array, 4);
    return strings;
  }

  Script script_;
  std::string sender_ = kOwner;
  Story story_;
};

std::string DescribePublication(bool provisioned) {
  WireWriter body;
  const size_t outer = body.OpenArray(8);
  body.Align(8);
  body.PutString("_cloudActionConfiguration._credential");
  body.PutSignature("a{sv}");
  const size_t inner = body.OpenArray(8);
  body.Align(8);
  body.PutString("_provisioned");
  body.PutSignature("b");
  body.PutUint32(provisioned ? 1 : 0);
  body.CloseArray(inner, 8);
  body.CloseArray(outer, 8);
  return body.bytes();
}

// What the daemon has to do.
class Model {
 public:
  explicit Model(const Story& story)
      : story_(story), provisioned_(story.provisioned) {
    if (provisioned_) requests_.push_back({});
    SetOwner(story.plan.first_owner);
    HandleManagedObjects();
  }

  void Handle(const std::vector<Event>& phase) {
    for (const Event& event : phase) {
      if (event.kind == Event::kOwnerChanged) {
        if (event.owner != owner_) SetOwner(event.owner);
      } else if (event.sender != owner_) {
        continue;
      } else if (event.kind == Event::kAdded) {
        Add(event.object);
      } else if (event.kind == Event::kRemoved) {
        for (const std::string& name : event.names) {
          objects_.erase({event.object.path, name});
        }
      }
    }
    HandleManagedObjects();
  }

  bool has_request() const { return !requests_.empty(); }

  void End(char ending) {
    const Request request = requests_.front();
    requests_.pop_front();
    if (request.number == 0 || request.number != exchange_) return;
    exchange_ = 0;
    const bool alive = objects_.contains({request.path, kCommand}) &&
                       objects_[{request.path, kCommand}] == request.number;
    if (ending != 'g') {
      if (alive) Call(request.path, kCommand, "Abort");
      return;
    }
    provisioned_ = true;
    file_ = "";
    for (size_t i = 0; i < request.endpoints.size(); ++i) {
      *file_ += (i > 0 ? "," : "") + request.endpoints[i];
    }
    Publish();
    if (alive) Call(request.path, kCommand, "Complete");
  }

  const std::vector<std::string>& calls() const { return calls_; }
  const std::optional<std::string>& file() const { return file_; }

 private:
  struct Request {
    // 0 for one that is no code exchange.
    int number = 0;
    std::string path;
    std::vector<std::string> endpoints;
  };

  void Call(const std::string& path, const std::string& interface,
            const std::string& what) {
    calls_.push_back(path + " " + interface + "." + what);
  }

  void Publish() {
    const bool has_manager = std::any_of(
        objects_.begin(), objects_.end(),
        [](const auto& entry) { return entry.first.second == kManager; });
    if (!has_manager) return;
    Call(kManagerPath, kManager,
         provisioned_ ? "UpdateState true" : "UpdateState false");
  }

  void SetOwner(const std::string& owner) {
    objects_.clear();
    owner_ = owner;
    asked_.reset();
    if (owner.empty()) return;
    // The objects come when all else of the phase has been handled.
    asked_ = next_managed_++;
  }

  void HandleManagedObjects() {
    if (!asked_) return;
    const size_t which = *asked_;
    asked_.reset();
    if (which >= story_.managed_objects.size()) return;
    for (const Object& object : story_.managed_objects[which]) Add(object);
  }

  void Add(const Object& object) {
    for (const Interface& interface : object.interfaces) {
      if (interface.name != kManager && interface.name != kCommand) continue;
      const auto key = std::make_pair(object.path, interface.name);
      if (objects_.contains(key)) continue;
      objects_[key] = 0;
      if (interface.name == kManager) {
        Publish();
      } else {
        Run(object.path, interface.properties);
      }
    }
  }

  static Value Find(const Properties& properties, const std::string& name,
                    const std::string& type) {
    Value found;
    for (const auto& [key, value] : properties) {
      if (key == name && value.type == type) found = value;
    }
    return found;
  }

  void Run(const std::string& path, const Properties& properties) {
    if (Find(properties, "State", "s").text != "queued") return;
    const std::string name = Find(properties, "Name", "s").text;
    if (name == kRemove) {
      exchange_ = 0;
      provisioned_ = false;
      file_.reset();
      Publish();
      Call(path, kCommand, "Complete");
    } else if (name == kSet) {
      Set(path, Find(properties, "Parameters", "a{sv}"));
    }
  }

  void Set(const std::string& path, const Value& parameters) {
    std::string code;
    std::vector<std::string> endpoints;
    if (const auto found = parameters.items.find("_authorizationCode");
        found != parameters.items.end() && found->second.type == "s") {
      code = found->second.text;
    }
    if (const auto found = parameters.items.find("_allowedEndpoints");
        found != parameters.items.end() && found->second.type == "as") {
      endpoints = found->second.lines;
    }
    const bool valid = std::all_of(
        endpoints.begin(), endpoints.end(), [](const std::string& endpoint) {
          return fuzz::JudgeUrl(endpoint).url.has_value();
        });
    if (!valid || code.empty() || exchange_ != 0) {
      Call(path, kCommand, "Abort");
      return;
    }
    exchange_ = ++last_exchange_;
    objects_[{path, kCommand}] = exchange_;
    requests_.push_back({exchange_, path, endpoints});
  }

  const Story& story_;
  bool provisioned_;
  std::string owner_;
  // By path and interface; the number of the code exchange that a command has
  // started.
  std::map<std::pair<std::string, std::string>, int> objects_;
  // Which reply is awaited.
  std::optional<size_t> asked_;
  size_t next_managed_ = 0;
  int last_exchange_ = 0;
  // The exchange that is under way, or 0.
  int exchange_ = 0;
  std::deque<Request> requests_;
  std::vector<std::string> calls_;
  std::optional<std::string> file_;
};

// What the daemon did, in the words of the model. What it must never do ends
// the process.
std::vector<std::string> Describe(const std::vector<WireMessage>& calls) {
  std::vector<std::string> described;
  for (const WireMessage& call : calls) {
    std::string what = call.path + " " + call.interface + "." + call.member;
    CHECK(call.destination == "org.vantrel.Dosset" && IsPath(call.path))
        << "A call to " << call.destination << call.path;
    if (call.interface == kManager && call.member == "UpdateState") {
      CHECK(call.path == kManagerPath && call.signature == "a{sv}");
      const bool provisioned = call.body == DescribePublication(true);
      CHECK(provisioned || call.body == DescribePublication(false))
          << "Another state was published";
      what += provisioned ? " true" : " false";
    } else if (call.member == "Complete") {
      CHECK(call.interface == kCommand && call.signature == "a{sv}" &&
            call.body == std::string(8, '\0'))
          << "Completed otherwise";
    } else {
      CHECK(call.interface == kCommand && call.member == "Abort" &&
            call.signature == "ss" &&
            call.body == std::string("\0\0\0\0\0\0\0\0\0\0\0\0\0", 13))
          << "Another call: " << what;
    }
    described.push_back(what);
  }
  return described;
}

// libFuzzer's alarm would end a wait of the bus library, and of the peer, whose
// thread takes the mask over. Nothing interrupts the daemon that ships.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &previous_);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t previous_;
};

class Daemon {
 public:
  explicit Daemon(base::EventLoop* loop)
      : loop_(loop), bus_(std::make_unique<dbus::Bus>(loop)) {
    std::string reason;
    CHECK(bus_->Connect(&reason)) << reason;
    bus_->SetDisconnectedCallback([this] { disconnected_ = true; });
    done_slot_ = bus_->AddMatch("type='signal',interface='fuzz.Test'",
                                [this](dbus::Message) { ++phases_done_; });
    agent_ =
        std::make_unique<org::vantrel::Dosset::ObjectManagerProxy>(bus_.get());
    manager_ = std::make_unique<CloudActionManager>(agent_.get());
  }

  ~Daemon() {
    manager_.reset();
    agent_.reset();
    done_slot_ = dbus::Slot();
  }

  // Handles what comes up to the end of the phase. False if the connection was
  // given up.
  bool RunPhase() {
    const int wanted = phases_done_ + 1;
    while (phases_done_ < wanted && !disconnected_) {
      CHECK(sd_event_run(loop_->handle(), kDeadlineUs) > 0) << "Waited in vain";
    }
    return !disconnected_;
  }

  void Answer(char ending) {
    if (answered_ >= transport_->requests().size()) return;
    const size_t index = answered_++;
    if (ending == 'g') {
      transport_->Answer(index, 200, kGoodReply);
    } else if (ending == 'b') {
      transport_->Answer(index, 400, "{}");
    } else {
      transport_->Fail(index, "connect", "no answer");
    }
  }

  void Continue() {
    const dbus::ObjectProxy peer(bus_.get(), "fuzz.Peer", "/fuzz");
    peer.CreateMethodCall("fuzz.Test", "Continue").Send();
  }

  bool HasManager() const { return agent_->GetManagerProxy() != nullptr; }

 private:
  base::EventLoop* loop_;  // Not owned; outlives this.
  std::shared_ptr<test::FakeTransport> transport_ =
      test::FakeTransport::Create();
  std::unique_ptr<dbus::Bus> bus_;
  dbus::Slot done_slot_;
  std::unique_ptr<org::vantrel::Dosset::ObjectManagerProxy> agent_;
  std::unique_ptr<CloudActionManager> manager_;
  bool disconnected_ = false;
  int phases_done_ = 0;
  size_t answered_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  test::PrivateRoot().SetUp();
  test::PutFile(halvex::actions::kConfigFile,
                "SMARTHOME_CLIENT_ID=id\nSMARTHOME_CLIENT_SECRET=secret\n"
                "SMARTHOME_SCOPE=scope\n");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static base::EventLoop loop;
  const Story story = Reader(data, size).Read();
  base::DeleteFile(base::FilePath(kAllowedEndpointsFile), /*recursive=*/false);
  base::DeleteFile(base::FilePath(kRefreshTokenFile), /*recursive=*/false);
  if (story.provisioned) test::PutFile(kRefreshTokenFile, "old token");

  const test::LogCapture log;
  std::unique_ptr<fuzz::RawPeer> peer;
  std::unique_ptr<Daemon> daemon;
  {
    const BlockedSignals blocked;
    peer = std::make_unique<fuzz::RawPeer>(story.plan);
    daemon = std::make_unique<Daemon>(&loop);
  }
  Model model(story);
  bool is_open = true;
  for (size_t i = 0; i < story.phases.size() && is_open; ++i) {
    is_open = daemon->RunPhase();
    if (!is_open) break;
    model.Handle(story.phases[i]);
    if (story.endings[i] != '-') {
      daemon->Answer(story.endings[i]);
      if (model.has_request()) model.End(story.endings[i]);
    }
    if (i + 1 < story.phases.size()) {
      daemon->Continue();
    } else {
      CHECK(!daemon->HasManager()) << "The agent has gone";
    }
  }
  daemon.reset();

  const std::vector<std::string> calls = Describe(peer->Join());
  CHECK(is_open || !story.certain) << "The connection was given up";
  if (!story.certain) return 0;
  CHECK(calls.size() == model.calls().size())
      << calls.size() << " calls, not " << model.calls().size();
  for (size_t i = 0; i < calls.size(); ++i) {
    CHECK(calls[i] == model.calls()[i])
        << "Called " << calls[i] << ", not " << model.calls()[i];
  }
  CHECK(test::Exists(kAllowedEndpointsFile) == model.file().has_value())
      << "A list of endpoints, or none";
  CHECK(!model.file() || test::GetFile(kAllowedEndpointsFile) == *model.file())
      << "Another list of endpoints";
  return 0;
}
