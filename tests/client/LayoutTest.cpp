// The client library's tables of where fields stand, against the schemas that the daemon is built
// from.
#include <capnp/rpc.capnp.h>
#include <capnp/schema.h>
#include <gtest/gtest.h>

#include <string>

#include "client/wire/Layout.h"
#include "protocol/corvid.capnp.h"

namespace corvid {
namespace {

namespace ours = library::wire;

// A struct of a schema, whose fields are found by name; one inside a group by "group.name".
class Struct {
 public:
  explicit Struct(capnp::StructSchema schema) : _schema(schema) {}

  void expectSize(ours::Size size) const {
    const auto node = _schema.getProto().getStruct();
    EXPECT_EQ(size.data, node.getDataWordCount());
    EXPECT_EQ(size.pointers, node.getPointerCount());
  }
  template <class T>
  void expect(const char* name, ours::Field<T> field) const {
    const std::size_t bits = std::is_same_v<T, bool> ? 1 : 8 * sizeof(T);
    EXPECT_EQ(field.bit, slot(name).getOffset() * bits) << name;
    EXPECT_EQ(bits, bitsOf(slot(name).getType())) << name;
  }
  void expect(const char* name, ours::Pointer field) const {
    EXPECT_EQ(field.index, slot(name).getOffset()) << name;
    EXPECT_EQ(bitsOf(slot(name).getType()), 0u) << name;
  }
  void expectTag(ours::Tag tag) const {
    EXPECT_EQ(tag.bit, _schema.getProto().getStruct().getDiscriminantOffset() * 16);
  }
  void expectMember(const char* name, unsigned value) const {
    EXPECT_EQ(value, _schema.getFieldByName(name).getProto().getDiscriminantValue()) << name;
  }

 private:
  capnp::schema::Field::Slot::Reader slot(const std::string& name) const {
    const auto dot = name.find('.');
    if (dot == std::string::npos) return _schema.getFieldByName(name.c_str()).getProto().getSlot();
    const auto group = _schema.getFieldByName(name.substr(0, dot).c_str()).getType().asStruct();
    return group.getFieldByName(name.substr(dot + 1).c_str()).getProto().getSlot();
  }
  static std::size_t bitsOf(capnp::schema::Type::Reader type) {
    switch (type.which()) {
      case capnp::schema::Type::BOOL: return 1;
      case capnp::schema::Type::UINT8: return 8;
      case capnp::schema::Type::UINT16:
      case capnp::schema::Type::ENUM: return 16;
      case capnp::schema::Type::UINT32: return 32;
      case capnp::schema::Type::INT64:
      case capnp::schema::Type::UINT64:
      case capnp::schema::Type::FLOAT64: return 64;
      default: return 0;
    }
  }

