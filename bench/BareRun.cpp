#include "bench/BareRun.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <stdexcept>
#include <utility>

#include "base/Descriptor.h"
#include "bench/BareFrame.h"
#include "bench/Workload.h"
#include "platform/data/JSON.h"
#include "tests/support/ChildProcess.h"

#ifndef CORVID_BARE
#error "CORVID_BARE names the bare program"
#endif

namespace corvid::bench {

namespace {

template <class T>
void append(std::string& frame, T value) {
  frame.append(reinterpret_cast<const char*>(&value), sizeof value);
}

std::set<std::string, std::less<>> keysOf(const corvid_dictionary_t* payload) {
  std::set<std::string, std::less<>> keys;
  const char* key = nullptr;
  std::size_t length = 0;
  for (std::size_t at = 0; corvid_dictionary_entry(payload, at, &key, &length); ++at)
    keys.emplace(key, length);
  return keys;
}

// The fields that each record has alike, as JSON without its braces.
std::string constantsOf(const Dictionary& record, const corvid_dictionary_t* payload) {
  const auto changing = keysOf(payload);
  Dictionary constants;
  for (const auto& [key, value] : record)
    if (!changing.contains(key) && key != "_eventNumber" && key != "_clientTS" &&
        key != "eventTime")
      constants.set(key, value);
  const std::string text = writeJSON(constants).value();
  return text.substr(1, text.size() - 2);
}

void writeAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) throw std::runtime_error("the bare program reads no more");
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

}  // namespace

std::string bareFrame(const corvid_dictionary_t* payload) {
  std::string frame(sizeof(BareLength), '\0');
  const char* key = nullptr;
  std::size_t length = 0;
  for (std::size_t at = 0;; ++at) {
    const corvid_value_t* const value = corvid_dictionary_entry(payload, at, &key, &length);
    if (value == nullptr) break;
    const auto begin = [&](char type) {
      frame += type;
      append(frame, static_cast<std::uint8_t>(length));
      frame.append(key, length);
    };
    std::int64_t integer = 0;
    double real = 0;
    std::size_t textLength = 0;
    if (corvid_value_get_integer(value, &integer) == CORVID_OK) {
      begin('i');
      append(frame, integer);
    } else if (corvid_value_get_real(value, &real) == CORVID_OK) {
      begin('r');
      append(frame, real);
    } else if (const char* const text = corvid_value_string(value, &textLength)) {
      begin('s');
      append(frame, static_cast<BareTextLength>(textLength));
      frame.append(text, textLength);
    } else {
      throw std::runtime_error("the bare program takes texts, integers and reals");
    }
  }
  const auto size = static_cast<BareLength>(frame.size() - sizeof(BareLength));
  std::memcpy(frame.data(), &size, sizeof size);
  return frame;
}

double measureBare(const BareRun& run, const std::string& folder) {
  const auto payloadOf = [&](int number) {
    return std::unique_ptr<corvid_dictionary_t, void (*)(corvid_dictionary_t*)>(
        makePayload(static_cast<std::uint64_t>(number), run.textBytes), corvid_dictionary_destroy);
  };
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
    throw std::runtime_error("no sockets for the bare program");
  Descriptor ours(sockets[0]), its(sockets[1]);
  const std::string said = folder + "/bare";
  const Descriptor output(open(said.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  ChildProcess program(ChildProcess::Program{
      .command = {CORVID_BARE, run.url, run.caFile, constantsOf(*run.record, payloadOf(0).get())},
      .streams = {its.get(), output.get(), STDERR_FILENO}});
  its = Descriptor();
  const std::string postNow(sizeof(BareLength), '\0');
  for (int i = 0; i < run.events; ++i) {
    writeAll(ours.get(), bareFrame(payloadOf(i).get()));
    if ((i + 1) % run.eventsPerPost == 0) writeAll(ours.get(), postNow);
  }
  ours = Descriptor();
  if (program.waitForExit(std::chrono::minutes(5)) != 0)
    throw std::runtime_error("the bare program failed");
  double micros = 0;
  if (!(std::ifstream(said) >> micros)) throw std::runtime_error("the bare program said nothing");
  return micros / run.events;
}

}  // namespace corvid::bench
