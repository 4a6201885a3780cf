// libcorvid for C++17 and later: owners and std::function callbacks over corvid.h, whose contract
// holds here too. Header only; nothing throws but std::bad_alloc.
#ifndef CORVID_CORVID_HPP
#define CORVID_CORVID_HPP

#include <corvid/corvid.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace corvid::client {

// A result code.
class [[nodiscard]] Status {
 public:
  constexpr Status(int code) : _code(code) {}
  constexpr int code() const { return _code; }
  constexpr explicit operator bool() const { return _code == CORVID_OK; }
  const char* text() const { return corvid_error_text(_code); }
  constexpr bool operator==(Status other) const { return _code == other._code; }

 private:
  int _code;
};

class ArrayView;
class DictionaryView;

// A value inside an array or a dictionary that somebody else owns; or none.
class ValueView {
 public:
  explicit ValueView(const corvid_value_t* value) : _value(value) {}

  explicit operator bool() const { return _value != nullptr; }
  const corvid_value_t* get() const { return _value; }
  corvid_type_t type() const { return corvid_value_type(_value); }
  // Nothing where the value is of another type.
  std::optional<bool> boolean() const { return read<bool>(corvid_value_get_boolean); }
  std::optional<std::int64_t> integer() const {
    return read<std::int64_t>(corvid_value_get_integer);
  }
  std::optional<double> real() const { return read<double>(corvid_value_get_real); }
  // Seconds since 1970-01-01 00:00 UTC.
  std::optional<double> date() const { return read<double>(corvid_value_get_date); }
  std::optional<std::string_view> string() const {
    std::size_t length = 0;
    const char* text = corvid_value_string(_value, &length);
    return text ? std::optional(std::string_view(text, length)) : std::nullopt;
  }
  std::optional<std::string_view> data() const {
    std::size_t length = 0;
    const auto* bytes = static_cast<const char*>(corvid_value_data(_value, &length));
    return bytes ? std::optional(std::string_view(bytes, length)) : std::nullopt;
  }
  inline ArrayView array() const;
  inline DictionaryView dictionary() const;

 private:
  template <class T>
  std::optional<T> read(int (*function)(const corvid_value_t*, T*)) const {
    T result{};
    return function(_value, &result) == CORVID_OK ? std::optional(result) : std::nullopt;
  }

  const corvid_value_t* _value;
};

// An array that somebody else owns; or none.
class ArrayView {
 public:
  explicit ArrayView(const corvid_array_t* array) : _array(array) {}
  explicit operator bool() const { return _array != nullptr; }
  const corvid_array_t* get() const { return _array; }
  std::size_t size() const { return corvid_array_count(_array); }
  ValueView operator[](std::size_t index) const {
    return ValueView(corvid_array_get(_array, index));
  }

 private:
  const corvid_array_t* _array;
};

// A dictionary that somebody else owns; or none.
class DictionaryView {
 public:
  struct Entry {
    std::string_view key;
    ValueView value;
  };

  explicit DictionaryView(const corvid_dictionary_t* dictionary) : _dictionary(dictionary) {}
  explicit operator bool() const { return _dictionary != nullptr; }
  const corvid_dictionary_t* get() const { return _dictionary; }
  std::size_t size() const { return corvid_dictionary_count(_dictionary); }
  ValueView operator[](const char* key) const {
    return ValueView(corvid_dictionary_get(_dictionary, key));
  }
  Entry entry(std::size_t index) const {
    const char* key = nullptr;
    std::size_t length = 0;
    const ValueView value(corvid_dictionary_entry(_dictionary, index, &key, &length));
    return {std::string_view(key, length), value};
  }

 private:
  const corvid_dictionary_t* _dictionary;
};

ArrayView ValueView::array() const { return ArrayView(corvid_value_array(_value)); }
DictionaryView ValueView::dictionary() const {
  return DictionaryView(corvid_value_dictionary(_value));
}

// Kinds of value that C++ types do not tell apart.
struct Data {
  std::string_view bytes;
};
struct Date {
  double secondsSince1970;
};

