// A provider of OpenSSL that knows the scheme "corvid-test": what follows it is the path of a
// private key in DER form. So tests can sign with a key of a provider, as those of hardware are.
#include <openssl/core.h>
#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/core_object.h>
#include <openssl/params.h>

#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace {

struct Loader {
  std::string path;
  bool isDone = false;
};

void* openURI(void*, const char* uri) {
  const std::string_view text(uri);
  return new Loader{.path = std::string(text.substr(text.find(':') + 1))};
}

int load(void* context, OSSL_CALLBACK* take, void* argument, OSSL_PASSPHRASE_CALLBACK*, void*) {
  auto& loader = *static_cast<Loader*>(context);
  loader.isDone = true;
  std::ifstream file(loader.path, std::ios::binary);
  std::string der((std::istreambuf_iterator<char>(file)), {});
  if (der.empty()) return 0;
  int type = OSSL_OBJECT_PKEY;
  char kind[] = "RSA";
  char structure[] = "PrivateKeyInfo";
  const OSSL_PARAM object[] = {
      OSSL_PARAM_construct_int(OSSL_OBJECT_PARAM_TYPE, &type),
      OSSL_PARAM_construct_utf8_string(OSSL_OBJECT_PARAM_DATA_TYPE, kind, 0),
      OSSL_PARAM_construct_utf8_string(OSSL_OBJECT_PARAM_DATA_STRUCTURE, structure, 0),
      OSSL_PARAM_construct_octet_string(OSSL_OBJECT_PARAM_DATA, der.data(), der.size()),
      OSSL_PARAM_construct_end()};
  return take(object, argument);
}

int isAtEnd(void* context) { return static_cast<Loader*>(context)->isDone ? 1 : 0; }

int closeURI(void* context) {
  delete static_cast<Loader*>(context);
  return 1;
}

template <class Function>
OSSL_DISPATCH entry(int number, Function* function) {
  return {number, reinterpret_cast<void (*)()>(function)};
}

const OSSL_DISPATCH storeFunctions[] = {entry(OSSL_FUNC_STORE_OPEN, openURI),
                                        entry(OSSL_FUNC_STORE_LOAD, load),
                                        entry(OSSL_FUNC_STORE_EOF, isAtEnd),
                                        entry(OSSL_FUNC_STORE_CLOSE, closeURI),
                                        {0, nullptr}};
const OSSL_ALGORITHM stores[] = {
    {"corvid-test", "provider=corvid-test", storeFunctions, "Private keys in files"},
    {nullptr, nullptr, nullptr, nullptr}};

const OSSL_ALGORITHM* query(void*, int operation, int* mayNotBeKept) {
  *mayNotBeKept = 0;
  return operation == OSSL_OP_STORE ? stores : nullptr;
}

const OSSL_DISPATCH providerFunctions[] = {entry(OSSL_FUNC_PROVIDER_QUERY_OPERATION, query),
                                           {0, nullptr}};

}  // namespace

extern "C" int OSSL_provider_init(const OSSL_CORE_HANDLE*, const OSSL_DISPATCH*,
                                  const OSSL_DISPATCH** out, void** context) {
  static int nothing = 0;
  *out = providerFunctions;
  *context = &nothing;
  return 1;
}
