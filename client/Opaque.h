// The C types of values are the C++ ones behind a name: a pointer to one is a pointer to the other.
#pragma once

#include "base/Value.h"
#include "client/include/corvid/corvid.h"

namespace corvid::library {

inline Dictionary& inside(corvid_dictionary_t* d) { return *reinterpret_cast<Dictionary*>(d); }
inline const Dictionary& inside(const corvid_dictionary_t* d) {
  return *reinterpret_cast<const Dictionary*>(d);
}
inline Array& inside(corvid_array_t* a) { return *reinterpret_cast<Array*>(a); }
inline const Array& inside(const corvid_array_t* a) { return *reinterpret_cast<const Array*>(a); }
inline const Value& inside(const corvid_value_t* v) { return *reinterpret_cast<const Value*>(v); }

inline corvid_dictionary_t* outside(Dictionary* d) {
  return reinterpret_cast<corvid_dictionary_t*>(d);
}
inline const corvid_dictionary_t* outside(const Dictionary* d) {
  return reinterpret_cast<const corvid_dictionary_t*>(d);
}
inline corvid_array_t* outside(Array* a) { return reinterpret_cast<corvid_array_t*>(a); }
inline const corvid_array_t* outside(const Array* a) {
  return reinterpret_cast<const corvid_array_t*>(a);
}
inline const corvid_value_t* outside(const Value* v) {
  return reinterpret_cast<const corvid_value_t*>(v);
}

// Runs the body of a function of the library; nothing is thrown into a host written in C.
template <class Body>
int guarded(Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return CORVID_ERROR_NO_MEMORY;
  } catch (...) {
    return CORVID_ERROR_SYSTEM;
  }
}

}  // namespace corvid::library
