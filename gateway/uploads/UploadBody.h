// The body of an upload, on its way to the disk.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "gateway/Budget.h"
#include "gateway/Mailbox.h"
#include "gateway/body/Exchange.h"
#include "gateway/uploads/DiskThread.h"
#include "gateway/uploads/UploadStore.h"

namespace corvid::fleet {

// Collects pieces and hands them to the disk's thread, one at a time: while the disk has one, the
// next is collected, and when that is full the connection is not read.
class UploadBody final : public Exchange {
 public:
  struct Request {
    UploadQuery query;
    std::size_t length = 0;     // as announced, or 0
    std::size_t freeSpace = 0;  // to be left on the disk
    // Called on the mailbox's thread where a pause is over.
    std::function<void()> goOn;
    std::shared_ptr<Budget::Share> share{};  // of the client; none: whatever there is
  };

  // All are borrowed, but the request.
  UploadBody(Request request, UploadStore& store, DiskThread& disk, Budget& budget,
             std::shared_ptr<Mailbox> mailbox);

  Wish take(std::string_view piece) override;
  Wish work() override;
  void finish(Done done) override;

 private:
  // What the disk's thread works on; it may be at it when the request has gone.
  struct Work {
    UploadStore& store;
    UploadQuery query;
    std::size_t needed;
    std::unique_ptr<UploadStore::File> file{};

    std::optional<Rule> write(std::string_view bytes);
    std::optional<Rule> finish(std::string_view bytes);
  };

  static constexpr std::size_t pieceBytes = std::size_t{256} << 10;

  Wish fault(Rule rule);
  void handOver();
  void written(std::optional<Rule> rule);
  void end();

  const std::function<void()> _goOn;
  Budget::Charge _charge;
  DiskThread& _disk;
  const std::shared_ptr<Mailbox> _mailbox;
  const std::shared_ptr<Work> _work;
  // Whether this is still there when the disk's answer comes.
  const std::shared_ptr<UploadBody*> _self = std::make_shared<UploadBody*>(this);
  std::size_t _sent = 0;
  std::string _collected;
  bool _diskIsBusy = false;
  bool _isPausing = false;
  std::optional<Rule> _fault;
  Done _done;  // once the body is whole
};

}  // namespace corvid::fleet
