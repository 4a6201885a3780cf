// Dictionaries, arrays and values for C.
#include <cmath>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "base/Text.h"
#include "client/Opaque.h"

namespace {

using corvid::Array;
using corvid::Data;
using corvid::Date;
using corvid::Dictionary;
using corvid::Value;
using corvid::library::guarded;
using corvid::library::inside;
using corvid::library::outside;

int put(corvid_dictionary_t* dictionary, const char* key, Value value) {
  if (!corvid::isValidUTF8(key)) return CORVID_ERROR_INVALID_TEXT;
  inside(dictionary).set(key, std::move(value));
  return CORVID_OK;
}

int put(corvid_array_t* array, const char*, Value value) {
  inside(array).push_back(std::move(value));
  return CORVID_OK;
}

// Arrays have no keys.
constexpr const char* noKey = "";

// Puts what `make` gives into a container.
template <class Container, class Make>
int add(Container* container, const char* key, Make make) {
  if (container == nullptr || key == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  return guarded([&] { return put(container, key, make()); });
}

template <class Container>
int addDate(Container* container, const char* key, double seconds) {
  if (!std::isfinite(seconds)) return CORVID_ERROR_INVALID_ARGUMENT;
  return add(container, key, [&] { return Value(Date{seconds}); });
}

template <class Container>
int addText(Container* container, const char* key, const char* text, std::size_t length) {
  if (text == nullptr && length > 0) return CORVID_ERROR_INVALID_ARGUMENT;
  const std::string_view content(text, length);
  if (!corvid::isValidUTF8(content)) return CORVID_ERROR_INVALID_TEXT;
  return add(container, key, [&] { return Value(content); });
}

template <class Container>
int addString(Container* container, const char* key, const char* text) {
  if (text == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  return addText(container, key, text, std::strlen(text));
}

template <class Container>
int addData(Container* container, const char* key, const void* bytes, std::size_t length) {
  if (bytes == nullptr && length > 0) return CORVID_ERROR_INVALID_ARGUMENT;
  return add(container, key,
             [&] { return Value(Data{std::string(static_cast<const char*>(bytes), length)}); });
}

template <class Container, class Content>
int addCopy(Container* container, const char* key, const Content* content) {
  if (content == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  return add(container, key, [&] { return Value(inside(content)); });
}

// Null where there is no memory.
template <class Container>
Container* copyOf(const Container* original) {
  Container* copy = nullptr;
  if (original != nullptr)
    guarded([&] { return copy = outside(new auto(inside(original))), CORVID_OK; });
  return copy;
}

template <class Container>
void destroy(Container* container) {
  if (container != nullptr) delete &inside(container);
}

template <class Wanted, class Result>
int get(const std::optional<Wanted>& content, Result* result) {
  if (result == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  if (!content) return CORVID_ERROR_WRONG_TYPE;
  *result = *content;
  return CORVID_OK;
}

const char* content(const std::string* text, std::size_t* length) {
  if (length != nullptr) *length = text ? text->size() : 0;
  return text ? text->c_str() : nullptr;
}

const Value absent;
const Value& orAbsent(const corvid_value_t* value) { return value ? inside(value) : absent; }

}  // namespace

corvid_dictionary_t* corvid_dictionary_create() { return outside(new (std::nothrow) Dictionary()); }

corvid_dictionary_t* corvid_dictionary_copy(const corvid_dictionary_t* dictionary) {
  return copyOf(dictionary);
}
void corvid_dictionary_destroy(corvid_dictionary_t* dictionary) { destroy(dictionary); }

int corvid_dictionary_set_null(corvid_dictionary_t* dictionary, const char* key) {
  return add(dictionary, key, [] { return Value(); });
}
int corvid_dictionary_set_boolean(corvid_dictionary_t* dictionary, const char* key, bool value) {
  return add(dictionary, key, [&] { return Value(value); });
}
int corvid_dictionary_set_integer(corvid_dictionary_t* dictionary, const char* key, int64_t value) {
  return add(dictionary, key, [&] { return Value(value); });
}
int corvid_dictionary_set_real(corvid_dictionary_t* dictionary, const char* key, double value) {
  return add(dictionary, key, [&] { return Value(value); });
}
int corvid_dictionary_set_date(corvid_dictionary_t* dictionary, const char* key, double seconds) {
  return addDate(dictionary, key, seconds);
}
int corvid_dictionary_set_string(corvid_dictionary_t* dictionary, const char* key,
                                 const char* text) {
  return addString(dictionary, key, text);
}
int corvid_dictionary_set_text(corvid_dictionary_t* dictionary, const char* key, const char* text,
                               size_t length) {
  return addText(dictionary, key, text, length);
}
int corvid_dictionary_set_data(corvid_dictionary_t* dictionary, const char* key, const void* bytes,
                               size_t length) {
  return addData(dictionary, key, bytes, length);
}
int corvid_dictionary_set_array(corvid_dictionary_t* dictionary, const char* key,
                                const corvid_array_t* value) {
  return addCopy(dictionary, key, value);
}
int corvid_dictionary_set_dictionary(corvid_dictionary_t* dictionary, const char* key,
                                     const corvid_dictionary_t* value) {
  return addCopy(dictionary, key, value);
}
int corvid_dictionary_set_value(corvid_dictionary_t* dictionary, const char* key,
                                const corvid_value_t* value) {
  return addCopy(dictionary, key, value);
}

void corvid_dictionary_remove(corvid_dictionary_t* dictionary, const char* key) {
  if (dictionary != nullptr && key != nullptr)
    guarded([&] { return inside(dictionary).erase(key), CORVID_OK; });
}

size_t corvid_dictionary_count(const corvid_dictionary_t* dictionary) {
  return dictionary != nullptr ? inside(dictionary).size() : 0;
}

const corvid_value_t* corvid_dictionary_get(const corvid_dictionary_t* dictionary,
                                            const char* key) {
  if (dictionary == nullptr || key == nullptr) return nullptr;
  return outside(inside(dictionary).find(key));
}

const corvid_value_t* corvid_dictionary_entry(const corvid_dictionary_t* dictionary, size_t index,
                                              const char** key, size_t* key_length) {
  if (index >= corvid_dictionary_count(dictionary)) return nullptr;
  const Dictionary::Entry& entry =
      *(inside(dictionary).begin() + static_cast<std::ptrdiff_t>(index));
  if (key != nullptr) *key = entry.key.c_str();
  if (key_length != nullptr) *key_length = entry.key.size();
  return outside(&entry.value);
}

corvid_array_t* corvid_array_create() { return outside(new (std::nothrow) Array()); }

corvid_array_t* corvid_array_copy(const corvid_array_t* array) { return copyOf(array); }
void corvid_array_destroy(corvid_array_t* array) { destroy(array); }

int corvid_array_append_null(corvid_array_t* array) {
  return add(array, noKey, [] { return Value(); });
}
int corvid_array_append_boolean(corvid_array_t* array, bool value) {
  return add(array, noKey, [&] { return Value(value); });
}
int corvid_array_append_integer(corvid_array_t* array, int64_t value) {
  return add(array, noKey, [&] { return Value(value); });
}
int corvid_array_append_real(corvid_array_t* array, double value) {
  return add(array, noKey, [&] { return Value(value); });
}
int corvid_array_append_date(corvid_array_t* array, double seconds) {
  return addDate(array, noKey, seconds);
}
int corvid_array_append_string(corvid_array_t* array, const char* text) {
  return addString(array, noKey, text);
}
int corvid_array_append_text(corvid_array_t* array, const char* text, size_t length) {
  return addText(array, noKey, text, length);
}
int corvid_array_append_data(corvid_array_t* array, const void* bytes, size_t length) {
  return addData(array, noKey, bytes, length);
}
int corvid_array_append_array(corvid_array_t* array, const corvid_array_t* value) {
  return addCopy(array, noKey, value);
}
int corvid_array_append_dictionary(corvid_array_t* array, const corvid_dictionary_t* value) {
  return addCopy(array, noKey, value);
}
int corvid_array_append_value(corvid_array_t* array, const corvid_value_t* value) {
  return addCopy(array, noKey, value);
}

size_t corvid_array_count(const corvid_array_t* array) {
  return array != nullptr ? inside(array).size() : 0;
}

const corvid_value_t* corvid_array_get(const corvid_array_t* array, size_t index) {
  return index < corvid_array_count(array) ? outside(&inside(array)[index]) : nullptr;
}

corvid_type_t corvid_value_type(const corvid_value_t* value) {
  switch (orAbsent(value).type()) {
    case Value::Type::null: return CORVID_TYPE_NULL;
    case Value::Type::boolean: return CORVID_TYPE_BOOLEAN;
    case Value::Type::integer: return CORVID_TYPE_INTEGER;
    case Value::Type::real: return CORVID_TYPE_REAL;
    case Value::Type::date: return CORVID_TYPE_DATE;
    case Value::Type::string: return CORVID_TYPE_STRING;
    case Value::Type::data: return CORVID_TYPE_DATA;
    case Value::Type::array: return CORVID_TYPE_ARRAY;
    case Value::Type::dictionary: return CORVID_TYPE_DICTIONARY;
  }
  return CORVID_TYPE_NULL;
}

int corvid_value_get_boolean(const corvid_value_t* value, bool* result) {
  return get(orAbsent(value).boolean(), result);
}
int corvid_value_get_integer(const corvid_value_t* value, int64_t* result) {
  return get(orAbsent(value).integer(), result);
}
int corvid_value_get_real(const corvid_value_t* value, double* result) {
  return get(orAbsent(value).real(), result);
}
int corvid_value_get_date(const corvid_value_t* value, double* seconds) {
  const std::optional<Date> date = orAbsent(value).date();
  return get(date ? std::optional(date->secondsSince1970) : std::nullopt, seconds);
}
const char* corvid_value_string(const corvid_value_t* value, size_t* length) {
  return content(orAbsent(value).string(), length);
}
const void* corvid_value_data(const corvid_value_t* value, size_t* length) {
  return content(orAbsent(value).data(), length);
}
const corvid_array_t* corvid_value_array(const corvid_value_t* value) {
  return outside(orAbsent(value).array());
}
const corvid_dictionary_t* corvid_value_dictionary(const corvid_value_t* value) {
  return outside(orAbsent(value).dictionary());
}
