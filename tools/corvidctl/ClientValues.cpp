#include "tools/corvidctl/ClientValues.h"

#include <new>
#include <stdexcept>
#include <string>

namespace corvid::ctl {

namespace {

void check(int result) {
  if (result != CORVID_OK) throw std::runtime_error(corvid_error_text(result));
}

template <class T>
T* notNull(T* made) {
  if (made == nullptr) throw std::bad_alloc();
  return made;
}

void set(corvid_dictionary_t* target, const std::string& key, const Value& value) {
  const char* name = key.c_str();
  // The library would take what stands before it for the key.
  if (key.find('\0') != std::string::npos) throw std::runtime_error("a key has a zero byte");
  switch (value.type()) {
    case Value::Type::null: return check(corvid_dictionary_set_null(target, name));
    case Value::Type::boolean:
      return check(corvid_dictionary_set_boolean(target, name, *value.boolean()));
    case Value::Type::integer:
      return check(corvid_dictionary_set_integer(target, name, *value.integer()));
    case Value::Type::real: return check(corvid_dictionary_set_real(target, name, *value.real()));
    case Value::Type::date:
      return check(corvid_dictionary_set_date(target, name, value.date()->secondsSince1970));
    case Value::Type::string:
      return check(
          corvid_dictionary_set_text(target, name, value.string()->data(), value.string()->size()));
    case Value::Type::data:
      return check(
          corvid_dictionary_set_data(target, name, value.data()->data(), value.data()->size()));
    case Value::Type::array:
      return check(corvid_dictionary_set_array(target, name, clientArray(*value.array()).get()));
    case Value::Type::dictionary:
      return check(corvid_dictionary_set_dictionary(target, name,
                                                    clientDictionary(*value.dictionary()).get()));
  }
}

void append(corvid_array_t* target, const Value& value) {
  // The library's arrays take values of dictionaries, so one switch over types is enough.
  const ClientDictionary holder(notNull(corvid_dictionary_create()));
  set(holder.get(), "value", value);
  check(corvid_array_append_value(target, corvid_dictionary_get(holder.get(), "value")));
}

Value valueFrom(const corvid_value_t* value) {
  std::size_t length = 0;
  switch (corvid_value_type(value)) {
    case CORVID_TYPE_NULL: return {};
    case CORVID_TYPE_BOOLEAN: {
      bool boolean = false;
      check(corvid_value_get_boolean(value, &boolean));
      return boolean;
    }
    case CORVID_TYPE_INTEGER: {
      std::int64_t integer = 0;
      check(corvid_value_get_integer(value, &integer));
      return integer;
    }
    case CORVID_TYPE_REAL: {
      double real = 0;
      check(corvid_value_get_real(value, &real));
      return real;
    }
    case CORVID_TYPE_DATE: {
      Date date;
      check(corvid_value_get_date(value, &date.secondsSince1970));
      return date;
    }
    case CORVID_TYPE_STRING: {
      const char* text = corvid_value_string(value, &length);
      return std::string(text, length);
    }
    case CORVID_TYPE_DATA: {
      const void* bytes = corvid_value_data(value, &length);
      return Data{std::string(static_cast<const char*>(bytes), length)};
    }
    case CORVID_TYPE_ARRAY: return arrayFrom(corvid_value_array(value));
    case CORVID_TYPE_DICTIONARY: return dictionaryFrom(corvid_value_dictionary(value));
  }
  return {};
}

}  // namespace

ClientDictionary clientDictionary(const Dictionary& dictionary) {
  ClientDictionary result(notNull(corvid_dictionary_create()));
  for (const auto& [key, value] : dictionary) set(result.get(), key, value);
  return result;
}

ClientArray clientArray(const Array& array) {
  ClientArray result(notNull(corvid_array_create()));
  for (const Value& value : array) append(result.get(), value);
  return result;
}

Dictionary dictionaryFrom(const corvid_dictionary_t* dictionary) {
  Dictionary result;
  const char* key = nullptr;
  std::size_t length = 0;
  for (std::size_t i = 0; const auto* value = corvid_dictionary_entry(dictionary, i, &key, &length);
       ++i)
    result.set(std::string(key, length), valueFrom(value));
  return result;
}

Array arrayFrom(const corvid_array_t* array) {
  Array result;
  for (std::size_t i = 0; i < corvid_array_count(array); ++i)
    result.push_back(valueFrom(corvid_array_get(array, i)));
  return result;
}

}  // namespace corvid::ctl
