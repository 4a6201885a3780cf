// Changes a client's stream where it has structure: whole messages come, go and change places, and
// within a message single fields change, so that most mutants are still understood.
#include <capnp/dynamic.h>
#include <capnp/message.h>
#include <capnp/rpc.capnp.h>
#include <capnp/schema.h>
#include <capnp/serialize.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "protocol/corvid.capnp.h"
#include "protocol/wire/SocketPort.h"
#include "tests/fuzz/ClientStream.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using capnp::DynamicList;
using capnp::DynamicStruct;
using capnp::DynamicValue;
using capnp::StructSchema;
using capnp::schema::Type;
using corvid::fuzz::ClientWrite;
using corvid::fuzz::Passed;
using FuzzedInterface = corvid::wire::CORVID_FUZZED_INTERFACE;
using RPCMessage = capnp::rpc::Message;

class Mutator {
 public:
  explicit Mutator(unsigned seed) : _random(seed) {}

  void mutate(std::vector<ClientWrite>& writes) {
    if (writes.empty()) writes.push_back({Passed::nothing, newMessage()});
    const std::size_t at = below(writes.size());
    switch (below(10)) {
      case 0: writes.insert(writes.begin() + place(writes), writes[at]); break;
      case 1: writes.erase(writes.begin() + static_cast<std::ptrdiff_t>(at)); break;
      case 2: std::swap(writes[at], writes[below(writes.size())]); break;
      case 3: writes[at].passed = static_cast<Passed>(below(corvid::fuzz::kindsOfPassed)); break;
      case 4: writes.insert(writes.begin() + place(writes), {Passed::nothing, newMessage()}); break;
      case 5: divide(writes, at); break;
      default: writes[at].bytes = changed(writes[at].bytes);
    }
  }

  std::size_t below(std::size_t limit) { return _random() % limit; }

 private:
  std::ptrdiff_t place(const std::vector<ClientWrite>& writes) {
    return static_cast<std::ptrdiff_t>(below(writes.size() + 1));
  }
  void divide(std::vector<ClientWrite>& writes, std::size_t at) {
    const std::size_t cut = below(writes[at].bytes.size() + 1);
    ClientWrite rest{Passed::nothing, writes[at].bytes.substr(cut)};
    writes[at].bytes.resize(cut);
    writes.insert(writes.begin() + static_cast<std::ptrdiff_t>(at) + 1, std::move(rest));
  }

  static std::string bytesOf(capnp::MessageBuilder& message) {
    const auto words = capnp::messageToFlatArray(message);
    const auto bytes = words.asBytes();
    return {reinterpret_cast<const char*>(bytes.begin()), bytes.size()};
  }

