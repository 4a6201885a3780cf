// Values of the client library's C interface, from and to the tool's own.
#pragma once

#include <corvid/corvid.h>

#include <memory>

#include "base/Value.h"

namespace corvid::ctl {

struct DestroyClientValue {
  void operator()(corvid_dictionary_t* dictionary) const { corvid_dictionary_destroy(dictionary); }
  void operator()(corvid_array_t* array) const { corvid_array_destroy(array); }
};
using ClientDictionary = std::unique_ptr<corvid_dictionary_t, DestroyClientValue>;
using ClientArray = std::unique_ptr<corvid_array_t, DestroyClientValue>;

// What the library refuses (a text that is not UTF-8, say) is a std::runtime_error with its reason.
ClientDictionary clientDictionary(const Dictionary& dictionary);
ClientArray clientArray(const Array& array);

Dictionary dictionaryFrom(const corvid_dictionary_t* dictionary);
Array arrayFrom(const corvid_array_t* array);

}  // namespace corvid::ctl