// Owners of objects of the C interface.
template <class T, void (*destroy)(T*)>
struct Destroy {
  void operator()(T* object) const { destroy(object); }
};
template <class T, void (*destroy)(T*)>
using Owner = std::unique_ptr<T, Destroy<T, destroy>>;

class Array {
 public:
  Array() : Array(corvid_array_create()) {}
  explicit Array(ArrayView other) : Array(corvid_array_copy(other.get())) {}
  Array(const Array& other) : Array(ArrayView(other)) {}
  Array(Array&&) noexcept = default;
  Array& operator=(Array other) noexcept {
    _array.swap(other._array);
    return *this;
  }

  operator ArrayView() const { return ArrayView(_array.get()); }
  const corvid_array_t* get() const { return _array.get(); }
  std::size_t size() const { return corvid_array_count(_array.get()); }
  ValueView operator[](std::size_t index) const { return ArrayView(*this)[index]; }

  Status append(std::nullptr_t) { return corvid_array_append_null(_array.get()); }
  Status append(bool value) { return corvid_array_append_boolean(_array.get(), value); }
  Status append(int value) { return append(std::int64_t{value}); }
  Status append(std::int64_t value) { return corvid_array_append_integer(_array.get(), value); }
  Status append(double value) { return corvid_array_append_real(_array.get(), value); }
  Status append(Date value) {
    return corvid_array_append_date(_array.get(), value.secondsSince1970);
  }
  Status append(const char* value) { return append(std::string_view(value)); }
  Status append(std::string_view value) {
    return corvid_array_append_text(_array.get(), value.data(), value.size());
  }
  Status append(Data value) {
    return corvid_array_append_data(_array.get(), value.bytes.data(), value.bytes.size());
  }
  Status append(ArrayView value) { return corvid_array_append_array(_array.get(), value.get()); }
  Status append(DictionaryView value) {
    return corvid_array_append_dictionary(_array.get(), value.get());
  }
  Status append(ValueView value) { return corvid_array_append_value(_array.get(), value.get()); }

 private:
  explicit Array(corvid_array_t* array) : _array(array) {
    if (!_array) throw std::bad_alloc();
  }
  Owner<corvid_array_t, corvid_array_destroy> _array;
};

class Dictionary {
 public:
  Dictionary() : Dictionary(corvid_dictionary_create()) {}
  explicit Dictionary(DictionaryView other) : Dictionary(corvid_dictionary_copy(other.get())) {}
  Dictionary(const Dictionary& other) : Dictionary(DictionaryView(other)) {}
  Dictionary(Dictionary&&) noexcept = default;
  Dictionary& operator=(Dictionary other) noexcept {
    _dictionary.swap(other._dictionary);
    return *this;
  }

  operator DictionaryView() const { return DictionaryView(_dictionary.get()); }
  const corvid_dictionary_t* get() const { return _dictionary.get(); }
  std::size_t size() const { return corvid_dictionary_count(_dictionary.get()); }
  ValueView operator[](const char* key) const { return DictionaryView(*this)[key]; }

  Status set(const char* key, std::nullptr_t) {
    return corvid_dictionary_set_null(_dictionary.get(), key);
  }
  Status set(const char* key, bool value) {
    return corvid_dictionary_set_boolean(_dictionary.get(), key, value);
  }
  Status set(const char* key, int value) { return set(key, std::int64_t{value}); }
  Status set(const char* key, std::int64_t value) {
    return corvid_dictionary_set_integer(_dictionary.get(), key, value);
  }
  Status set(const char* key, double value) {
    return corvid_dictionary_set_real(_dictionary.get(), key, value);
  }
  Status set(const char* key, Date value) {
    return corvid_dictionary_set_date(_dictionary.get(), key, value.secondsSince1970);
  }
  Status set(const char* key, const char* value) { return set(key, std::string_view(value)); }
  Status set(const char* key, std::string_view value) {
    return corvid_dictionary_set_text(_dictionary.get(), key, value.data(), value.size());
  }
  Status set(const char* key, Data value) {
    return corvid_dictionary_set_data(_dictionary.get(), key, value.bytes.data(),
                                      value.bytes.size());
  }
  Status set(const char* key, ArrayView value) {
    return corvid_dictionary_set_array(_dictionary.get(), key, value.get());
  }
  Status set(const char* key, DictionaryView value) {
    return corvid_dictionary_set_dictionary(_dictionary.get(), key, value.get());
  }
  Status set(const char* key, ValueView value) {
    return corvid_dictionary_set_value(_dictionary.get(), key, value.get());
  }
  void remove(const char* key) { corvid_dictionary_remove(_dictionary.get(), key); }