  std::string changedAnyhow(const std::string& bytes) {
    std::string copy = bytes;
    copy.resize(bytes.size() + 64);
    copy.resize(
        LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(copy.data()), bytes.size(), copy.size()));
    return copy;
  }
  // A message with a few fields changed; bytes that are none, and some that are, anyhow.
  std::string changed(const std::string& bytes) {
    if (below(8) == 0) return changedAnyhow(bytes);
    try {
      const std::size_t size = bytes.size() / sizeof(capnp::word);
      auto words = kj::heapArray<capnp::word>(size);
      std::memcpy(words.begin(), bytes.data(), size * sizeof(capnp::word));
      capnp::FlatArrayMessageReader reader(words);
      capnp::MallocMessageBuilder message;
      message.setRoot(reader.getRoot<RPCMessage>());
      change(message);
      return bytesOf(message);
    } catch (const kj::Exception&) {
      return changedAnyhow(bytes);
    }
  }
  void change(capnp::MessageBuilder& message) {
    auto root = message.getRoot<RPCMessage>();
    for (std::size_t times = 1 + below(3); times > 0; --times) {
      if (root.isCall() && below(4) != 0)
        changeParameters(root.getCall());
      else
        change(capnp::toDynamic(root));
    }
  }
  void changeParameters(capnp::rpc::Call::Builder call) {
    const auto methods = capnp::Schema::from<FuzzedInterface>().getMethods();
    auto content = call.getParams().getContent();
    if (call.getMethodId() < methods.size())
      change(content.getAs<DynamicStruct>(methods[call.getMethodId()].getParamType()));
  }

  std::string newMessage() {
    capnp::MallocMessageBuilder message;
    auto root = message.initRoot<RPCMessage>();
    if (below(3) == 0) {
      change(capnp::toDynamic(root));
    } else {
      const auto methods = capnp::Schema::from<FuzzedInterface>().getMethods();
      auto call = root.initCall();
      call.setQuestionId(static_cast<std::uint32_t>(below(16)));
      call.initTarget().setImportedCap(0);
      call.setInterfaceId(capnp::typeId<FuzzedInterface>());
      call.setMethodId(static_cast<std::uint16_t>(below(methods.size())));
      call.initParams().getContent().initAs<DynamicStruct>(
          methods[call.getMethodId()].getParamType());
      for (int times = 0; times < 4; ++times) changeParameters(call);
    }
    return bytesOf(message);
  }

  // One field, anywhere below.
  void change(DynamicStruct::Builder structure, int depth = 0) {
    const auto fields = structure.getSchema().getFields();
    if (fields.size() == 0 || depth > 8) return;
    const auto field = fields[static_cast<capnp::uint>(below(fields.size()))];
    const auto type = field.getType();
    switch (type.which()) {
      case Type::STRUCT:
        // A member of a union that is not chosen has nothing to look at.
        if (!isChosen(structure, field) || (!isGroup(field) && !structure.has(field)))
          structure.init(field);
        return change(structure.get(field).as<DynamicStruct>(), depth + 1);
      case Type::LIST: return changeList(structure, field, depth);
      case Type::TEXT: return structure.set(field, capnp::Text::Reader(text().c_str()));
      case Type::DATA: {
        const std::string bytes = text();
        return structure.set(
            field,
            capnp::Data::Reader(reinterpret_cast<const kj::byte*>(bytes.data()), bytes.size()));
      }
      case Type::INTERFACE:
      case Type::ANY_POINTER: return;
      default: return structure.set(field, plain(type));
    }
  }
  static bool isGroup(StructSchema::Field field) { return field.getProto().isGroup(); }
  static bool isChosen(DynamicStruct::Builder structure, StructSchema::Field field) {
    if (field.getProto().getDiscriminantValue() == capnp::schema::Field::NO_DISCRIMINANT)
      return true;
    KJ_IF_MAYBE (chosen, structure.which()) {
      return *chosen == field;
    }
    return false;
  }
  void changeList(DynamicStruct::Builder structure, StructSchema::Field field, int depth) {
    const bool isThere = isChosen(structure, field) && structure.has(field);
    if (!isThere || below(8) == 0) structure.init(field, static_cast<capnp::uint>(below(6)));
    auto list = structure.get(field).as<DynamicList>();
    if (list.size() == 0) return;
    const auto at = static_cast<capnp::uint>(below(list.size()));
    const auto type = list.getSchema().getElementType();
    if (type.isStruct())
      change(list[at].as<DynamicStruct>(), depth + 1);
    else if (type.isText())
      list.set(at, capnp::Text::Reader(text().c_str()));
    else if (!type.isList() && !type.isData() && !type.isAnyPointer() && !type.isInterface())
      list.set(at, plain(type));
  }

  DynamicValue::Reader plain(capnp::Type type) {
    switch (type.which()) {
      case Type::VOID: return capnp::VOID;
      case Type::BOOL: return below(2) == 0;
      case Type::ENUM:
        return capnp::DynamicEnum(type.asEnum(), static_cast<std::uint16_t>(below(5)));
      case Type::FLOAT32:
      case Type::FLOAT64: return real();
      default: return integer(type.which());
    }
  }
  DynamicValue::Reader integer(Type::Which type) {
    static constexpr std::array<std::int64_t, 16> notable{
        0, 1, 2, 3, 5, 7, 8, 16, -1, 255, 65535, 0x7fffffff, INT64_MAX, INT64_MIN, 17, 1000};
    const std::int64_t number =
        below(4) == 0 ? static_cast<std::int64_t>(_random()) : notable[below(notable.size())];
    switch (type) {  // a number that its type does not hold would be refused
      case Type::INT8: return static_cast<std::int8_t>(number);
      case Type::INT16: return static_cast<std::int16_t>(number);
      case Type::INT32: return static_cast<std::int32_t>(number);
      case Type::UINT8: return static_cast<std::uint8_t>(number);
      case Type::UINT16: return static_cast<std::uint16_t>(number);
      case Type::UINT32: return static_cast<std::uint32_t>(number);
      case Type::UINT64: return static_cast<std::uint64_t>(number);
      default: return number;
    }
  }
  double real() {
    static constexpr std::array<double, 8> notable{0,     -0.0,    1,     0.5,
                                                   1e308, -1e-320, 1.7e9, __builtin_nan("")};
    return notable[below(notable.size())];
  }
  // Names that the daemon looks for, and others.
  std::string text() {
    static constexpr std::array<const char*, 24> notable{"",
                                                         "ClientType",
                                                         "ClientVersion",
                                                         "SessionID",
                                                         "RequireUserInfo",
                                                         "BatchEvent",
                                                         "Category",
                                                         "Type",
                                                         "Payload",
                                                         "Flag",
                                                         "_clientName",
                                                         "_serviceName",
                                                         "secret",
                                                         "account",
                                                         "mark",
                                                         "file:///a",
                                                         "file:///%00",
                                                         "\xff\xfe",
                                                         "US",
                                                         "udid",
                                                         "a:b",
                                                         "\xe2\x80\xae",
                                                         "%n%s",
                                                         "method"};
    return below(6) == 0 ? changedAnyhow(notable[below(notable.size())])
                         : notable[below(notable.size())];
  }

  std::minstd_rand _random;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed) {
  const corvid::wire::QuietLibrary quiet;
  Mutator mutator(seed);
  if (mutator.below(10) == 0) return LLVMFuzzerMutate(data, size, maxSize);
  auto writes = corvid::fuzz::readClientStream({reinterpret_cast<const char*>(data), size});
  for (std::size_t times = 1 + mutator.below(3); times > 0; --times) mutator.mutate(writes);
  const std::string stream = corvid::fuzz::clientStream(writes);
  if (stream.size() > maxSize) return LLVMFuzzerMutate(data, size, maxSize);
  std::memcpy(data, stream.data(), stream.size());
  return stream.size();
}

// Writes of both, in the order of each.
extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* first, std::size_t firstSize,
                                                 const std::uint8_t* second, std::size_t secondSize,
                                                 std::uint8_t* out, std::size_t maxSize,
                                                 unsigned seed) {
  std::minstd_rand random(seed);
  auto writes = corvid::fuzz::readClientStream({reinterpret_cast<const char*>(first), firstSize});
  const auto others =
      corvid::fuzz::readClientStream({reinterpret_cast<const char*>(second), secondSize});
  std::size_t at = 0;
  for (const ClientWrite& other : others) {
    at = std::min(writes.size(), at + random() % 3);
    if (random() % 2 == 0) writes.insert(writes.begin() + static_cast<std::ptrdiff_t>(at), other);
  }
  const std::string stream = corvid::fuzz::clientStream(writes);
  const std::size_t size = std::min(stream.size(), maxSize);
  std::memcpy(out, stream.data(), size);
  return size;
}
