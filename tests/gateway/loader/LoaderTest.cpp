#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "gateway/loader/Loader.h"
#include "tests/gateway/loader/LoaderFixture.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {
namespace {

using namespace std::chrono_literals;

// A log in memory: what a reader was given and has not released comes again when it goes. The real
// one is tested in tests/gateway/log.
class MemoryLog {
 public:
  void add(const LoggedMessage& message) {
    const std::lock_guard lock(_mutex);
    _waiting.push_back(message.message);
  }
  std::size_t unreleased() const {
    const std::lock_guard lock(_mutex);
    return _waiting.size() + _given;
  }
  std::unique_ptr<LogReader> reader() { return std::make_unique<Reader>(*this); }

 private:
  class Reader final : public LogReader {
   public:
    explicit Reader(MemoryLog& log) : _log(log) {}
    ~Reader() override {
      const std::lock_guard lock(_log._mutex);
      for (auto& [position, message] : _held) _log._waiting.push_back(message);
      _log._given -= _held.size();
    }
    std::vector<LoggedMessage> read(std::size_t most, std::chrono::milliseconds wait) override {
      (void)waitUntil(
          [&] {
            const std::lock_guard lock(_log._mutex);
            return !_log._waiting.empty();
          },
          wait);
      const std::lock_guard lock(_log._mutex);
      std::vector<LoggedMessage> messages;
      for (; !_log._waiting.empty() && messages.size() < most; _log._waiting.pop_front()) {
        _held[++_position] = _log._waiting.front();
        messages.push_back({_log._waiting.front(), _position});
        ++_log._given;
      }
      return messages;
    }
    void release(std::uint64_t position) override {
      const std::lock_guard lock(_log._mutex);
      const auto end = _held.upper_bound(position);
      _log._given -= static_cast<std::size_t>(std::distance(_held.begin(), end));
      _held.erase(_held.begin(), end);
    }

   private:
    MemoryLog& _log;
    std::map<std::uint64_t, LogMessage> _held;
    std::uint64_t _position = 0;
  };

  mutable std::mutex _mutex;
  std::deque<LogMessage> _waiting;
  std::size_t _given = 0;
};

class LoaderTest : public LoaderFixture {
 protected:
  struct Running {
    LoaderLedger ledger;
    std::unique_ptr<Loader> loader;
    std::jthread thread;
  };
  std::unique_ptr<Running> start() {
    auto running = std::make_unique<Running>();
    running->loader = std::make_unique<Loader>(
        [this] { return _log.reader(); },
        [target = _server->target()] { return std::make_unique<Store>(target); },
        Loader::Options{.batch = 7, .wait = 20ms, .longestBackOff = 200ms}, running->ledger);
    running->thread = std::jthread(
        [loader = running->loader.get()](const std::stop_token& stop) { loader->run(stop); });
    return running;
  }
  static void expectBalance(const LoaderLedger& ledger) {
    EXPECT_EQ(ledger.received(),
              ledger.stored() + ledger.repeated() + ledger.rejected() + ledger.held());
  }

  MemoryLog _log;
};

TEST_F(LoaderTest, StoresAndReleasesWhatItReads) {
  for (std::size_t number = 0; number < 100; ++number) _log.add(post(number, 1));
  _log.add(message("bad", "no JSON"));
  const auto running = start();
  ASSERT_TRUE(waitUntil([&] { return _log.unreleased() == 0; }));
  EXPECT_TRUE(running->ledger.isReading());
  running->thread.request_stop();
  running->thread.join();
  EXPECT_EQ(running->ledger.received(), 101U);
  EXPECT_EQ(running->ledger.stored(), 100U);
  EXPECT_EQ(running->ledger.rejected(), 1U);
  EXPECT_EQ(running->ledger.held(), 0U);
  expectBalance(running->ledger);
  EXPECT_EQ(ask("SELECT count(*) FROM corvid.event"), "100");
}

TEST_F(LoaderTest, SeveralShareTheWork) {
  for (std::size_t number = 0; number < 200; ++number) _log.add(post(number, 1));
  const auto one = start();
  const auto other = start();
  ASSERT_TRUE(waitUntil([&] { return _log.unreleased() == 0; }));
  EXPECT_EQ(ask("SELECT count(*) || '|' || count(DISTINCT message) FROM corvid.event"), "200|200");
}

TEST_F(LoaderTest, HoldsWhatADatabaseThatDiedDidNotTakeAndStoresItOnceItIsBack) {
  for (std::size_t number = 0; number < 50; ++number) _log.add(post(number, 1));
  const auto running = start();
  ASSERT_TRUE(waitUntil([&] { return running->ledger.stored() > 10; }));
  _server->kill();
  for (std::size_t number = 50; number < 300; ++number) _log.add(post(number, 1));
  ASSERT_TRUE(waitUntil([&] { return !running->ledger.isReading(); }));
  _server->start();
  ASSERT_TRUE(waitUntil([&] { return _log.unreleased() == 0; }, 30s));
  running->thread.request_stop();
  running->thread.join();
  expectBalance(running->ledger);
  EXPECT_EQ(ask("SELECT count(*) || '|' || count(DISTINCT message) FROM corvid.event"), "300|300");
}

}  // namespace
}  // namespace corvid::fleet