 private:
  explicit Dictionary(corvid_dictionary_t* dictionary) : _dictionary(dictionary) {
    if (!_dictionary) throw std::bad_alloc();
  }
  Owner<corvid_dictionary_t, corvid_dictionary_destroy> _dictionary;
};

// An error object of the daemon.
struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::string description;
};

// A session with the daemon. Callbacks run on the session's thread and must not throw.
class Session {
 public:
  using TextCallback = std::function<void(Status, std::optional<std::string> text)>;
  using StatesCallback = std::function<void(Status, std::optional<Array> states)>;
  using FlushCallback =
      std::function<void(Status, std::optional<std::string> text, std::optional<Error>)>;
  using SuccessCallback = std::function<void(Status, bool success, std::optional<Error>)>;
  // Told of the end of a call in every case, after its callback.
  using Finished = std::function<void(corvid_outcome_t)>;

  struct Options {
    // Empty: $CORVID_ROOT, or "/".
    std::string root;
    std::chrono::milliseconds deadline{CORVID_DEFAULT_DEADLINE_MS};
    std::function<void(DictionaryView message, double timestamp, std::uint16_t category,
                       std::uint16_t type, DictionaryView payload)>
        message;
    std::function<void()> invalidated;
    std::function<void()> reconnected;
  };

  // A session that could not be created refuses every call; status() says why.
  Session() : Session(Options()) {}
  explicit Session(Options options) {
    auto kept = std::make_unique<Options>(std::move(options));
    corvid_options_t c = CORVID_OPTIONS_INIT;
    if (!kept->root.empty()) c.root = kept->root.c_str();
    c.deadline_ms = static_cast<std::uint32_t>(kept->deadline.count());
    c.context = kept.get();
    if (kept->message) c.message = &Session::message;
    if (kept->invalidated) c.invalidated = [](void* o) { static_cast<Options*>(o)->invalidated(); };
    if (kept->reconnected) c.reconnected = [](void* o) { static_cast<Options*>(o)->reconnected(); };
    c.released = [](void* o) { delete static_cast<Options*>(o); };
    corvid_session_t* session = nullptr;
    _status = corvid_session_create(&c, &session);
    _session.reset(session);
    if (_status) static_cast<void>(kept.release());
  }

  Status status() const { return _status; }
  corvid_session_t* get() const { return _session.get(); }

  Status connect() { return corvid_session_connect(_session.get()); }

