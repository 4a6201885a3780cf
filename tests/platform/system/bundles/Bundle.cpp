// One bundle of many kinds: FAULT says which.
#include "include/corvid/bundle.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#define NONE 0
#define CRASHES_AT_LOAD 1
#define THROWS_AT_LOAD 2
#define ENDS_THE_PROCESS_AT_LOAD 3
#define HANGS_AT_LOAD 4
#define CRASHES_AT_CREATE 5
#define THROWS 6
#define MAKES_NOTHING 7
#define LACKS_THE_OPERATION 8
#define IS_OF_ANOTHER_VERSION 9
#define LACKS_A_FUNCTION 10
#define LACKS_THE_CLASS 11
#define TOO_MANY_CLASSES 12

namespace {

std::string lastCall;
std::atomic<int> alive{0};

struct AtLoad {
  AtLoad() {
    if (FAULT == CRASHES_AT_LOAD) std::abort();
    if (FAULT == THROWS_AT_LOAD) throw std::runtime_error("not today");
    if (FAULT == ENDS_THE_PROCESS_AT_LOAD) _exit(0);
    if (FAULT == HANGS_AT_LOAD) pause();
  }
} atLoad;

void throwIfSo() {
  if (FAULT == THROWS) throw std::runtime_error("not today");
}

void* create() {
  if (FAULT == CRASHES_AT_CREATE) std::abort();
  if (FAULT == MAKES_NOTHING) return nullptr;
  ++alive;
  return &lastCall;
}

void destroy(void*) {
  --alive;
  throwIfSo();
}

int respondsTo(void*, const char* operation) {
  return FAULT != LACKS_THE_OPERATION &&
         std::strcmp(operation, "sendMessageWithMethod:respCode:dict:") == 0;
}

void perform(void*, const char* operation, std::uint16_t method, std::uint16_t respCode,
             const void* payload, std::size_t length) {
  throwIfSo();
  lastCall = std::string(operation) + " " + std::to_string(method) + " " +
             std::to_string(respCode) + " " +
             (payload ? std::string(static_cast<const char*>(payload), length) : "none");
}

const corvid_bundle_class_t classes[] = {
    {"Another", create, destroy, respondsTo, perform},
    {FAULT == LACKS_THE_CLASS ? "Other" : "MetrixAdaptor", create, destroy, respondsTo,
     FAULT == LACKS_A_FUNCTION ? nullptr : perform},
};

}  // namespace

extern "C" {

extern const corvid_bundle_t corvid_bundle;
const corvid_bundle_t corvid_bundle = {
    FAULT == IS_OF_ANOTHER_VERSION ? 999u : unsigned{CORVID_BUNDLE_VERSION},
    FAULT == TOO_MANY_CLASSES ? ~std::size_t{0} : 2, classes};

// For tests.
const std::string* bundleLastCall() { return &lastCall; }
int bundleObjectsAlive() { return alive; }
}