  const capnp::StructSchema _schema;
};

template <class T>
Struct schema() {
  return Struct(capnp::Schema::from<T>());
}

TEST(Layout, OfTheRPCProtocolIsThatOfItsSchema) {
  namespace o = ours::rpc;
  namespace s = capnp::rpc;
  const auto message = schema<s::Message>();
  message.expectSize(o::Message::size);
  message.expectTag(o::Message::which);
  message.expect("call", o::Message::content);
  message.expectMember("unimplemented", o::Message::unimplemented);
  message.expectMember("abort", o::Message::abort);
  message.expectMember("call", o::Message::call);
  message.expectMember("return", o::Message::return_);
  message.expectMember("finish", o::Message::finish);
  message.expectMember("release", o::Message::release);
  message.expectMember("bootstrap", o::Message::bootstrap);
  message.expectMember("disembargo", o::Message::disembargo);

  schema<s::Bootstrap>().expectSize(o::Bootstrap::size);
  schema<s::Bootstrap>().expect("questionId", o::Bootstrap::questionId);

  const auto call = schema<s::Call>();
  call.expectSize(o::Call::size);
  call.expect("questionId", o::Call::questionId);
  call.expect("methodId", o::Call::methodId);
  call.expect("interfaceId", o::Call::interfaceId);
  call.expect("target", o::Call::target);
  call.expect("params", o::Call::params);

  const auto answer = schema<s::Return>();
  answer.expectSize(o::Return::size);
  answer.expect("answerId", o::Return::answerId);
  answer.expect("releaseParamCaps", o::Return::keepParamCaps);
  answer.expectTag(o::Return::which);
  answer.expect("results", o::Return::results);
  answer.expect("exception", o::Return::exception);
  answer.expectMember("results", o::Return::isResults);
  answer.expectMember("exception", o::Return::isException);

  schema<s::Finish>().expectSize(o::Finish::size);
  schema<s::Finish>().expect("questionId", o::Finish::questionId);
  schema<s::Finish>().expect("releaseResultCaps", o::Finish::keepResultCaps);
  schema<s::Release>().expectSize(o::Release::size);
  schema<s::Release>().expect("id", o::Release::id);
  schema<s::Release>().expect("referenceCount", o::Release::referenceCount);

  const auto target = schema<s::MessageTarget>();
  target.expectSize(o::MessageTarget::size);
  target.expectTag(o::MessageTarget::which);
  target.expect("importedCap", o::MessageTarget::importedCap);
  target.expect("promisedAnswer", o::MessageTarget::promisedAnswer);
  target.expectMember("importedCap", o::MessageTarget::isImportedCap);
  target.expectMember("promisedAnswer", o::MessageTarget::isPromisedAnswer);
  schema<s::PromisedAnswer>().expectSize(o::PromisedAnswer::size);
  schema<s::PromisedAnswer>().expect("questionId", o::PromisedAnswer::questionId);

  schema<s::Payload>().expectSize(o::Payload::size);
  schema<s::Payload>().expect("content", o::Payload::content);
  schema<s::Payload>().expect("capTable", o::Payload::capTable);

  const auto capability = schema<s::CapDescriptor>();
  capability.expectSize(o::CapDescriptor::size);
  capability.expectTag(o::CapDescriptor::which);
  capability.expect("senderHosted", o::CapDescriptor::senderHosted);
  capability.expect("attachedFd", o::CapDescriptor::attachedFd);
  capability.expectMember("none", o::CapDescriptor::isNone);
  capability.expectMember("senderHosted", o::CapDescriptor::isSenderHosted);

  schema<s::Exception>().expectSize(o::Exception::size);
  schema<s::Exception>().expect("type", o::Exception::type);
  schema<s::Exception>().expect("reason", o::Exception::reason);
  EXPECT_EQ(o::Exception::failed, static_cast<unsigned>(s::Exception::Type::FAILED));
  EXPECT_EQ(o::Exception::disconnected, static_cast<unsigned>(s::Exception::Type::DISCONNECTED));
  EXPECT_EQ(o::Exception::unimplemented, static_cast<unsigned>(s::Exception::Type::UNIMPLEMENTED));
}

TEST(Layout, OfValuesIsThatOfTheSchema) {
  using O = ours::PropertyValue;
  const auto value = schema<wire::PropertyValue>();
  value.expectSize(O::size);
  value.expectTag(O::which);
  value.expect("int64", O::int64);
  value.expect("boolean", O::boolean);
  value.expect("float64", O::float64);
  value.expect("date", O::date);
  for (const char* name : {"text", "data", "list", "dictionary"}) value.expect(name, O::content);
  value.expect("key", O::key);
  value.expectMember("absent", O::isAbsent);
  value.expectMember("int64", O::isInt64);
  value.expectMember("boolean", O::isBoolean);
  value.expectMember("float64", O::isFloat64);
  value.expectMember("date", O::isDate);
  value.expectMember("text", O::isText);
  value.expectMember("data", O::isData);
  value.expectMember("list", O::isList);
  value.expectMember("dictionary", O::isDictionary);
}

TEST(Layout, OfMessagesAndAnswersIsThatOfTheSchema) {
  const auto message = schema<wire::Message>();
  message.expectSize(ours::Message::size);
  message.expect("replyWanted", ours::Message::replyWanted);
  message.expect("reasonWanted", ours::Message::reasonWanted);
  message.expect("event.category", ours::Message::category);
  message.expect("event.type", ours::Message::type);
  message.expect("event.payload", ours::Message::content);
  message.expect("dictionary", ours::Message::content);
  message.expectTag(ours::Message::which);
  message.expectMember("event", ours::Message::isEvent);
  message.expectMember("dictionary", ours::Message::isDictionary);

  const auto text = schema<wire::TextResult>();
  text.expectTag(ours::TextResult::which);
  text.expect("isReasoned", ours::TextResult::isReasoned);
  text.expect("text", ours::TextResult::content);
  text.expect("dropped", ours::TextResult::content);
  text.expectMember("unanswered", ours::TextResult::isUnanswered);
  text.expectMember("none", ours::TextResult::isNone);
  text.expectMember("text", ours::TextResult::isText);
  text.expectMember("dropped", ours::TextResult::isDropped);
  schema<wire::Dropped>().expect("reason", ours::Dropped::reason);
  schema<wire::Dropped>().expect("text", ours::Dropped::text);

  const auto states = schema<wire::StatesAnswer>();
  states.expect("answered", ours::StatesAnswer::answered);
  states.expectTag(ours::StatesAnswer::which);
  states.expect("states", ours::StatesAnswer::content);
  states.expect("report", ours::StatesAnswer::content);
  states.expectMember("states", ours::StatesAnswer::isStates);
  states.expectMember("report", ours::StatesAnswer::isReport);
  const auto report = schema<wire::StatesReport>();
  report.expect("states", ours::StatesReport::states);
  report.expect("reason", ours::StatesReport::reason);
  report.expect("backends", ours::StatesReport::backends);
  const auto backend = schema<wire::BackendReport>();
  backend.expect("name", ours::BackendReport::name);
  backend.expect("state", ours::BackendReport::state);
  backend.expect("reason", ours::BackendReport::reason);

  const auto error = schema<wire::Error>();
  error.expect("code", ours::Error::code);
  error.expect("domain", ours::Error::domain);
  error.expect("description", ours::Error::description);
  const auto delivery = schema<wire::Delivery>();
  delivery.expect("timestamp", ours::Delivery::timestamp);
  delivery.expect("category", ours::Delivery::category);
  delivery.expect("type", ours::Delivery::type);
  delivery.expect("message", ours::Delivery::message);
  delivery.expect("payload", ours::Delivery::payload);
}

// The method's number and the size of its parameters.
template <class Parameters, class Ours>
Struct expectMethod(const char* name) {
  EXPECT_EQ(Ours::method,
            capnp::Schema::from<wire::ClientSession>().getMethodByName(name).getOrdinal())
      << name;
  const auto parameters = schema<Parameters>();
  parameters.expectSize(Ours::size);
  if constexpr (requires { Ours::replyWanted; })
    parameters.expect("replyWanted", Ours::replyWanted);
  if constexpr (requires { Ours::reasonWanted; })
    parameters.expect("reasonWanted", Ours::reasonWanted);
  if constexpr (requires { Ours::reportWanted; })
    parameters.expect("reportWanted", Ours::reportWanted);
  return parameters;
}

TEST(Layout, OfTheCallsIsThatOfTheSchema) {
  using O = ours::ClientSession;
  using S = wire::ClientSession;
  EXPECT_EQ(O::id, capnp::typeId<S>());
  EXPECT_EQ(ours::FileGrant::id, capnp::typeId<wire::FileGrant>());
  EXPECT_EQ(ours::ClientSessionReply::id, capnp::typeId<wire::ClientSessionReply>());

  const auto info = expectMethod<S::SetSessionInfoParams, O::SetSessionInfoP>("setSessionInfo");
  info.expect("hasAggregationBlock", O::SetSessionInfoP::hasAggregationBlock);
  info.expect("changesWanted", O::SetSessionInfoP::changesWanted);
  info.expect("sessionInfo", O::SetSessionInfoP::sessionInfo);
  info.expect("userInfo", O::SetSessionInfoP::userInfo);
  info.expect("frameworksToCheck", O::SetSessionInfoP::frameworksToCheck);
  expectMethod<S::StartConfigParams, O::StartConfigP>("startConfig");
  expectMethod<S::FetchStatesParams, O::FetchStatesP>("fetchStates")
      .expect("userInfo", O::FetchStatesP::userInfo);
  expectMethod<S::FetchDisplayURLParams, O::FetchDisplayURLP>("fetchDisplayURL");
  expectMethod<S::SendMessagesParams, O::SendMessagesP>("sendMessages")
      .expect("messages", O::SendMessagesP::messages);
  expectMethod<S::FlushParams, O::FlushP>("flush");
  expectMethod<S::FinishParams, O::FinishP>("finish");
  const auto file = expectMethod<S::UploadFileParams, O::UploadFileP>("uploadFile");
  file.expect("fileURL", O::UploadFileP::fileURL);
  file.expect("file", O::UploadFileP::file);
  expectMethod<S::UploadLogDataParams, O::UploadLogDataP>("uploadLogData")
      .expect("logData", O::UploadLogDataP::logData);
  const auto single =
      expectMethod<S::SendSingleMessageParams, O::SendSingleMessageP>("sendSingleMessage");
  single.expect("category", O::SendSingleMessageP::category);
  single.expect("type", O::SendSingleMessageP::type);
  single.expect("sessionInfo", O::SendSingleMessageP::sessionInfo);
  single.expect("userInfo", O::SendSingleMessageP::userInfo);
  single.expect("payload", O::SendSingleMessageP::payload);

  schema<S::SendMessagesResults>().expect("results", O::SendMessagesR::results);
  schema<S::FetchDisplayURLResults>().expect("url", O::TextR::result);
  schema<S::FinishResults>().expect("result", O::TextR::result);
  schema<S::SendSingleMessageResults>().expect("result", O::TextR::result);
  schema<S::FlushResults>().expect("result", O::FlushR::result);
  schema<S::FlushResults>().expect("error", O::FlushR::error);
  schema<S::UploadFileResults>().expect("answered", O::UploadR::answered);
  schema<S::UploadFileResults>().expect("success", O::UploadR::success);
  schema<S::UploadLogDataResults>().expect("answered", O::UploadR::answered);
  schema<S::UploadLogDataResults>().expect("success", O::UploadR::success);
  schema<S::UploadLogDataResults>().expect("error", O::UploadR::error);

  using R = wire::ClientSessionReply;
  const auto reply = capnp::Schema::from<R>();
  using ToClient = ours::ClientSessionReply;
  EXPECT_EQ(ToClient::SendMessagesToClientP::method,
            reply.getMethodByName("sendMessagesToClient").getOrdinal());
  EXPECT_EQ(ToClient::StatesChangedP::method, reply.getMethodByName("statesChanged").getOrdinal());
  schema<R::SendMessagesToClientParams>().expect("deliveries",
                                                 ToClient::SendMessagesToClientP::deliveries);
  schema<R::StatesChangedParams>().expect("report", ToClient::StatesChangedP::report);
  EXPECT_EQ(ours::FileGrant::remove,
            capnp::Schema::from<wire::FileGrant>().getMethodByName("remove").getOrdinal());
}

}  // namespace
}  // namespace corvid
