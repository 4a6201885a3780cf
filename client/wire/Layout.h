// Where the fields of messages stand: of the RPC protocol (/capnp/rpc.capnp) and of
// protocol/corvid.capnp. A test compares each with the schemas.
//
// The client library writes and reads messages by itself: what a process loads for it is this
// library and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvid::library::wire {

// Of a struct: words of plain fields, then pointers.
struct Size {
  std::uint16_t data;
  std::uint16_t pointers;
};

// A field in the data section: its first bit. The type says how many.
template <class T>
struct Field {
  std::size_t bit;
};
// A field that is a pointer: its place among those.
struct Pointer {
  std::size_t index;
};

using Tag = Field<std::uint16_t>;

namespace rpc {

struct Message {
  static constexpr Size size{1, 1};
  static constexpr Tag which{0};
  static constexpr Pointer content{0};
  enum Which : std::uint16_t {
    unimplemented = 0,
    abort = 1,
    call = 2,
    return_ = 3,
    finish = 4,
    release = 6,
    bootstrap = 8,
    disembargo = 13
  };
};

struct Bootstrap {
  static constexpr Size size{1, 1};
  static constexpr Field<std::uint32_t> questionId{0};
};

struct Call {
  static constexpr Size size{3, 3};
  static constexpr Field<std::uint32_t> questionId{0};
  static constexpr Field<std::uint16_t> methodId{32};
  static constexpr Field<std::uint64_t> interfaceId{64};
  static constexpr Pointer target{0};
  static constexpr Pointer params{1};
};

struct Return {
  static constexpr Size size{2, 1};
  static constexpr Field<std::uint32_t> answerId{0};
  static constexpr Field<bool> keepParamCaps{32};  // on the wire its default, true, is 0
  static constexpr Tag which{48};
  static constexpr Pointer results{0};
  static constexpr Pointer exception{0};
  enum Which : std::uint16_t { isResults = 0, isException = 1 };
};

struct Finish {
  static constexpr Size size{1, 0};
  static constexpr Field<std::uint32_t> questionId{0};
  static constexpr Field<bool> keepResultCaps{32};  // as keepParamCaps
};

struct Release {
  static constexpr Size size{1, 0};
  static constexpr Field<std::uint32_t> id{0};
  static constexpr Field<std::uint32_t> referenceCount{32};
};

struct MessageTarget {
  static constexpr Size size{1, 1};
  static constexpr Tag which{32};
  static constexpr Field<std::uint32_t> importedCap{0};
  static constexpr Pointer promisedAnswer{0};
  enum Which : std::uint16_t { isImportedCap = 0, isPromisedAnswer = 1 };
};

struct PromisedAnswer {
  static constexpr Size size{1, 1};
  static constexpr Field<std::uint32_t> questionId{0};
};

struct Payload {
  static constexpr Size size{0, 2};
  static constexpr Pointer content{0};
  static constexpr Pointer capTable{1};
};

struct CapDescriptor {
  static constexpr Size size{1, 1};
  static constexpr Tag which{0};
  static constexpr Field<std::uint32_t> senderHosted{32};
  static constexpr Field<std::uint8_t> attachedFd{16};
  static constexpr std::uint8_t noFd = 0xff;  // the default, which is 0 on the wire
  enum Which : std::uint16_t { isNone = 0, isSenderHosted = 1 };
};

struct Exception {
  static constexpr Size size{1, 2};
  static constexpr Field<std::uint16_t> type{32};
  static constexpr Pointer reason{0};
  enum Type : std::uint16_t { failed = 0, disconnected = 2, unimplemented = 3 };
};

}  // namespace rpc

struct PropertyValue {
  static constexpr Size size{2, 2};
  static constexpr Tag which{0};
  static constexpr Field<std::int64_t> int64{64};
  static constexpr Field<bool> boolean{64};
  static constexpr Field<double> float64{64};
  static constexpr Field<double> date{64};
  static constexpr Pointer content{0};  // text, data, list or dictionary
  static constexpr Pointer key{1};
  enum Which : std::uint16_t {
    isAbsent = 0,
    isInt64 = 1,
    isBoolean = 2,
    isFloat64 = 3,
    isDate = 4,
    isText = 5,
    isData = 6,
    isList = 7,
    isDictionary = 8
  };
};

struct Message {
  static constexpr Size size{1, 1};
  static constexpr Field<bool> replyWanted{0};
  static constexpr Field<bool> reasonWanted{1};
  static constexpr Field<std::uint16_t> category{16};
  static constexpr Field<std::uint16_t> type{32};
  static constexpr Tag which{48};
  static constexpr Pointer content{0};  // payload or dictionary
  enum Which : std::uint16_t { isEvent = 0, isDictionary = 1 };
};

struct TextResult {
  static constexpr Tag which{0};
  static constexpr Field<bool> isReasoned{16};
  static constexpr Pointer content{0};  // text or dropped
  enum Which : std::uint16_t { isUnanswered = 0, isNone = 1, isText = 2, isDropped = 3 };
};

