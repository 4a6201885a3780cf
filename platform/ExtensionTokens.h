// Files that clients grant the daemon beside its sandbox, under tokens.
//
// Who receives a call grants the file that came with it; who carries the call out consumes the
// token and gets a handle on the file. The token is random and worth nothing without the grant: not
// after the call, and not on another thread than the call's, so not to another client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "base/ActingUser.h"
#include "base/Mutex.h"

namespace corvid {

class Random;

struct FileAttributes {
  bool isRegularFile = false;
  std::uint64_t size = 0;
};

// An open file and the right to remove it. One thread.
class GrantedFile {
 public:
  virtual ~GrantedFile() = default;
  // Of what cannot be looked at: no regular file.
  virtual FileAttributes attributes() = 0;
  // As much as there is from `offset` on, `size` bytes at most. Nothing where it cannot be read.
  virtual std::optional<std::string> read(std::size_t offset, std::size_t size) = 0;
  // Takes effect before the client hears of its call's end. A failure is nobody's to know.
  virtual void remove() = 0;
};

// Threads   Any. Grants and handles belong to the thread that made them and must not outlive the
//           registry.
class ExtensionTokens {
 public:
  // Grants a file under a new token until it is destroyed.
  class Grant {
   public:
    Grant(ExtensionTokens& tokens, std::shared_ptr<GrantedFile> file);
    ~Grant();
    Grant(const Grant&) = delete;
    Grant& operator=(const Grant&) = delete;
    const std::string& token() const { return _token; }

   private:
    ExtensionTokens& _tokens;
    const std::string _token;
  };

  // What a token stands for, released on destruction. Where nobody granted it, there is nothing to
  // look at, to read or to remove.
  class Handle {
   public:
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    FileAttributes attributes() const { return _file ? _file->attributes() : FileAttributes(); }
    std::optional<std::string> read(std::size_t offset, std::size_t size) const {
      return _file ? _file->read(offset, size) : std::nullopt;
    }
    void remove() const {
      if (_file) _file->remove();
    }
    // Claims so much memory for what is done with the file, in place of what was claimed before, on
    // behalf of the user that the handle's maker acted for. False, and nothing changes, where it
    // would be more and leave too little of the registry's limit for others (base/Share.h).
    bool claim(std::size_t bytes);

   private:
    friend class ExtensionTokens;
    Handle(ExtensionTokens& tokens, std::shared_ptr<GrantedFile> file);

    ExtensionTokens& _tokens;
    const std::shared_ptr<GrantedFile> _file;
    const User _user = actingUser();
    std::size_t _claimed = 0;
  };

  // `claimLimit`: what all handles may claim together, in bytes.
  ExtensionTokens(std::shared_ptr<Random> random, std::size_t claimLimit)
      : _random(std::move(random)), _claimLimit(claimLimit) {}

  [[nodiscard]] Handle consume(const std::string& token) EXCLUDES(_mutex);

  struct Usage {
    std::size_t grants = 0;
    std::size_t handles = 0;   // consumed and not released
    std::size_t consumed = 0;  // since the start
    std::size_t claimed = 0;   // by all handles, in bytes
  };
  Usage usage() const EXCLUDES(_mutex);

 private:
  struct Granted {
    std::shared_ptr<GrantedFile> file;
    std::thread::id thread;
  };

  std::string add(std::shared_ptr<GrantedFile> file) EXCLUDES(_mutex);
  void revoke(const std::string& token) EXCLUDES(_mutex);
  void release(User user, std::size_t claimed) EXCLUDES(_mutex);
  bool replaceClaim(User user, std::size_t before, std::size_t after) EXCLUDES(_mutex);
  void setClaim(User user, std::size_t before, std::size_t after) REQUIRES(_mutex);

  const std::shared_ptr<Random> _random;
  const std::size_t _claimLimit;
  mutable Mutex _mutex;
  std::map<std::string, Granted> _granted GUARDED_BY(_mutex);
  Usage _usage GUARDED_BY(_mutex);  // but for the grants
  std::map<User, std::size_t> _claimedBy GUARDED_BY(_mutex);
};

}  // namespace corvid