  Status setSessionInfo(DictionaryView sessionInfo, DictionaryView userInfo = none(),
                        ArrayView frameworks = ArrayView(nullptr), bool hasAggregationBlock = false,
                        Finished finished = nullptr) {
    return perform<TextCallback>(nullptr, std::move(finished), [&](auto, auto end, void* context) {
      return corvid_session_set_session_info(_session.get(), sessionInfo.get(), userInfo.get(),
                                             frameworks.get(), hasAggregationBlock, end, context);
    });
  }
  Status startConfig(StatesCallback callback = nullptr, Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_start_config);
  }
  Status fetchStates(DictionaryView userInfo, StatesCallback callback = nullptr,
                     Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_fetch_states,
                userInfo.get());
  }
  Status fetchDisplayURL(TextCallback callback, Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_fetch_display_url);
  }
  Status sendMessage(std::uint16_t category, std::uint16_t type, DictionaryView payload = none(),
                     TextCallback callback = nullptr, Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_send_message, category,
                type, payload.get());
  }
  Status sendMessage(DictionaryView message, TextCallback callback = nullptr,
                     Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished),
                corvid_session_send_message_with_dictionary, message.get());
  }
  Status flush(FlushCallback callback = nullptr, Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_flush);
  }
  Status finish(TextCallback callback = nullptr, Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_finish);
  }
  Status uploadFile(const std::string& path, SuccessCallback callback = nullptr,
                    Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_upload_file, path.c_str());
  }
  Status uploadLogData(ArrayView logData, SuccessCallback callback = nullptr,
                       Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_upload_log_data,
                logData.get());
  }
  Status sendSingleMessage(DictionaryView sessionInfo, DictionaryView userInfo,
                           std::uint16_t category, std::uint16_t type,
                           DictionaryView payload = none(), TextCallback callback = nullptr,
                           Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_send_single_message,
                sessionInfo.get(), userInfo.get(), category, type, payload.get());
  }

  static DictionaryView none() { return DictionaryView(nullptr); }

 private:
  template <class Callback>
  struct Pending {
    Callback callback;
    Finished finished;
  };

  static void message(void* options, const corvid_dictionary_t* message, double timestamp,
                      std::uint16_t category, std::uint16_t type,
                      const corvid_dictionary_t* payload) {
    static_cast<Options*>(options)->message(DictionaryView(message), timestamp, category, type,
                                            DictionaryView(payload));
  }
  static std::optional<Error> errorOf(const corvid_error_t* error) {
    if (error == nullptr) return std::nullopt;
    return Error{error->domain, error->code, error->description};
  }
  static std::optional<std::string> textOf(const char* text, std::size_t length) {
    if (text == nullptr) return std::nullopt;
    return std::string(text, length);
  }

  // The C callback that goes with each kind of std::function.
  static corvid_text_callback_t replyOf(const TextCallback&) {
    return [](void* context, int error, const char* text, std::size_t length) {
      static_cast<Pending<TextCallback>*>(context)->callback(error, textOf(text, length));
    };
  }
  static corvid_states_callback_t replyOf(const StatesCallback&) {
    return [](void* context, int error, const corvid_array_t* states) {
      std::optional<Array> copy;
      if (states != nullptr) copy.emplace(ArrayView(states));
      static_cast<Pending<StatesCallback>*>(context)->callback(error, std::move(copy));
    };
  }
  static corvid_flush_callback_t replyOf(const FlushCallback&) {
    return [](void* context, int error, const char* text, std::size_t length,
              const corvid_error_t* failure) {
      static_cast<Pending<FlushCallback>*>(context)->callback(error, textOf(text, length),
                                                              errorOf(failure));
    };
  }
  static corvid_success_callback_t replyOf(const SuccessCallback&) {
    return [](void* context, int error, bool success, const corvid_error_t* failure) {
      static_cast<Pending<SuccessCallback>*>(context)->callback(error, success, errorOf(failure));
    };
  }

  // Makes a call with a function that takes the session, `arguments`, and the callbacks.
  template <class Callback, class Function, class... Arguments>
  Status call(Callback callback, Finished finished, Function function, Arguments... arguments) {
    return perform(std::move(callback), std::move(finished),
                   [&](auto reply, auto end, void* context) {
                     return function(_session.get(), arguments..., reply, end, context);
                   });
  }
  template <class Callback, class Function>
  static Status perform(Callback callback, Finished finished, Function function) {
    auto pending = std::make_unique<Pending<Callback>>(
        Pending<Callback>{std::move(callback), std::move(finished)});
    auto reply = pending->callback ? replyOf(pending->callback) : nullptr;
    const corvid_finished_callback_t end = [](void* context, corvid_outcome_t outcome) {
      const std::unique_ptr<Pending<Callback>> owned(static_cast<Pending<Callback>*>(context));
      if (owned->finished) owned->finished(outcome);
    };
    const Status status = function(reply, end, pending.get());
    if (status) static_cast<void>(pending.release());
    return status;
  }

  Status _status = CORVID_OK;
  Owner<corvid_session_t, corvid_session_destroy> _session;
};

}  // namespace corvid::client

#endif  // CORVID_CORVID_HPP