struct Dropped {
  static constexpr Pointer reason{0};
  static constexpr Pointer text{1};
};

struct BackendReport {
  static constexpr Pointer name{0};
  static constexpr Pointer state{1};
  static constexpr Pointer reason{2};
};

struct StatesReport {
  static constexpr Pointer states{0};
  static constexpr Pointer reason{1};
  static constexpr Pointer backends{2};
};

struct StatesAnswer {
  static constexpr Field<bool> answered{0};
  static constexpr Tag which{16};
  static constexpr Pointer content{0};  // states or report
  enum Which : std::uint16_t { isStates = 0, isReport = 1 };
};

struct Error {
  static constexpr Field<std::int64_t> code{0};
  static constexpr Pointer domain{0};
  static constexpr Pointer description{1};
};

struct Delivery {
  static constexpr Field<double> timestamp{0};
  static constexpr Field<std::uint16_t> category{64};
  static constexpr Field<std::uint16_t> type{80};
  static constexpr Pointer message{0};
  static constexpr Pointer payload{1};
};

struct FileGrant {
  static constexpr std::uint64_t id = 0xf0f9077717f76f1a;
  enum Method : std::uint16_t { remove = 0 };
};

// Parameters (P) and results (R) of the calls.
struct ClientSession {
  static constexpr std::uint64_t id = 0xb5b2c374525bcc3c;
  struct SetSessionInfoP {
    static constexpr std::uint16_t method = 0;
    static constexpr Size size{1, 3};
    static constexpr Field<bool> hasAggregationBlock{0};
    static constexpr Field<bool> changesWanted{1};
    static constexpr Pointer sessionInfo{0};
    static constexpr Pointer userInfo{1};
    static constexpr Pointer frameworksToCheck{2};
  };
  struct StartConfigP {
    static constexpr std::uint16_t method = 1;
    static constexpr Size size{1, 0};
    static constexpr Field<bool> replyWanted{0};
    static constexpr Field<bool> reportWanted{1};
  };
  struct FetchStatesP {
    static constexpr std::uint16_t method = 2;
    static constexpr Size size{1, 1};
    static constexpr Field<bool> replyWanted{0};
    static constexpr Field<bool> reportWanted{1};
    static constexpr Pointer userInfo{0};
  };
  struct FetchDisplayURLP {
    static constexpr std::uint16_t method = 3;
    static constexpr Size size{1, 0};
    static constexpr Field<bool> replyWanted{0};
  };
  struct SendMessagesP {
    static constexpr std::uint16_t method = 4;
    static constexpr Size size{0, 1};
    static constexpr Pointer messages{0};
  };
  struct FlushP {
    static constexpr std::uint16_t method = 5;
    static constexpr Size size{1, 0};
    static constexpr Field<bool> replyWanted{0};
  };
  struct FinishP {
    static constexpr std::uint16_t method = 6;
    static constexpr Size size{1, 0};
    static constexpr Field<bool> replyWanted{0};
    static constexpr Field<bool> reasonWanted{1};
  };
  struct UploadFileP {
    static constexpr std::uint16_t method = 7;
    static constexpr Size size{1, 3};
    static constexpr Field<bool> replyWanted{0};
    static constexpr Pointer fileURL{0};
    static constexpr Pointer file{2};
  };
  struct UploadLogDataP {
    static constexpr std::uint16_t method = 8;
    static constexpr Size size{1, 1};
    static constexpr Field<bool> replyWanted{0};
    static constexpr Pointer logData{0};
  };
  struct SendSingleMessageP {
    static constexpr std::uint16_t method = 9;
    static constexpr Size size{1, 3};
    static constexpr Field<bool> replyWanted{0};
    static constexpr Field<bool> reasonWanted{1};
    static constexpr Field<std::uint16_t> category{16};
    static constexpr Field<std::uint16_t> type{32};
    static constexpr Pointer sessionInfo{0};
    static constexpr Pointer userInfo{1};
    static constexpr Pointer payload{2};
  };

  struct SendMessagesR {
    static constexpr Pointer results{0};
  };
  // Of the calls that answer with a text, a display URL among them.
  struct TextR {
    static constexpr Pointer result{0};
  };
  struct FlushR {
    static constexpr Pointer result{0};
    static constexpr Pointer error{1};
  };
  // Of both uploads; that of a file has no error.
  struct UploadR {
    static constexpr Field<bool> answered{0};
    static constexpr Field<bool> success{1};
    static constexpr Pointer error{0};
  };
};

struct ClientSessionReply {
  static constexpr std::uint64_t id = 0xb57074ff746a115f;
  struct SendMessagesToClientP {
    static constexpr std::uint16_t method = 0;
    static constexpr Pointer deliveries{0};
  };
  struct StatesChangedP {
    static constexpr std::uint16_t method = 1;
    static constexpr Pointer report{0};
  };
};

}  // namespace corvid::library::wire
