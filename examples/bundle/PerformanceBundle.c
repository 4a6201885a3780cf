/* A bundle that says on standard error what it is asked to do. Installed as
   /usr/lib/corvid/PerformanceBundle.so it receives the events of the "metrix" backend. */
#include <corvid/bundle.h>
#include <stdio.h>
#include <string.h>

static const char forward[] = "sendMessageWithMethod:respCode:dict:";

/* This adaptor keeps nothing: one object serves everybody. */
static char only_adaptor;

static void* create(void) { return &only_adaptor; }

static void destroy(void* adaptor) { (void)adaptor; }

static int responds_to(void* adaptor, const char* operation) {
  (void)adaptor;
  return strcmp(operation, forward) == 0;
}

static void perform(void* adaptor, const char* operation, uint16_t method, uint16_t resp_code,
                    const void* payload, size_t length) {
  (void)adaptor;
  (void)operation;
  (void)payload;
  fprintf(stderr, "example adaptor: method %u, response code %u, a payload of %zu bytes\n", method,
          resp_code, length);
}

static const corvid_bundle_class_t classes[] = {
    {"MetrixAdaptor", create, destroy, responds_to, perform},
};

const corvid_bundle_t corvid_bundle = {CORVID_BUNDLE_VERSION, 1, classes};
